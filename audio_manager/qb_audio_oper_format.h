// The new-format handler of the receiver: decides how each local output listening to the stream
// carries the new format (directly, or through its fallback stream), mutes or unmutes the analog
// output, adopts the format and ends the run so that the next one opens the device anew.
#pragma once

#include "Edid_Audio_Info.h"
#include "qb_audio_oper.h"

// Runs on the playback worker of the stream. Returns 1 when the run was ended (the normal case),
// 0 when the codec command failed and the datagram is to be handled as if no change had been seen.
int qb_audio_oper_new_format(qb_audio_oper_ctrl_t* ctrl, const audio_transport_head_t* head);

// Mix type a sink capability stands for.
int get_aud_cap(E_Audio_Format format, qb_u8_t bitFlag);
// Whether the sink's list can take a mix type: 1 or 0.
int aud_support(int wanted, const T_Edid_Audio_Info_* list);
// Whether the HDMI sink cannot take the record's format (1 = use the fallback stream).
int hdmi_output_needs_fallback(const qb_audio_info* ainfo);

// The calls into the bridge, video-processor, stream-switch and report modules. Any entry left
// empty is skipped.
struct qb_audio_new_format_ops_t {
  void (*set_update_chs_or)(int bit);
  int (*set_avp_hdmi_out_audio_param)(qb_audio_info_t* record);
  int (*get_it6621_status)(void);
  int (*it6621_channel_state_set)(qb_u8_t* record, int len);
  int (*set_output_hdmi_stream)(int mode, unsigned sid);
  int (*set_output_earc_stream)(int mode, unsigned sid);
  int (*set_output_spdif_stream)(int mode, unsigned sid);
  int (*reportDetailsAudioStatus)(int input_mask);
  // Loads the sink's audio list from the EDID file: 1 when loaded, else 0.
  int (*load_edid_audio)(T_Edid_Audio_Info_* list);
  // Runs a shell command (the analog codec).
  int (*system)(const char* command);
};

// Replaces the calls (tests); nullptr restores the daemon's own.
void qb_audio_new_format_ops_set(const qb_audio_new_format_ops_t* ops);
