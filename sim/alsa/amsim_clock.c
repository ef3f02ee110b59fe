/* The card's clock: the monotonic time base, and the genlock synthesiser output that scales it. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <math.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "amsim.h"

/* The synthesiser: 7-bit address 0x60 on its bus, PLLA at 900 MHz, first parameter register of
 * the multisynth of each genlock channel (channel 1 CLK0/MS0, 2 CLK1/MS1, 3 CLK2/MS2). */
#define AMSIM_SI5351_ADDR 0x60
#define AMSIM_SI5351_PLLA_HZ 900000000.0
#define AMSIM_SI5351_REGS_PER_MS 8
static const int kAmsimFirstRegister[] = {42, 50, 58};

/* Nominal multisynth frequency of each rate family. */
#define AMSIM_MS_NOMINAL_48K_HZ 24576000.0
#define AMSIM_MS_NOMINAL_44K1_HZ 22579000.0

/* A programmed frequency further than this from the nominal output of the card's rate belongs to
 * another rate (or to the power-up state): the card then runs at its nominal pace. */
#define AMSIM_SI5351_PLAUSIBLE 0.005

typedef struct amsim_rate_plan {
    unsigned int rate;
    double ms_nominal_hz;
    unsigned int r_divider;
} amsim_rate_plan_t;

static const amsim_rate_plan_t kAmsimRatePlan[] = {
    {44100, AMSIM_MS_NOMINAL_44K1_HZ, 4},  {48000, AMSIM_MS_NOMINAL_48K_HZ, 4},
    {88200, AMSIM_MS_NOMINAL_44K1_HZ, 2},  {96000, AMSIM_MS_NOMINAL_48K_HZ, 2},
    {176400, AMSIM_MS_NOMINAL_44K1_HZ, 1}, {192000, AMSIM_MS_NOMINAL_48K_HZ, 1},
};

void amsim_multisynth_decode(const uint8_t regs[8], amsim_multisynth_t *ms)
{
    ms->p3 = ((uint32_t)(regs[5] >> 4) << 16) | ((uint32_t)regs[0] << 8) | regs[1];
    ms->div = (uint32_t)(regs[2] >> 4) & 7u;
    ms->p1 = ((uint32_t)(regs[2] & 3u) << 16) | ((uint32_t)regs[3] << 8) | regs[4];
    ms->p2 = ((uint32_t)(regs[5] & 0x0fu) << 16) | ((uint32_t)regs[6] << 8) | regs[7];
}

/* The divide ratio is (P1 + 512 + P2 / P3) / 128; the output is PLLA over that, over R. */
double amsim_multisynth_output_hz(const amsim_multisynth_t *ms)
{
    if (ms->p3 == 0)
        return 0.0;
    double denom = ((double)ms->p1 + 512.0) * (double)ms->p3 + (double)ms->p2;
    double ms_hz = AMSIM_SI5351_PLLA_HZ * 128.0 * (double)ms->p3 / denom;
    return ms_hz / (double)(1u << ms->div);
}

static const amsim_rate_plan_t *amsim_rate_plan(unsigned int rate)
{
    for (size_t i = 0; i < sizeof(kAmsimRatePlan) / sizeof(kAmsimRatePlan[0]); i++) {
        if (kAmsimRatePlan[i].rate == rate)
            return &kAmsimRatePlan[i];
    }
    return NULL;
}

double amsim_si5351_factor(const amsim_multisynth_t *ms, unsigned int rate)
{
    const amsim_rate_plan_t *plan = amsim_rate_plan(rate);
    double out_hz = amsim_multisynth_output_hz(ms);
    if (plan == NULL || out_hz <= 0.0)
        return 1.0;
    double factor = out_hz / (plan->ms_nominal_hz / (double)plan->r_divider);
    return fabs(factor - 1.0) > AMSIM_SI5351_PLAUSIBLE ? 1.0 : factor;
}

/* A missing bus file, a bus that is no regular file or unprogrammed registers: nominal pace. */
double amsim_si5351_read_factor(const char *bus_path, int channel, unsigned int rate)
{
    if (bus_path == NULL || bus_path[0] == '\0' || channel < 1 || channel > 3)
        return 1.0;
    int fd = open(bus_path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 1.0;
    struct stat st;
    uint8_t regs[AMSIM_SI5351_REGS_PER_MS] = {0};
    off_t offset = (off_t)AMSIM_SI5351_ADDR * 256 + kAmsimFirstRegister[channel - 1];
    ssize_t got = -1;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode))
        got = pread(fd, regs, sizeof(regs), offset);
    close(fd);
    if (got != (ssize_t)sizeof(regs))
        return 1.0;
    amsim_multisynth_t ms;
    amsim_multisynth_decode(regs, &ms);
    return amsim_si5351_factor(&ms, rate);
}

int64_t amsim_now_ns(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

void amsim_clock_start(amsim_clock_t *clk, unsigned int rate, double factor, int64_t now_ns)
{
    clk->rate = rate;
    clk->factor = factor;
    clk->anchor_ns = now_ns;
    clk->anchor_pos = 0.0;
}

static double amsim_clock_frames_per_ns(const amsim_clock_t *clk)
{
    return (double)clk->rate * clk->factor / 1e9;
}

double amsim_clock_position(const amsim_clock_t *clk, int64_t now_ns)
{
    if (now_ns <= clk->anchor_ns)
        return clk->anchor_pos;
    return clk->anchor_pos + (double)(now_ns - clk->anchor_ns) * amsim_clock_frames_per_ns(clk);
}

int64_t amsim_clock_time_of(const amsim_clock_t *clk, double pos)
{
    double fpn = amsim_clock_frames_per_ns(clk);
    if (fpn <= 0.0)
        return clk->anchor_ns;
    return clk->anchor_ns + (int64_t)ceil((pos - clk->anchor_pos) / fpn);
}

/* A new pace takes effect from now on: the position stays continuous. */
void amsim_clock_set_factor(amsim_clock_t *clk, double factor, int64_t now_ns)
{
    if (factor == clk->factor)
        return;
    clk->anchor_pos = amsim_clock_position(clk, now_ns);
    clk->anchor_ns = now_ns;
    clk->factor = factor;
}
