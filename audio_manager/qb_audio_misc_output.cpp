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

constexpr int kAnalog = QB_AUDIO_OUTPUT_ANALOG;
constexpr int kHdmi = QB_AUDIO_OUTPUT_HDMI;
constexpr int kSpdif = QB_AUDIO_OUTPUT_SPDIF;
constexpr int kEarc = QB_AUDIO_OUTPUT_EARC;

const output_row_t& row(int output) { return kOutputs[output]; }

int fallback_sid_get(int output) {
  const auto fallback = row(output).fallback;
  return fallback == nullptr ? 0 : misc_word_get(misc().output_fallback_sid.*fallback);
}
int stream_mode_get(int output) {
  return misc_word_get(misc().output_mode.*(row(output).sid));
}
int actual_sid_get(int output) {
  return misc_word_get(misc().output_actual_sid.*(row(output).sid));
}
void actual_sid_set(int output, int sid) {
  misc_word_set(misc().output_actual_sid.*(row(output).sid), sid);
}
qb_u32_t downmix_get(int output) {
  const auto downmix = row(output).downmix;
  return downmix == nullptr ? 0 : misc_word_get((misc().output_downmix.*downmix).mode);
}
int nsi_get(int output) { return misc_word_get(misc().nsi.*(row(output).nsi)); }
// The matrix source of the network stream the output plays.
int saiid_get(int output) {
  return qb_misc_audio_get_saiid_by_sid(misc_word_get(misc().output_sid.*(row(output).sid)));
}

}  // namespace

int qb_misc_audio_output_sid_get(int output) {
  return misc_word_get(misc().output_sid.*(row(output).sid));
}
void qb_misc_audio_output_sid_set(int output, int sid) {
  misc_word_set(misc().output_sid.*(row(output).sid), sid);
}
void qb_misc_audio_output_fallback_sid_set(int output, int sid) {
  const auto fallback = row(output).fallback;
  if (fallback != nullptr) {
    misc_word_set(misc().output_fallback_sid.*fallback, sid);
  }
}
void set_output_stream_mode(int output, int mode) {
  misc_word_set(misc().output_mode.*(row(output).sid), mode);
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
void qb_msic_net_stream_in_set(int output, int src) {
  misc_word_set(misc().nsi.*(row(output).nsi), src);
}

int qb_misc_audio_sid_hdmi_get(void) { return qb_misc_audio_output_sid_get(kHdmi); }
int qb_misc_audio_sid_analog_get(void) { return qb_misc_audio_output_sid_get(kAnalog); }
int qb_misc_audio_sid_spdif_get(void) { return qb_misc_audio_output_sid_get(kSpdif); }
int qb_misc_audio_sid_earc_get(void) { return qb_misc_audio_output_sid_get(kEarc); }
int qb_misc_audio_saiid_hdmi_get(void) { return saiid_get(kHdmi); }
int qb_misc_audio_saiid_analog_get(void) { return saiid_get(kAnalog); }
int qb_misc_audio_saiid_spdif_get(void) { return saiid_get(kSpdif); }
int qb_misc_audio_saiid_earc_get(void) { return saiid_get(kEarc); }
int qb_misc_audio_fallback_sid_hdmi_get(void) { return fallback_sid_get(kHdmi); }
int qb_misc_audio_fallback_sid_spdif_get(void) { return fallback_sid_get(kSpdif); }
int qb_misc_audio_fallback_sid_earc_get(void) { return fallback_sid_get(kEarc); }

void set_output_hdmi_stream_mode(int mode) { set_output_stream_mode(kHdmi, mode); }
int get_output_hdmi_stream_mode(void) { return stream_mode_get(kHdmi); }
void set_output_spdif_stream_mode(int mode) { set_output_stream_mode(kSpdif, mode); }
int get_output_spdif_stream_mode(void) { return stream_mode_get(kSpdif); }
void set_output_earc_stream_mode(int mode) { set_output_stream_mode(kEarc, mode); }
int get_output_earc_stream_mode(void) { return stream_mode_get(kEarc); }
void set_output_hdmi_stream_actual_sid(int sid) { actual_sid_set(kHdmi, sid); }
int get_output_hdmi_stream_actual_sid(void) { return actual_sid_get(kHdmi); }
void set_output_spdif_stream_actual_sid(int sid) { actual_sid_set(kSpdif, sid); }
int get_output_spdif_stream_actual_sid(void) { return actual_sid_get(kSpdif); }
void set_output_earc_stream_actual_sid(int sid) { actual_sid_set(kEarc, sid); }
int get_output_earc_stream_actual_sid(void) { return actual_sid_get(kEarc); }
void set_output_analog_mute(int mute) { misc_word_set(misc().output_mute.analog_sid, mute); }
int get_output_analog_mute(void) { return misc_word_get(misc().output_mute.analog_sid); }

void qb_misc_audio_downmix_hdmi_set(const qb_audio_output_dwm_mode_t* mode) {
  qb_misc_audio_downmix_set(kHdmi, mode);
}
void qb_misc_audio_downmix_spdif_set(const qb_audio_output_dwm_mode_t* mode) {
  qb_misc_audio_downmix_set(kSpdif, mode);
}
void qb_misc_audio_downmix_earc_set(const qb_audio_output_dwm_mode_t* mode) {
  qb_misc_audio_downmix_set(kEarc, mode);
}
qb_u32_t qb_misc_audio_downmix_hdmi_get(void) { return downmix_get(kHdmi); }
qb_u32_t qb_misc_audio_downmix_spdif_get(void) { return downmix_get(kSpdif); }
qb_u32_t qb_misc_audio_downmix_earc_get(void) { return downmix_get(kEarc); }

int qb_msic_net_stream_in_analog_get(void) { return nsi_get(kAnalog); }
void qb_msic_net_stream_in_analog_set(int src) { qb_msic_net_stream_in_set(kAnalog, src); }
int qb_msic_net_stream_in_hdmi_get(void) { return nsi_get(kHdmi); }
void qb_msic_net_stream_in_hdmi_set(int src) { qb_msic_net_stream_in_set(kHdmi, src); }
int qb_msic_net_stream_in_earc_get(void) { return nsi_get(kEarc); }
void qb_msic_net_stream_in_earc_set(int src) { qb_msic_net_stream_in_set(kEarc, src); }
int qb_msic_net_stream_in_spdif_get(void) { return nsi_get(kSpdif); }
void qb_msic_net_stream_in_spdif_set(int src) { qb_msic_net_stream_in_set(kSpdif, src); }

local_port_info_t* qb_misc_audio_info_analog_port_get(void) { return &misc().local_port.analog; }

local_port_info_t qb_misc_audio_info_analog_port_copy(void) {
  const local_port_info_t& from = misc().local_port.analog;
  local_port_info_t out;
  out.ch = misc_word_get(from.ch);
  out.src = misc_word_get(from.src);
  out.subid = misc_word_get(from.subid);
  return out;
}

void qb_misc_audio_local_port_analog_src_set(qb_u32_t src) {
  misc_word_set(misc().local_port.analog.ch, 0u);
  misc_word_set(misc().local_port.analog.src, src);
}
