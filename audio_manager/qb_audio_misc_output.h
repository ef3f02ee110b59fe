// The routing state of the local outputs: the network stream each output plays (selected, actual,
// fallback), stream modes, the analog mute, downmix modes, the matrix source carrying each
// network input, and the analog output's local-port record. Stream-id tables:
// qb_misc_audio_get_saiid_by_sid and qb_misc_audio_get_chn_saiid_by_sid (qb_audio_misc.h).
#pragma once

#include "qb_audio_misc.h"

// Local outputs by index.
enum qb_audio_output_e {
  QB_AUDIO_OUTPUT_ANALOG,
  QB_AUDIO_OUTPUT_HDMI,
  QB_AUDIO_OUTPUT_SPDIF,
  QB_AUDIO_OUTPUT_EARC,
  QB_AUDIO_OUTPUT_COUNT
};

// The routing state of output 0-3, each indexed function followed by its per-output forms.
int qb_misc_audio_output_sid_get(int output);
void qb_misc_audio_output_sid_set(int output, int sid);
inline int qb_misc_audio_sid_hdmi_get(void) { return qb_misc_audio_output_sid_get(QB_AUDIO_OUTPUT_HDMI); }
inline int qb_misc_audio_sid_analog_get(void) { return qb_misc_audio_output_sid_get(QB_AUDIO_OUTPUT_ANALOG); }
inline int qb_misc_audio_sid_spdif_get(void) { return qb_misc_audio_output_sid_get(QB_AUDIO_OUTPUT_SPDIF); }
inline int qb_misc_audio_sid_earc_get(void) { return qb_misc_audio_output_sid_get(QB_AUDIO_OUTPUT_EARC); }
// The matrix source of the network stream the output plays.
int qb_misc_audio_output_saiid_get(int output);
inline int qb_misc_audio_saiid_hdmi_get(void) { return qb_misc_audio_output_saiid_get(QB_AUDIO_OUTPUT_HDMI); }
inline int qb_misc_audio_saiid_analog_get(void) { return qb_misc_audio_output_saiid_get(QB_AUDIO_OUTPUT_ANALOG); }
inline int qb_misc_audio_saiid_spdif_get(void) { return qb_misc_audio_output_saiid_get(QB_AUDIO_OUTPUT_SPDIF); }
inline int qb_misc_audio_saiid_earc_get(void) { return qb_misc_audio_output_saiid_get(QB_AUDIO_OUTPUT_EARC); }
// Nothing (or 0) for the analog output, which has no fallback and no downmix.
int qb_misc_audio_fallback_sid_get(int output);
void qb_misc_audio_fallback_sid_set(int output, int sid);
inline int qb_misc_audio_fallback_sid_hdmi_get(void) { return qb_misc_audio_fallback_sid_get(QB_AUDIO_OUTPUT_HDMI); }
inline int qb_misc_audio_fallback_sid_spdif_get(void) { return qb_misc_audio_fallback_sid_get(QB_AUDIO_OUTPUT_SPDIF); }
inline int qb_misc_audio_fallback_sid_earc_get(void) { return qb_misc_audio_fallback_sid_get(QB_AUDIO_OUTPUT_EARC); }
qb_u32_t qb_misc_audio_downmix_get(int output);
void qb_misc_audio_downmix_set(int output, const qb_audio_output_dwm_mode_t* mode);
inline qb_u32_t qb_misc_audio_downmix_hdmi_get(void) { return qb_misc_audio_downmix_get(QB_AUDIO_OUTPUT_HDMI); }
inline qb_u32_t qb_misc_audio_downmix_spdif_get(void) { return qb_misc_audio_downmix_get(QB_AUDIO_OUTPUT_SPDIF); }
inline qb_u32_t qb_misc_audio_downmix_earc_get(void) { return qb_misc_audio_downmix_get(QB_AUDIO_OUTPUT_EARC); }
inline void qb_misc_audio_downmix_hdmi_set(const qb_audio_output_dwm_mode_t* mode) {
  qb_misc_audio_downmix_set(QB_AUDIO_OUTPUT_HDMI, mode);
}
inline void qb_misc_audio_downmix_spdif_set(const qb_audio_output_dwm_mode_t* mode) {
  qb_misc_audio_downmix_set(QB_AUDIO_OUTPUT_SPDIF, mode);
}
inline void qb_misc_audio_downmix_earc_set(const qb_audio_output_dwm_mode_t* mode) {
  qb_misc_audio_downmix_set(QB_AUDIO_OUTPUT_EARC, mode);
}
int get_output_stream_mode(int output);
void set_output_stream_mode(int output, int mode);
inline int get_output_hdmi_stream_mode(void) { return get_output_stream_mode(QB_AUDIO_OUTPUT_HDMI); }
inline int get_output_spdif_stream_mode(void) { return get_output_stream_mode(QB_AUDIO_OUTPUT_SPDIF); }
inline int get_output_earc_stream_mode(void) { return get_output_stream_mode(QB_AUDIO_OUTPUT_EARC); }
inline void set_output_hdmi_stream_mode(int mode) { set_output_stream_mode(QB_AUDIO_OUTPUT_HDMI, mode); }
inline void set_output_spdif_stream_mode(int mode) { set_output_stream_mode(QB_AUDIO_OUTPUT_SPDIF, mode); }
inline void set_output_earc_stream_mode(int mode) { set_output_stream_mode(QB_AUDIO_OUTPUT_EARC, mode); }
int get_output_stream_actual_sid(int output);
void set_output_stream_actual_sid(int output, int sid);
inline void set_output_hdmi_stream_actual_sid(int sid) { set_output_stream_actual_sid(QB_AUDIO_OUTPUT_HDMI, sid); }
inline void set_output_spdif_stream_actual_sid(int sid) { set_output_stream_actual_sid(QB_AUDIO_OUTPUT_SPDIF, sid); }
inline void set_output_earc_stream_actual_sid(int sid) { set_output_stream_actual_sid(QB_AUDIO_OUTPUT_EARC, sid); }
inline int get_output_hdmi_stream_actual_sid(void) { return get_output_stream_actual_sid(QB_AUDIO_OUTPUT_HDMI); }
inline int get_output_spdif_stream_actual_sid(void) { return get_output_stream_actual_sid(QB_AUDIO_OUTPUT_SPDIF); }
inline int get_output_earc_stream_actual_sid(void) { return get_output_stream_actual_sid(QB_AUDIO_OUTPUT_EARC); }
// The matrix source carrying the network input the output plays.
int qb_msic_net_stream_in_get(int output);
void qb_msic_net_stream_in_set(int output, int src);
inline void qb_msic_net_stream_in_analog_set(int src) { qb_msic_net_stream_in_set(QB_AUDIO_OUTPUT_ANALOG, src); }
inline int qb_msic_net_stream_in_analog_get(void) { return qb_msic_net_stream_in_get(QB_AUDIO_OUTPUT_ANALOG); }
inline void qb_msic_net_stream_in_hdmi_set(int src) { qb_msic_net_stream_in_set(QB_AUDIO_OUTPUT_HDMI, src); }
inline int qb_msic_net_stream_in_hdmi_get(void) { return qb_msic_net_stream_in_get(QB_AUDIO_OUTPUT_HDMI); }
inline void qb_msic_net_stream_in_earc_set(int src) { qb_msic_net_stream_in_set(QB_AUDIO_OUTPUT_EARC, src); }
inline int qb_msic_net_stream_in_earc_get(void) { return qb_msic_net_stream_in_get(QB_AUDIO_OUTPUT_EARC); }
inline void qb_msic_net_stream_in_spdif_set(int src) { qb_msic_net_stream_in_set(QB_AUDIO_OUTPUT_SPDIF, src); }
inline int qb_msic_net_stream_in_spdif_get(void) { return qb_msic_net_stream_in_get(QB_AUDIO_OUTPUT_SPDIF); }
void set_output_analog_mute(int mute);
int get_output_analog_mute(void);

// The analog output's local-port record (read its words with the snapshot below from other
// threads).
local_port_info_t* qb_misc_audio_info_analog_port_get(void);
// Race-free copy of the analog output's local-port record.
local_port_info_t qb_misc_audio_info_analog_port_copy(void);
void qb_misc_audio_local_port_analog_src_set(qb_u32_t src);
