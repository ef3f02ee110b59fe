/* The virtual sound card: a user-space PCM paced in real time by the monotonic clock.
 * Internal interfaces shared by its source files. */
#ifndef AMSIM_H
#define AMSIM_H

#include <stddef.h>
#include <stdint.h>

#include <alsa/asoundlib.h>

enum {
    AMSIM_PATH_MAX = 1024,
    AMSIM_DIR_PLAYBACK = 0,
    AMSIM_DIR_CAPTURE = 1,
    AMSIM_NAME_MAX = 32,
};

/* fail_mode values: the card is unplugged (every transfer then fails with -ENODEV), it stops
 * moving data for good without reporting anything, it drops out of its stream and refuses to start
 * again (-EIO), or it falls back to its unprepared state (-EBADFD). */
#define AMSIM_FAIL_DISCONNECT "disconnect"
#define AMSIM_FAIL_STALL "stall"
#define AMSIM_FAIL_EIO "eio"
#define AMSIM_FAIL_EBADFD "ebadfd"

/* Settings of one card, from the configuration and the environment. Paths are kept as written
 * (templates and board paths); amsim_resolve_path turns them into host paths. */
typedef struct amsim_config {
    int card;                  /* card number of "hw:N,0"; fills %c in paths */
    int direction;             /* AMSIM_DIR_PLAYBACK or AMSIM_DIR_CAPTURE */
    double rate_ppm;           /* crystal error of the card */
    int si5351_channel;        /* genlock channel 1-3 driving the pace, 0 none */
    long max_buffer_bytes;     /* size of the card's DMA buffer */
    long fail_after;           /* periods moved after which the card fails, 0 never */
    char fail_mode[AMSIM_NAME_MAX]; /* how it fails: one of AMSIM_FAIL_* */
    char si5351_bus[AMSIM_PATH_MAX];
    char infile[AMSIM_PATH_MAX];
    char outfile[AMSIM_PATH_MAX];
    char timelog[AMSIM_PATH_MAX];
    char stall_file[AMSIM_PATH_MAX];
} amsim_config_t;

/* amsim_config.c */
void amsim_config_defaults(amsim_config_t *cfg, int direction);
int amsim_config_set(amsim_config_t *cfg, const char *key, const char *text);
int amsim_config_load(amsim_config_t *cfg, snd_config_t *conf);
void amsim_config_apply_env(amsim_config_t *cfg);
int amsim_resolve_path(const amsim_config_t *cfg, const char *raw, char *out, size_t size);

/* amsim_clock.c: one multisynth of the clock synthesiser. */
typedef struct amsim_multisynth {
    uint32_t p1, p2, p3; /* multisynth parameters */
    uint32_t div;        /* output divider code: the output is divided by 1 << div */
} amsim_multisynth_t;

void amsim_multisynth_decode(const uint8_t regs[8], amsim_multisynth_t *ms);
double amsim_multisynth_output_hz(const amsim_multisynth_t *ms);
double amsim_si5351_factor(const amsim_multisynth_t *ms, unsigned int rate);
double amsim_si5351_read_factor(const char *bus_path, int channel, unsigned int rate);

/* The pace of a running card: position = anchor + elapsed x rate x factor. */
typedef struct amsim_clock {
    unsigned int rate;
    double factor;
    int64_t anchor_ns;
    double anchor_pos;
} amsim_clock_t;

int64_t amsim_now_ns(void);
void amsim_clock_start(amsim_clock_t *clk, unsigned int rate, double factor, int64_t now_ns);
double amsim_clock_position(const amsim_clock_t *clk, int64_t now_ns);
int64_t amsim_clock_time_of(const amsim_clock_t *clk, double pos);
void amsim_clock_set_factor(amsim_clock_t *clk, double factor, int64_t now_ns);

#endif
