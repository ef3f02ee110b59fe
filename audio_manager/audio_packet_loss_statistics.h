// Packet-loss statistics of the network-to-playback streams: per stream the total of lost bytes
// and the losses of the last 60 distinct seconds, published in "/tmp/pktdrop.json" and announced
// to cmd_core whenever bytes were lost in the last ten seconds.
#pragma once

#include <ctime>
#include <string>

#include "qb_audio_protocol.h"  // AUDIO_LOSS_FILE and the drop event's item types
#include "qb_types.h"

// Number of network streams with loss records.
inline constexpr int AUDIO_LOSS_STREAMS = 3;
// Distinct seconds kept per stream.
inline constexpr int AUDIO_LOSS_SECONDS = 60;
// Age in seconds up to which a loss counts in the window (the current second and the ten before).
inline constexpr qb_s64_t AUDIO_LOSS_WINDOW_SECONDS = 10;
// Seconds between two checks of the loop.
inline constexpr unsigned AUDIO_LOSS_CHECK_PERIOD_S = 10;

inline constexpr const char* AUDIO_LOSS_TMP_FILE = "/tmp/pktdrop.json.tmp";
inline constexpr const char* AUDIO_LOSS_LOCK_FILE = "/tmp/pktdrop.lock";

// The loss of one second.
typedef struct LOSS_INFO_T {
  time_t lossTime;     // second of the monotonic clock in which the loss was reported
  qb_s32_t lossBytes;  // bytes lost in that second
} LOSS_INFO_T;

// One stream.
typedef struct AUDIO_LOSS_INFO_T {
  qb_s32_t chn;                                // not used
  qb_u64_t lossBytesTotal;                     // bytes lost since start
  qb_s32_t idx;                                // slot written next, 0..59
  LOSS_INFO_T stLostInfo[AUDIO_LOSS_SECONDS];  // ring of the last 60 distinct seconds with losses
} AUDIO_LOSS_INFO_T;

// Records `bytes` lost on stream `chn` (0..2) in the current second. 0; -1 for an invalid argument.
int set_audio_loss_info(int chn, int bytes);
// Sums the window of every stream and rewrites the file when needed. 1 when the file was written
// and some stream lost bytes in the window, else 0.
int check_drop_status(void);
// Replaces "/tmp/pktdrop.json" with `text` under the lock on "/tmp/pktdrop.lock". 0; -1 on failure.
int write_file(const char* text);
// The drop event text for cmd_core.
std::string get_audio_drop_event(void);
// Sends the text to cmd_core as a TLV message. 1 when sent; 0 otherwise.
int report_audio_drop_msg(const char* text);
// The endless loop of the main thread: every ten seconds a check, and a report when bytes were
// lost in the window. Never returns.
void audio_loss_proc(void);
// Whole seconds of the monotonic clock.
qb_s64_t time2(void);
// Does nothing. 0.
int dump_audio_loss_info(void);

// A copy of one stream's record (chn 0..2). 0; -1 for an invalid stream.
int audio_loss_info_get(int chn, AUDIO_LOSS_INFO_T* out);
// Test hooks: replace the clock of time2 (nullptr restores the monotonic clock) and clear the
// records.
void audio_loss_set_clock(qb_s64_t (*clock_fn)(void));
void audio_loss_info_reset(void);
