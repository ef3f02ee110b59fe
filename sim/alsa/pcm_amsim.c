/* The virtual sound card "amsim": an ALSA I/O plugin that behaves like a kernel driver. Its
 * hardware position follows CLOCK_MONOTONIC at the sample rate, scaled by the crystal error and
 * by the genlock synthesiser output that drives it; the period "interrupt" is a timerfd armed for
 * the moment avail reaches avail_min. Playback frames are written to an optional file as the card
 * plays them; capture frames come from a looped file or a test pattern.
 * One PCM handle is used by one thread at a time, as alsa-lib requires; the callbacks share the
 * card record without further locking. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <math.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>

#include "amsim.h"

/* Housekeeping (synthesiser registers, stall file) runs at least this often while the card moves. */
#define AMSIM_CHECK_PERIOD_NS 100000000LL
/* One timelog line per this many frames: 100 ms of audio. */
#define AMSIM_TIMELOG_PER_SECOND 10u
/* Test pattern: channel in the top bits, frame counter below, byte 3 of 32-bit samples left 0. */
#define AMSIM_PATTERN_S16_FRAME_BITS 13u
#define AMSIM_PATTERN_S24_FRAME_BITS 21u

static const unsigned int kAmsimAccess[] = {SND_PCM_ACCESS_RW_INTERLEAVED,
                                            SND_PCM_ACCESS_MMAP_INTERLEAVED};
static const unsigned int kAmsimFormats[] = {SND_PCM_FORMAT_S16_LE, SND_PCM_FORMAT_S24_LE};
static const unsigned int kAmsimChannels[] = {2, 6, 8};
static const unsigned int kAmsimRates[] = {44100, 48000, 88200, 96000, 176400, 192000};

typedef struct amsim {
    snd_pcm_ioplug_t io;
    amsim_config_t cfg;
    char bus_path[AMSIM_PATH_MAX];
    char stall_path[AMSIM_PATH_MAX];
    int timer_fd;
    int infile_fd;
    int outfile_fd;
    int timelog_fd;
    unsigned int frame_bytes;
    snd_pcm_uframes_t avail_min;
    snd_pcm_uframes_t stop_threshold;
    snd_pcm_uframes_t boundary;
    amsim_clock_t clock;
    uint64_t run_frames;   /* frames moved since the stream started */
    uint64_t counter;      /* frames moved since the card was opened */
    uint64_t run_base;     /* counter when the stream started */
    uint64_t next_log;     /* counter of the next timelog line */
    int64_t next_check_ns; /* next housekeeping */
    int64_t stall_until_ns;
    off_t infile_pos;
} amsim_t;

static int amsim_is_playback(const amsim_t *a)
{
    return a->io.stream == SND_PCM_STREAM_PLAYBACK;
}

static int amsim_is_moving(snd_pcm_state_t state)
{
    return state == SND_PCM_STATE_RUNNING || state == SND_PCM_STATE_DRAINING;
}

static snd_pcm_uframes_t amsim_boundary(const amsim_t *a)
{
    return a->boundary != 0 ? a->boundary : a->io.buffer_size;
}

/* Frames the application has written and the card not yet played. */
static uint64_t amsim_queued(const amsim_t *a)
{
    uint64_t b = amsim_boundary(a);
    return (a->io.appl_ptr % b + b - a->run_frames % b) % b;
}

/* Frames the card has captured and the application not yet read. */
static uint64_t amsim_filled(const amsim_t *a)
{
    uint64_t b = amsim_boundary(a);
    return (a->run_frames % b + b - a->io.appl_ptr % b) % b;
}

static uint64_t amsim_avail(const amsim_t *a)
{
    if (amsim_is_playback(a)) {
        uint64_t q = amsim_queued(a);
        return q >= a->io.buffer_size ? 0 : a->io.buffer_size - q;
    }
    return amsim_filled(a);
}

static int amsim_stop_enabled(const amsim_t *a)
{
    return a->stop_threshold != 0 && a->stop_threshold < amsim_boundary(a);
}

static int amsim_stalled(const amsim_t *a, int64_t now)
{
    return a->stall_until_ns != 0 && now < a->stall_until_ns;
}

/* ---- files ---- */

static void amsim_close_fd(int *fd)
{
    if (*fd >= 0)
        close(*fd);
    *fd = -1;
}

static void amsim_make_parent_dirs(const char *path)
{
    char dir[AMSIM_PATH_MAX];
    snprintf(dir, sizeof(dir), "%s", path);
    for (char *p = dir + 1; *p != '\0'; p++) {
        if (*p != '/')
            continue;
        *p = '\0';
        mkdir(dir, 0755);
        *p = '/';
    }
}

static int amsim_open_output(const amsim_config_t *cfg, const char *raw, int *fd)
{
    char path[AMSIM_PATH_MAX];
    int err = amsim_resolve_path(cfg, raw, path, sizeof(path));
    if (err < 0 || path[0] == '\0')
        return err;
    amsim_make_parent_dirs(path);
    *fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (*fd < 0) {
        SNDERR("amsim: cannot create %s: %s", path, strerror(errno));
        return -errno;
    }
    return 0;
}

static int amsim_open_input(const amsim_config_t *cfg, const char *raw, int *fd)
{
    char path[AMSIM_PATH_MAX];
    int err = amsim_resolve_path(cfg, raw, path, sizeof(path));
    if (err < 0 || path[0] == '\0')
        return err;
    *fd = open(path, O_RDONLY | O_CLOEXEC);
    if (*fd < 0) {
        SNDERR("amsim: cannot open %s: %s", path, strerror(errno));
        return -errno;
    }
    return 0;
}

static void amsim_write_all(int fd, const uint8_t *data, size_t len)
{
    while (len > 0) {
        ssize_t n = write(fd, data, len);
        if (n <= 0)
            return; /* a full disk does not stop the card */
        data += n;
        len -= (size_t)n;
    }
}

static void amsim_timelog_line(amsim_t *a, uint64_t position, int64_t ns)
{
    if (a->timelog_fd >= 0)
        dprintf(a->timelog_fd, "%llu %lld\n", (unsigned long long)position, (long long)ns);
}

static uint64_t amsim_timelog_interval(const amsim_t *a)
{
    uint64_t n = a->io.rate / AMSIM_TIMELOG_PER_SECOND;
    return n > 0 ? n : 1;
}

/* One line for every multiple of the interval the counter has passed, stamped with the exact
 * moment the card reached that frame. */
static void amsim_timelog_advance(amsim_t *a)
{
    if (a->timelog_fd < 0)
        return;
    while (a->next_log <= a->counter) {
        double run_pos = (double)(a->next_log - a->run_base);
        amsim_timelog_line(a, a->next_log, amsim_clock_time_of(&a->clock, run_pos));
        a->next_log += amsim_timelog_interval(a);
    }
}

/* ---- the ring buffer (alsa-lib's local buffer, our "DMA" memory) ---- */

static uint8_t *amsim_ring_frame(const amsim_t *a, uint64_t run_pos)
{
    const snd_pcm_channel_area_t *areas = snd_pcm_ioplug_mmap_areas((snd_pcm_ioplug_t *)&a->io);
    uint64_t offset = run_pos % a->io.buffer_size;
    return (uint8_t *)areas[0].addr + areas[0].first / 8 + offset * (areas[0].step / 8);
}

/* Calls fn on the contiguous pieces of the ring holding the next n frames of the card. */
static void amsim_ring_pieces(amsim_t *a, uint64_t n,
                              void (*fn)(amsim_t *a, uint8_t *frames, uint64_t count,
                                         uint64_t pos))
{
    uint64_t pos = a->run_frames;
    while (n > 0) {
        uint64_t to_end = a->io.buffer_size - pos % a->io.buffer_size;
        uint64_t piece = n < to_end ? n : to_end;
        fn(a, amsim_ring_frame(a, pos), piece, pos);
        pos += piece;
        n -= piece;
    }
}

static void amsim_play_piece(amsim_t *a, uint8_t *frames, uint64_t count, uint64_t pos)
{
    (void)pos;
    if (a->outfile_fd >= 0)
        amsim_write_all(a->outfile_fd, frames, (size_t)(count * a->frame_bytes));
}

static void amsim_pattern_frame(const amsim_t *a, uint8_t *frame, uint64_t index)
{
    for (unsigned int ch = 0; ch < a->io.channels; ch++) {
        if (a->io.format == SND_PCM_FORMAT_S16_LE) {
            uint32_t v = (ch << AMSIM_PATTERN_S16_FRAME_BITS) |
                         (uint32_t)(index & ((1u << AMSIM_PATTERN_S16_FRAME_BITS) - 1u));
            frame[2 * ch] = (uint8_t)v;
            frame[2 * ch + 1] = (uint8_t)(v >> 8);
        } else {
            uint32_t v = (ch << AMSIM_PATTERN_S24_FRAME_BITS) |
                         (uint32_t)(index & ((1u << AMSIM_PATTERN_S24_FRAME_BITS) - 1u));
            frame[4 * ch] = (uint8_t)v;
            frame[4 * ch + 1] = (uint8_t)(v >> 8);
            frame[4 * ch + 2] = (uint8_t)(v >> 16);
            frame[4 * ch + 3] = 0;
        }
    }
}

/* The input file is read in a loop; an empty or unreadable file gives silence. */
static void amsim_infile_read(amsim_t *a, uint8_t *dst, size_t len)
{
    int wrapped = 0;
    while (len > 0) {
        ssize_t n = pread(a->infile_fd, dst, len, a->infile_pos);
        if (n > 0) {
            dst += n;
            len -= (size_t)n;
            a->infile_pos += n;
            wrapped = 0;
            continue;
        }
        if (wrapped || a->infile_pos == 0)
            break;
        a->infile_pos = 0;
        wrapped = 1;
    }
    memset(dst, 0, len);
}

/* pos: the card's run position of the first frame; the pattern counts from the card's open. */
static void amsim_capture_piece(amsim_t *a, uint8_t *frames, uint64_t count, uint64_t pos)
{
    if (a->infile_fd >= 0) {
        amsim_infile_read(a, frames, (size_t)(count * a->frame_bytes));
        return;
    }
    uint64_t first = a->run_base + pos;
    for (uint64_t i = 0; i < count; i++)
        amsim_pattern_frame(a, frames + i * a->frame_bytes, first + i);
}

/* ---- pacing ---- */

static double amsim_pace_factor(const amsim_t *a)
{
    double si = amsim_si5351_read_factor(a->bus_path, a->cfg.si5351_channel, a->io.rate);
    return si * (1.0 + a->cfg.rate_ppm * 1e-6);
}

static long amsim_read_stall_ms(const char *path)
{
    char text[32] = {0};
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    ssize_t n = read(fd, text, sizeof(text) - 1);
    close(fd);
    long ms = n > 0 ? strtol(text, NULL, 10) : 0;
    return ms > 0 ? ms : 0;
}

static void amsim_end_stall(amsim_t *a)
{
    if (a->stall_until_ns == 0)
        return;
    a->stall_until_ns = 0;
    unlink(a->stall_path);
}

static void amsim_check_stall(amsim_t *a, int64_t now)
{
    if (a->stall_path[0] == '\0' || a->stall_until_ns != 0)
        return;
    long ms = amsim_read_stall_ms(a->stall_path);
    if (ms < 0)
        return;
    if (ms == 0) {
        unlink(a->stall_path);
        return;
    }
    /* The card stops moving data for ms milliseconds; the file goes when the stall ends. */
    a->stall_until_ns = now + (int64_t)ms * 1000000LL;
}

static void amsim_housekeeping(amsim_t *a, int64_t now)
{
    if (a->stall_until_ns != 0 && now >= a->stall_until_ns)
        amsim_end_stall(a);
    if (now < a->next_check_ns)
        return;
    a->next_check_ns = now + AMSIM_CHECK_PERIOD_NS;
    amsim_check_stall(a, now);
    amsim_clock_set_factor(&a->clock, amsim_pace_factor(a), now);
}

static void amsim_moved(amsim_t *a, uint64_t n)
{
    a->run_frames += n;
    a->counter += n;
    amsim_timelog_advance(a);
}

static int amsim_advance_playback(amsim_t *a, uint64_t delta)
{
    uint64_t queued = amsim_queued(a);
    uint64_t n = delta < queued ? delta : queued;
    amsim_ring_pieces(a, n, amsim_play_piece);
    amsim_moved(a, n);
    if (a->io.state == SND_PCM_STATE_DRAINING || !amsim_stop_enabled(a))
        return 0;
    /* Underrun: the card needed more than the application had written. */
    if (a->io.buffer_size - (queued - n) >= a->stop_threshold)
        return -EPIPE;
    return 0;
}

static int amsim_advance_capture(amsim_t *a, uint64_t delta)
{
    uint64_t filled = amsim_filled(a);
    uint64_t room = a->io.buffer_size > filled ? a->io.buffer_size - filled : 0;
    uint64_t n = delta < room ? delta : room;
    amsim_ring_pieces(a, n, amsim_capture_piece);
    amsim_moved(a, n);
    /* Overrun: the application left no room for what the card captured. */
    if (amsim_stop_enabled(a) && filled + n >= a->stop_threshold)
        return -EPIPE;
    return 0;
}

/* ---- the failure after fail_after periods ---- */

/* Frames the card moves from its open until it fails; 0 when it never does. */
static uint64_t amsim_fail_frame(const amsim_t *a)
{
    return a->cfg.fail_after > 0 ? (uint64_t)a->cfg.fail_after * a->io.period_size : 0;
}

static int amsim_failed(const amsim_t *a)
{
    return amsim_fail_frame(a) != 0 && a->counter >= amsim_fail_frame(a);
}

static int amsim_fail_stalls(const amsim_t *a)
{
    return strcmp(a->cfg.fail_mode, AMSIM_FAIL_STALL) == 0;
}

/* The state a failed card is put in; the plugin layer turns it into the transfer error: an
 * unplugged card -ENODEV, an unprepared one -EBADFD, a prepared one -EIO (its start fails). */
static snd_pcm_state_t amsim_fail_state(const amsim_t *a)
{
    if (strcmp(a->cfg.fail_mode, AMSIM_FAIL_EIO) == 0)
        return SND_PCM_STATE_PREPARED;
    if (strcmp(a->cfg.fail_mode, AMSIM_FAIL_EBADFD) == 0)
        return SND_PCM_STATE_SETUP;
    return SND_PCM_STATE_DISCONNECTED;
}

static void amsim_fail(amsim_t *a, int64_t now)
{
    if (amsim_fail_stalls(a) || a->io.state == amsim_fail_state(a))
        return;
    amsim_timelog_line(a, a->counter, now);
    snd_pcm_ioplug_set_state(&a->io, amsim_fail_state(a));
}

/* A card failed with an error (not a stall) reports it to every poll. */
static int amsim_failed_loudly(const amsim_t *a)
{
    return amsim_failed(a) && !amsim_fail_stalls(a);
}

static int amsim_advance(amsim_t *a, int64_t now)
{
    if (amsim_failed(a)) {
        amsim_fail(a, now); /* a card unplugged stays so, also when restarted */
        return 0;
    }
    if (amsim_stalled(a, now))
        return 0;
    double pos = amsim_clock_position(&a->clock, now);
    uint64_t target = (uint64_t)floor(pos);
    if (target <= a->run_frames)
        return 0;
    uint64_t delta = target - a->run_frames;
    uint64_t fail_frame = amsim_fail_frame(a);
    if (fail_frame != 0 && delta > fail_frame - a->counter)
        delta = fail_frame - a->counter;
    int err = amsim_is_playback(a) ? amsim_advance_playback(a, delta)
                                   : amsim_advance_capture(a, delta);
    if (err == 0 && amsim_failed(a))
        amsim_fail(a, now);
    return err;
}

/* ---- the period "interrupt" ---- */

/* Frames the card must still move before the application may transfer. */
static uint64_t amsim_frames_to_ready(const amsim_t *a)
{
    uint64_t avail = amsim_avail(a);
    uint64_t target = a->io.state == SND_PCM_STATE_DRAINING ? a->io.buffer_size : a->avail_min;
    return avail >= target ? 0 : target - avail;
}

/* Monotonic time at which poll should wake: 0 never, now or earlier at once. */
static int64_t amsim_ready_time(const amsim_t *a, int64_t now, int xrun)
{
    snd_pcm_state_t state = a->io.state;
    if (xrun || amsim_failed_loudly(a))
        return now;
    if (state == SND_PCM_STATE_PREPARED)
        return amsim_is_playback(a) && amsim_avail(a) >= a->avail_min ? now : 0;
    if (state == SND_PCM_STATE_PAUSED)
        return 0;
    if (!amsim_is_moving(state))
        return now;
    if (amsim_failed(a))
        return 0; /* stalled for good: nothing will change, a poll waits for its own timeout */
    uint64_t need = amsim_frames_to_ready(a);
    if (need == 0)
        return now;
    int64_t when = amsim_clock_time_of(&a->clock, (double)(a->run_frames + need));
    if (amsim_stalled(a, now) && when < a->stall_until_ns)
        when = a->stall_until_ns;
    if (when > now + AMSIM_CHECK_PERIOD_NS)
        when = now + AMSIM_CHECK_PERIOD_NS;
    return when;
}

static void amsim_arm_at(amsim_t *a, int64_t when)
{
    struct itimerspec its;
    memset(&its, 0, sizeof(its));
    if (when > 0) {
        its.it_value.tv_sec = when / 1000000000LL;
        its.it_value.tv_nsec = when % 1000000000LL;
        if (its.it_value.tv_sec == 0 && its.it_value.tv_nsec == 0)
            its.it_value.tv_nsec = 1;
    }
    timerfd_settime(a->timer_fd, TFD_TIMER_ABSTIME, &its, NULL);
}

static void amsim_arm(amsim_t *a, int64_t now, int xrun)
{
    amsim_arm_at(a, amsim_ready_time(a, now, xrun));
}

static void amsim_drain_timer(amsim_t *a)
{
    uint64_t expirations;
    while (read(a->timer_fd, &expirations, sizeof(expirations)) > 0) {
    }
}

/* ---- ioplug callbacks ---- */

static snd_pcm_sframes_t amsim_pointer(snd_pcm_ioplug_t *io)
{
    amsim_t *a = io->private_data;
    int64_t now = amsim_now_ns();
    int err = 0;
    if (amsim_is_moving(io->state)) {
        amsim_housekeeping(a, now);
        err = amsim_advance(a, now);
        /* A card stamps its trigger time when it stops on an xrun; the plugin layer does that
         * only when the stream is dropped, so drop it here (the stop callback writes the time log
         * line): the layer then records the xrun state over it when this callback returns. */
        if (err < 0)
            snd_pcm_drop(io->pcm);
    }
    amsim_arm(a, now, err < 0);
    if (err < 0)
        return err;
    return (snd_pcm_sframes_t)(a->run_frames % amsim_boundary(a));
}

static int amsim_start(snd_pcm_ioplug_t *io)
{
    amsim_t *a = io->private_data;
    int64_t now = amsim_now_ns();
    if (amsim_failed_loudly(a))
        return -EIO; /* a failed card does not start again (unplugged, the layer answers first) */
    a->run_frames = 0;
    a->run_base = a->counter;
    amsim_clock_start(&a->clock, io->rate, amsim_pace_factor(a), now);
    a->next_check_ns = now + AMSIM_CHECK_PERIOD_NS;
    amsim_timelog_line(a, a->counter, now);
    a->next_log = a->counter + amsim_timelog_interval(a);
    return 0;
}

static int amsim_stop(snd_pcm_ioplug_t *io)
{
    amsim_t *a = io->private_data;
    int64_t now = amsim_now_ns();
    if (amsim_is_moving(io->state)) {
        /* A real card keeps moving data between the application's calls: what it would have
         * played (or captured) by now is moved before it stops, so a stream left idle before a
         * drop still has its queued frames in the outfile. An underrun found here needs no drop:
         * the card is stopping anyway. */
        (void)amsim_advance(a, now);
        amsim_timelog_line(a, a->counter, now);
    }
    amsim_arm_at(a, now); /* the stopped card reports an error to poll */
    return 0;
}

static int amsim_prepare(snd_pcm_ioplug_t *io)
{
    amsim_t *a = io->private_data;
    a->run_frames = 0;
    /* A prepared playback card accepts data at once; a prepared capture card waits for start. */
    amsim_arm_at(a, amsim_is_playback(a) ? amsim_now_ns() : 0);
    return 0;
}

static int amsim_hw_params(snd_pcm_ioplug_t *io, snd_pcm_hw_params_t *params)
{
    amsim_t *a = io->private_data;
    (void)params;
    int width = snd_pcm_format_physical_width(io->format);
    if (width <= 0)
        return -EINVAL;
    a->frame_bytes = io->channels * (unsigned int)width / 8u;
    a->infile_pos = 0;
    return 0;
}

static int amsim_sw_params(snd_pcm_ioplug_t *io, snd_pcm_sw_params_t *params)
{
    amsim_t *a = io->private_data;
    snd_pcm_uframes_t v = 0;
    if (snd_pcm_sw_params_get_avail_min(params, &v) == 0)
        a->avail_min = v > 0 ? v : 1;
    if (snd_pcm_sw_params_get_stop_threshold(params, &v) == 0)
        a->stop_threshold = v;
    if (snd_pcm_sw_params_get_boundary(params, &v) == 0)
        a->boundary = v;
    return 0;
}

static int amsim_poll_descriptors_count(snd_pcm_ioplug_t *io)
{
    (void)io;
    return 1;
}

static int amsim_poll_descriptors(snd_pcm_ioplug_t *io, struct pollfd *pfd, unsigned int space)
{
    amsim_t *a = io->private_data;
    if (space < 1)
        return 0;
    amsim_arm(a, amsim_now_ns(), 0);
    pfd->fd = a->timer_fd;
    pfd->events = POLLIN | POLLERR | POLLNVAL;
    pfd->revents = 0;
    return 1;
}

static int amsim_poll_revents(snd_pcm_ioplug_t *io, struct pollfd *pfd, unsigned int nfds,
                              unsigned short *revents)
{
    amsim_t *a = io->private_data;
    (void)pfd;
    (void)nfds;
    unsigned short ready = amsim_is_playback(a) ? POLLOUT : POLLIN;
    amsim_drain_timer(a);
    snd_pcm_sframes_t avail = snd_pcm_avail_update(io->pcm);
    snd_pcm_state_t state = io->state;
    if (avail < 0 || amsim_failed_loudly(a) ||
        (!amsim_is_moving(state) && state != SND_PCM_STATE_PREPARED && state != SND_PCM_STATE_PAUSED)) {
        *revents = ready | POLLERR;
        return 0;
    }
    uint64_t target = state == SND_PCM_STATE_DRAINING ? io->buffer_size : a->avail_min;
    *revents = (uint64_t)avail >= target && state != SND_PCM_STATE_PAUSED ? ready : 0;
    return 0;
}

static int amsim_close(snd_pcm_ioplug_t *io)
{
    amsim_t *a = io->private_data;
    amsim_end_stall(a);
    amsim_close_fd(&a->timer_fd);
    amsim_close_fd(&a->infile_fd);
    amsim_close_fd(&a->outfile_fd);
    amsim_close_fd(&a->timelog_fd);
    free(a);
    return 0;
}

static const snd_pcm_ioplug_callback_t kAmsimCallbacks = {
    .start = amsim_start,
    .stop = amsim_stop,
    .pointer = amsim_pointer,
    .close = amsim_close,
    .hw_params = amsim_hw_params,
    .sw_params = amsim_sw_params,
    .prepare = amsim_prepare,
    .poll_descriptors_count = amsim_poll_descriptors_count,
    .poll_descriptors = amsim_poll_descriptors,
    .poll_revents = amsim_poll_revents,
};

/* ---- creation ---- */

static int amsim_set_list(snd_pcm_ioplug_t *io, int type, const unsigned int *list, size_t n)
{
    return snd_pcm_ioplug_set_param_list(io, type, (unsigned int)n, list);
}

static int amsim_set_constraints(amsim_t *a)
{
    snd_pcm_ioplug_t *io = &a->io;
    unsigned int max_bytes = (unsigned int)a->cfg.max_buffer_bytes;
    int err = amsim_set_list(io, SND_PCM_IOPLUG_HW_ACCESS, kAmsimAccess,
                             sizeof(kAmsimAccess) / sizeof(kAmsimAccess[0]));
    if (err >= 0)
        err = amsim_set_list(io, SND_PCM_IOPLUG_HW_FORMAT, kAmsimFormats,
                             sizeof(kAmsimFormats) / sizeof(kAmsimFormats[0]));
    if (err >= 0)
        err = amsim_set_list(io, SND_PCM_IOPLUG_HW_CHANNELS, kAmsimChannels,
                             sizeof(kAmsimChannels) / sizeof(kAmsimChannels[0]));
    if (err >= 0)
        err = amsim_set_list(io, SND_PCM_IOPLUG_HW_RATE, kAmsimRates,
                             sizeof(kAmsimRates) / sizeof(kAmsimRates[0]));
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_PERIOD_BYTES, 64,
                                              max_bytes / 2);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_BUFFER_BYTES, 128,
                                              max_bytes);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_PERIODS, 2, 1024);
    return err;
}

static int amsim_open_files(amsim_t *a)
{
    const amsim_config_t *cfg = &a->cfg;
    int err = amsim_resolve_path(cfg, cfg->si5351_bus, a->bus_path, sizeof(a->bus_path));
    if (err >= 0)
        err = amsim_resolve_path(cfg, cfg->stall_file, a->stall_path, sizeof(a->stall_path));
    if (err >= 0)
        err = amsim_open_output(cfg, cfg->timelog, &a->timelog_fd);
    if (err >= 0 && cfg->direction == AMSIM_DIR_PLAYBACK)
        err = amsim_open_output(cfg, cfg->outfile, &a->outfile_fd);
    if (err >= 0 && cfg->direction == AMSIM_DIR_CAPTURE)
        err = amsim_open_input(cfg, cfg->infile, &a->infile_fd);
    if (err >= 0) {
        a->timer_fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
        if (a->timer_fd < 0)
            err = -errno;
    }
    return err;
}

static amsim_t *amsim_new(snd_pcm_stream_t stream)
{
    amsim_t *a = calloc(1, sizeof(*a));
    if (a == NULL)
        return NULL;
    a->timer_fd = a->infile_fd = a->outfile_fd = a->timelog_fd = -1;
    a->avail_min = 1;
    amsim_config_defaults(&a->cfg, stream == SND_PCM_STREAM_PLAYBACK ? AMSIM_DIR_PLAYBACK
                                                                     : AMSIM_DIR_CAPTURE);
    return a;
}

static void amsim_free_unopened(amsim_t *a)
{
    amsim_close_fd(&a->timer_fd);
    amsim_close_fd(&a->infile_fd);
    amsim_close_fd(&a->outfile_fd);
    amsim_close_fd(&a->timelog_fd);
    free(a);
}

static int amsim_configure(amsim_t *a, snd_config_t *conf)
{
    int err = amsim_config_load(&a->cfg, conf);
    if (err < 0)
        return err;
    amsim_config_apply_env(&a->cfg);
    if (a->cfg.max_buffer_bytes < 256 || a->cfg.max_buffer_bytes > INT_MAX) {
        SNDERR("amsim: max_buffer_bytes out of range");
        return -EINVAL;
    }
    return amsim_open_files(a);
}

static int amsim_create(amsim_t *a, const char *name, snd_pcm_stream_t stream, int mode)
{
    a->io.version = SND_PCM_IOPLUG_VERSION;
    a->io.name = "amsim virtual sound card";
    a->io.callback = &kAmsimCallbacks;
    a->io.private_data = a;
    a->io.poll_fd = a->timer_fd;
    a->io.poll_events = POLLIN;
    a->io.mmap_rw = 1;
    a->io.flags = SND_PCM_IOPLUG_FLAG_MONOTONIC | SND_PCM_IOPLUG_FLAG_BOUNDARY_WA;
    return snd_pcm_ioplug_create(&a->io, name, stream, mode);
}

SND_PCM_PLUGIN_DEFINE_FUNC(amsim)
{
    (void)root;
    amsim_t *a = amsim_new(stream);
    if (a == NULL)
        return -ENOMEM;
    int err = amsim_configure(a, conf);
    if (err >= 0)
        err = amsim_create(a, name, stream, mode);
    if (err < 0) {
        amsim_free_unopened(a);
        return err;
    }
    err = amsim_set_constraints(a);
    if (err < 0) {
        snd_pcm_ioplug_delete(&a->io); /* closes the card and frees a */
        return err;
    }
    *pcmp = a->io.pcm;
    return 0;
}

SND_PCM_PLUGIN_SYMBOL(amsim);
