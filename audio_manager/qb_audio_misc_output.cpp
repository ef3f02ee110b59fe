// The routing state of the local outputs: which network stream each one plays (selected, actual,
// fallback), stream modes, the analog mute, downmix modes, the matrix source carrying each
// network input, and the analog output's local-port record. Single words, read and written
// atomically.
#include "qb_audio_misc_output.h"

#include "qb_audio_misc_private.h"

namespace {

qb_audio_misc_main_ctrl_t& misc() { return qb_audio_misc_ctrl(); }

}  // namespace

int qb_misc_audio_sid_hdmi_get(void) { return misc_word_get(misc().output_sid.hdmi_sid); }
int qb_misc_audio_sid_analog_get(void) { return misc_word_get(misc().output_sid.analog_sid); }
int qb_misc_audio_sid_spdif_get(void) { return misc_word_get(misc().output_sid.spdif_sid); }
int qb_misc_audio_sid_earc_get(void) { return misc_word_get(misc().output_sid.earc_sid); }
int qb_misc_audio_saiid_hdmi_get(void) {
  return qb_misc_audio_get_saiid_by_sid(qb_misc_audio_sid_hdmi_get());
}
int qb_misc_audio_saiid_analog_get(void) {
  return qb_misc_audio_get_saiid_by_sid(qb_misc_audio_sid_analog_get());
}
int qb_misc_audio_saiid_spdif_get(void) {
  return qb_misc_audio_get_saiid_by_sid(qb_misc_audio_sid_spdif_get());
}
int qb_misc_audio_saiid_earc_get(void) {
  return qb_misc_audio_get_saiid_by_sid(qb_misc_audio_sid_earc_get());
}
int qb_misc_audio_fallback_sid_hdmi_get(void) {
  return misc_word_get(misc().output_fallback_sid.hdmi_fallback_sid);
}
int qb_misc_audio_fallback_sid_spdif_get(void) {
  return misc_word_get(misc().output_fallback_sid.spdif_fallback_sid);
}
int qb_misc_audio_fallback_sid_earc_get(void) {
  return misc_word_get(misc().output_fallback_sid.earc_fallback_sid);
}

void set_output_hdmi_stream_mode(int mode) { misc_word_set(misc().output_mode.hdmi_sid, mode); }
int get_output_hdmi_stream_mode(void) { return misc_word_get(misc().output_mode.hdmi_sid); }
void set_output_spdif_stream_mode(int mode) { misc_word_set(misc().output_mode.spdif_sid, mode); }
int get_output_spdif_stream_mode(void) { return misc_word_get(misc().output_mode.spdif_sid); }
void set_output_earc_stream_mode(int mode) { misc_word_set(misc().output_mode.earc_sid, mode); }
int get_output_earc_stream_mode(void) { return misc_word_get(misc().output_mode.earc_sid); }
void set_output_hdmi_stream_actual_sid(int sid) {
  misc_word_set(misc().output_actual_sid.hdmi_sid, sid);
}
int get_output_hdmi_stream_actual_sid(void) {
  return misc_word_get(misc().output_actual_sid.hdmi_sid);
}
void set_output_spdif_stream_actual_sid(int sid) {
  misc_word_set(misc().output_actual_sid.spdif_sid, sid);
}
int get_output_spdif_stream_actual_sid(void) {
  return misc_word_get(misc().output_actual_sid.spdif_sid);
}
void set_output_earc_stream_actual_sid(int sid) {
  misc_word_set(misc().output_actual_sid.earc_sid, sid);
}
int get_output_earc_stream_actual_sid(void) {
  return misc_word_get(misc().output_actual_sid.earc_sid);
}
void set_output_analog_mute(int mute) { misc_word_set(misc().output_mute.analog_sid, mute); }
int get_output_analog_mute(void) { return misc_word_get(misc().output_mute.analog_sid); }

namespace {
void downmix_set(qb_audio_output_dwm_mode_t& to, const qb_audio_output_dwm_mode_t* mode) {
  if (mode == nullptr) {
    return;
  }
  misc_word_set(to.ch, mode->ch);
  misc_word_set(to.mode, mode->mode);
}
}  // namespace

void qb_misc_audio_downmix_hdmi_set(const qb_audio_output_dwm_mode_t* mode) {
  downmix_set(misc().output_downmix.hdmi_downmix_mode, mode);
}
void qb_misc_audio_downmix_spdif_set(const qb_audio_output_dwm_mode_t* mode) {
  downmix_set(misc().output_downmix.spdif_downmix_mode, mode);
}
void qb_misc_audio_downmix_earc_set(const qb_audio_output_dwm_mode_t* mode) {
  downmix_set(misc().output_downmix.earc_downmix_mode, mode);
}
qb_u32_t qb_misc_audio_downmix_hdmi_get(void) {
  return misc_word_get(misc().output_downmix.hdmi_downmix_mode.mode);
}
qb_u32_t qb_misc_audio_downmix_spdif_get(void) {
  return misc_word_get(misc().output_downmix.spdif_downmix_mode.mode);
}
qb_u32_t qb_misc_audio_downmix_earc_get(void) {
  return misc_word_get(misc().output_downmix.earc_downmix_mode.mode);
}

int qb_msic_net_stream_in_analog_get(void) { return misc_word_get(misc().nsi.analog); }
void qb_msic_net_stream_in_analog_set(int src) { misc_word_set(misc().nsi.analog, src); }
int qb_msic_net_stream_in_hdmi_get(void) { return misc_word_get(misc().nsi.hdmi); }
void qb_msic_net_stream_in_hdmi_set(int src) { misc_word_set(misc().nsi.hdmi, src); }
int qb_msic_net_stream_in_earc_get(void) { return misc_word_get(misc().nsi.earc); }
void qb_msic_net_stream_in_earc_set(int src) { misc_word_set(misc().nsi.earc, src); }
int qb_msic_net_stream_in_spdif_get(void) { return misc_word_get(misc().nsi.spdif); }
void qb_msic_net_stream_in_spdif_set(int src) { misc_word_set(misc().nsi.spdif, src); }

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
