// The routing state of the local outputs: which network stream each one plays (selected, actual,
// fallback), stream modes, the analog mute, downmix modes, the matrix source carrying each
// network input, and the analog output's local-port record. Single words, read and written
// atomically.
#include "qb_audio_misc_output.h"

#include "qb_audio_misc_private.h"

namespace {

qb_audio_misc_main_ctrl_t& misc() { return qb_audio_misc_ctrl(); }

// Where the state of one output lives; nullptr where the output has no such word.
struct output_row_t {
  qb_s32_t output_sid_t::*sid;  // selected stream, stream mode and actual stream
  qb_s32_t output_fallback_sid_t::*fallback;
  qb_audio_output_dwm_mode_t output_downmix_t::*downmix;
  qb_s32_t net_stream_in_t::*nsi;
};

constexpr output_row_t kOutputs[QB_AUDIO_OUTPUT_COUNT] = {
    {&output_sid_t::analog_sid, nullptr, nullptr, &net_stream_in_t::analog},
    {&output_sid_t::hdmi_sid, &output_fallback_sid_t::hdmi_fallback_sid,
     &output_downmix_t::hdmi_downmix_mode, &net_stream_in_t::hdmi},
    {&output_sid_t::spdif_sid, &output_fallback_sid_t::spdif_fallback_sid,
     &output_downmix_t::spdif_downmix_mode, &net_stream_in_t::spdif},
    {&output_sid_t::earc_sid, &output_fallback_sid_t::earc_fallback_sid,
     &output_downmix_t::earc_downmix_mode, &net_stream_in_t::earc},
};

const output_row_t& row(int output) { return kOutputs[output]; }

}  // namespace

int qb_misc_audio_output_sid_get(int output) {
  return misc_word_get(misc().output_sid.*(row(output).sid));
}
void qb_misc_audio_output_sid_set(int output, int sid) {
  misc_word_set(misc().output_sid.*(row(output).sid), sid);
}
int qb_misc_audio_output_saiid_get(int output) {
  return qb_misc_audio_get_saiid_by_sid(qb_misc_audio_output_sid_get(output));
}
int qb_misc_audio_fallback_sid_get(int output) {
  const auto fallback = row(output).fallback;
  return fallback == nullptr ? 0 : misc_word_get(misc().output_fallback_sid.*fallback);
}
void qb_misc_audio_fallback_sid_set(int output, int sid) {
  const auto fallback = row(output).fallback;
  if (fallback != nullptr) {
    misc_word_set(misc().output_fallback_sid.*fallback, sid);
  }
}
qb_u32_t qb_misc_audio_downmix_get(int output) {
  const auto downmix = row(output).downmix;
  return downmix == nullptr ? 0 : misc_word_get((misc().output_downmix.*downmix).mode);
}
void qb_misc_audio_downmix_set(int output, const qb_audio_output_dwm_mode_t* mode) {
  const auto downmix = row(output).downmix;
  if (mode == nullptr || downmix == nullptr) {
    return;
  }
  qb_audio_output_dwm_mode_t& to = misc().output_downmix.*downmix;
  misc_word_set(to.ch, mode->ch);
  misc_word_set(to.mode, mode->mode);
}
int get_output_stream_mode(int output) { return misc_word_get(misc().output_mode.*(row(output).sid)); }
void set_output_stream_mode(int output, int mode) {
  misc_word_set(misc().output_mode.*(row(output).sid), mode);
}
int get_output_stream_actual_sid(int output) {
  return misc_word_get(misc().output_actual_sid.*(row(output).sid));
}
void set_output_stream_actual_sid(int output, int sid) {
  misc_word_set(misc().output_actual_sid.*(row(output).sid), sid);
}
int qb_msic_net_stream_in_get(int output) { return misc_word_get(misc().nsi.*(row(output).nsi)); }
void qb_msic_net_stream_in_set(int output, int src) {
  misc_word_set(misc().nsi.*(row(output).nsi), src);
}

void set_output_analog_mute(int mute) { misc_word_set(misc().output_mute.analog_sid, mute); }
int get_output_analog_mute(void) { return misc_word_get(misc().output_mute.analog_sid); }

local_port_info_t* qb_misc_audio_info_analog_port_get(void) { return &misc().local_port.analog; }

local_port_info_t qb_misc_audio_info_analog_port_copy(void) {
  const local_port_info_t& from = misc().local_port.analog;
  return {misc_word_get(from.ch), misc_word_get(from.src), misc_word_get(from.subid)};
}

void qb_misc_audio_local_port_analog_src_set(qb_u32_t src) {
  misc_word_set(misc().local_port.analog.ch, 0u);
  misc_word_set(misc().local_port.analog.src, src);
}
