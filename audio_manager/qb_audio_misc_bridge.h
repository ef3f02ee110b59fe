// The neighbouring services on the board that take part in audio: the eARC/ARC input bridge
// (IT6620), the eARC/ARC output bridge (IT6621), the video processor "avp" that drives the HDMI
// output and the scaler "mdin". Each message is one loopback UDP datagram holding a TLV box
// {outer type: {key: value}}. Also the two decisions taken on their notifications: the output
// bridge's eARC/ARC mode picks the network stream that feeds the eARC output, and the HDMI
// monitor's connection state decides from the monitor's EDID whether the HDMI output plays its
// chosen stream or its fallback.
#pragma once

#include "qb_audio_misc.h"

// Keys of the bridge requests: CEC physical address and ARC mode (IT6620), ARC mode (IT6621).
inline constexpr qb_s32_t QB_BRIDGE_KEY_CEC_PHY_ADDR = 0x00020002;
inline constexpr qb_s32_t QB_BRIDGE_KEY_ARC_MODE = 0x00030002;
// ARC modes of the bridge requests.
enum qb_arc_mode_e { QB_ARC_MODE_OFF, QB_ARC_MODE_ARC_EARC, QB_ARC_MODE_ARC_ONLY };
// HDMI monitor states.
inline constexpr int QB_HDMI_MONITOR_CONNECTED = 1;

// Channel status (6 bytes) to the output bridge. 1 sent, 0 for a null buffer or a length other
// than 6 (nothing sent).
int it6621_channel_state_set(qb_u8_t* buf, int len);
// "switch audio" to the scaler. 1.
int send_audio_switch_to_mdin(void);
// HDMI-output-source message to the video processor; remembers that it was sent. 1.
int set_avp_hdmi_out_audio_src_multi_local(void);
// HDMI-output-format message to the video processor. 1.
int set_avp_hdmi_out_audio_src_param(int frequency, int channels, int allocation,
                                     const char* encoding);
// The format of the stream played on the HDMI output, told to the scaler and the video
// processor. 1, or -1 for a null record (the scaler is told all the same).
int set_avp_hdmi_out_audio_param(qb_audio_info_t* rec);

// Output bridge mode notification (1 eARC, 2 ARC): moves the eARC output between network inputs
// sai1 and sai3 when the eARC output has a fallback. Always 0.
int set_it6621_status(int mode);
// Last output bridge mode (0 before the first notification).
int get_it6621_status(void);
// HDMI monitor state notification (1 connected): on a new connection with an HDMI fallback
// configured, reads the monitor's EDID and switches the HDMI output between its stream and the
// fallback. Always 0.
int set_hdmi_monitor_status(int state);
// 1 when the HDMI input record (channel 3) carries audio, else 0.
int audio_hdmi_audio_on(void);

// Test hook: the wait for a missing EDID file in milliseconds (200 by default; a negative value
// restores the default).
void qb_bridge_edid_wait_ms_set(int ms);
