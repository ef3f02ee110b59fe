// The neighbouring services on the board that take part in audio: the eARC/ARC input bridge
// (IT6620), the eARC/ARC output bridge (IT6621), the video processor "avp" that drives the HDMI
// output and the scaler "mdin". Each message is one loopback UDP datagram holding a TLV box
// {outer type: {key: value}}. Also the two decisions taken on their notifications: the output
// bridge's eARC/ARC mode picks the network stream that feeds the eARC output, and the HDMI
// monitor's connection state decides from the monitor's EDID whether the HDMI output plays its
// chosen stream or its fallback.
#pragma once

#include "qb_audio_misc.h"
#include "qb_types.h"

// Outer types and keys of the messages (the bridge outer types 7 and 8 are TLV_OUTER_TYPE_IT6620
// and TLV_OUTER_TYPE_IT6621 of the TLV library).
inline constexpr qb_s32_t QB_AVP_OUTER_TYPE = 3;
inline constexpr qb_s32_t QB_MDIN_OUTER_TYPE = 6;
inline constexpr qb_s32_t QB_IT6621_KEY_CHANNEL_STATUS = 0x10002;
inline constexpr qb_s32_t QB_MDIN_KEY_AUDIO_SWITCH = 0x80009;
inline constexpr qb_s32_t QB_AVP_KEY_HDMI_OUT_AUDIO = 0x80802;
// Keys of the bridge requests: CEC physical address and ARC mode (IT6620), ARC mode (IT6621).
inline constexpr qb_s32_t QB_BRIDGE_KEY_CEC_PHY_ADDR = 0x00020002;
inline constexpr qb_s32_t QB_BRIDGE_KEY_ARC_MODE = 0x00030002;

// The scaler's audio-switch text, sent without a terminator.
inline constexpr const char QB_MDIN_AUDIO_SWITCH_TEXT[] = "switch audio";
// The video processor's HDMI-output-source text, sent without a terminator.
inline constexpr const char QB_AVP_HDMI_OUT_SRC_TEXT[] =
    "{\"hdmi_out_audio_src\":\"multi-channel-local\"}";
// Longest HDMI-output-format text.
inline constexpr int QB_AVP_PARAM_TEXT_MAX = 255;

// Length of a channel-status record for the output bridge.
inline constexpr int QB_IT6621_CHANNEL_STATUS_LEN = 6;

// Output bridge modes.
inline constexpr int QB_IT6621_MODE_EARC = 1;
inline constexpr int QB_IT6621_MODE_ARC = 2;
// HDMI monitor states.
inline constexpr int QB_HDMI_MONITOR_CONNECTED = 1;

// ARC modes of the bridge requests.
inline constexpr int QB_ARC_MODE_OFF = 0;
inline constexpr int QB_ARC_MODE_ARC_EARC = 1;
inline constexpr int QB_ARC_MODE_ARC_ONLY = 2;

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
