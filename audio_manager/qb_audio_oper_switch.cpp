// Switching the HDMI, eARC and S/PDIF outputs between network streams.
#include "qb_audio_oper_switch.h"

#include <cstddef>

#include "am_log.h"
#include "qb_audio_aplay.h"
#include "qb_audio_earc.h"
#include "qb_audio_hdmi.h"
#include "qb_audio_misc.h"
#include "qb_audio_misc_fpga.h"
#include "qb_audio_spdif.h"
#include "qb_audio_stream.h"

namespace {

// One output: its selection state, its source selection, and the log lines of each stream id
// (sai1, sai5, sai3 for stream ids 0, 1, 2).
struct output_switch_t {
  const char* error_log;
  void (*set_mode)(int mode);
  void (*set_actual_sid)(int sid);
  void (*set_nsi)(int src);
  int (*select)(int src, int sid);
  const char* switch_log[QB_OUTPUT_STREAM_SID_MAX + 1];
  bool restarts_playback;  // the stream's playback run restarts for its new listener
};

constexpr output_switch_t kHdmiSwitch = {
    "set_output_hdmi_stream Error sid %d --[%s:%u]",
    set_output_hdmi_stream_mode,
    set_output_hdmi_stream_actual_sid,
    qb_msic_net_stream_in_hdmi_set,
    qb_audio_hdmi_output_src_select,
    {"set_output_hdmi_stream hdmi switch to sai1 sid = %d --[%s:%u]",
     "set_output_hdmi_stream hdmi switch to sai5 sid = %d --[%s:%u]",
     "set_output_hdmi_stream hdmi switch to sai3 sid = %d --[%s:%u]"},
    true,
};

constexpr output_switch_t kEarcSwitch = {
    "set_output_earc_stream Error sid %d --[%s:%u]",
    set_output_earc_stream_mode,
    set_output_earc_stream_actual_sid,
    qb_msic_net_stream_in_earc_set,
    qb_audio_earc_output_src_select,
    {"earc switch to sai1 sid=%d --[%s:%u]", "earc switch to sai5 sid=%d --[%s:%u]",
     "earc switch to sai3 sid=%d --[%s:%u]"},
    true,
};

constexpr output_switch_t kSpdifSwitch = {
    "set_output_spdif_stream Error sid %d --[%s:%u]",
    set_output_spdif_stream_mode,
    set_output_spdif_stream_actual_sid,
    qb_msic_net_stream_in_spdif_set,
    qb_audio_spdif_output_src_select,
    {"set_output_spdif_stream spdif switch to sai1 sid=%d --[%s:%u]",
     "set_output_spdif_stream spdif switch to sai5 sid=%d --[%s:%u]",
     "set_output_spdif_stream spdif switch to sai3 sid=%d --[%s:%u]"},
    false,
};

// Matrix source and network-input channel of each stream id.
constexpr int kSourceOfSid[QB_OUTPUT_STREAM_SID_MAX + 1] = {FPGA_SRC_SAI1, FPGA_SRC_SAI5, FPGA_SRC_SAI3};
constexpr int kChannelOfSid[QB_OUTPUT_STREAM_SID_MAX + 1] = {QB_AUDIO_CHN_NSI1, QB_AUDIO_CHN_NSI5, QB_AUDIO_CHN_NSI3};

void log_with_sid(int level, const char* format, int sid) {
  am_log_write(level, format, sid, AM_LOG_FILE, static_cast<unsigned>(__LINE__));
}

int switch_output(const output_switch_t& out, int mode, unsigned sid) {
  if (sid > QB_OUTPUT_STREAM_SID_MAX) {
    log_with_sid(AM_LOG_LEVEL_ERROR, out.error_log, static_cast<int>(sid));
    return 0;
  }
  const int id = static_cast<int>(sid);
  out.set_mode(mode);
  out.set_actual_sid(id);
  out.set_nsi(kSourceOfSid[sid]);
  out.select(QB_AUDIO_SRC_STREAM, id);
  log_with_sid(AM_LOG_LEVEL_INFO, out.switch_log[sid], id);
  if (out.restarts_playback) {
    qb_audio_aplay_info_change_set(kChannelOfSid[sid]);
  }
  return 1;
}

}  // namespace

int set_output_hdmi_stream(int mode, unsigned sid) { return switch_output(kHdmiSwitch, mode, sid); }
int set_output_earc_stream(int mode, unsigned sid) { return switch_output(kEarcSwitch, mode, sid); }
int set_output_spdif_stream(int mode, unsigned sid) { return switch_output(kSpdifSwitch, mode, sid); }
