// Network stream endpoints: per-stream multicast addresses, peer device ids and source
// selections, the derivation of a group from a peer's MAC, and the start of the capture routing of
// each network output.
//
// Stream ids: 0 (SAI1, channels 6/10), 1 (SAI5, channels 8/12), 2 (SAI3, channels 7/11).
//
// Thread safety: selections are single words read and written atomically; address and device-id
// texts are guarded by one lock. The numbered address getters return a snapshot of the text taken
// under that lock, one per stream and direction, for the one worker thread of that stream; other
// threads copy the whole block (qb_misc_net_stream_ipaddr_copy).
#pragma once

#include <cstddef>

#include "qb_audio_misc.h"

// UDP port of the network audio streams.
inline constexpr int QB_AUDIO_NET_PORT = 59300;
// The network player program started for an input stream.
inline constexpr const char* QB_AUDIO_MYAPLAY_PATH = "/customer/bin/myaplay";
// Input address set by qb_audio_net_stream_ipaddr_set.
inline constexpr const char* QB_AUDIO_DEFAULT_IN_IPADDR = "225.0.0.1";
// First octet of every stream group; the second lies in 48-63.
inline constexpr int QB_AUDIO_MCAST_OCTET1 = 234;
inline constexpr int QB_AUDIO_MCAST_OCTET2_BASE = 48;

// QB_AUDIO_MAC_TEXT_SIZE and the output and input stream requests: qb_audio_protocol.h.

// Stream ids of network streams 1, 5 and 3.
inline constexpr int QB_NET_SID_1 = 0;
inline constexpr int QB_NET_SID_5 = 1;
inline constexpr int QB_NET_SID_3 = 2;

int qb_audio_stream_output_to_net_set(const qb_audio_output_stream_t* req);
int qb_misc_net_stream_out_ipaddr_set(const qb_audio_output_stream_t* req);
int qb_audio_stream_input_from_net_set(const qb_audio_input_stream_t* req);

int qb_audio_net_stream_out1_start(int ch);
int qb_audio_net_stream_out3_start(int ch);
int qb_audio_net_stream_out5_start(int ch);
// Network output stream sid takes the format of channel ch and restarts its capture. 1.
int qb_audio_net_stream_out_restart(int sid, int ch);
inline int qb_audio_net_stream_out1_restart(int ch) { return qb_audio_net_stream_out_restart(QB_NET_SID_1, ch); }
inline int qb_audio_net_stream_out3_restart(int ch) { return qb_audio_net_stream_out_restart(QB_NET_SID_3, ch); }

int qb_audio_net_stream_in_start(int ch, int card, int port, const char* ipaddr);
// The network player of input stream sid with its sound card, port and address. 1/0.
int qb_audio_net_stream_in_sid_start(int sid);
inline int qb_audio_net_stream_in1_start(void) { return qb_audio_net_stream_in_sid_start(QB_NET_SID_1); }
inline int qb_audio_net_stream_in3_start(void) { return qb_audio_net_stream_in_sid_start(QB_NET_SID_3); }
inline int qb_audio_net_stream_in5_start(void) { return qb_audio_net_stream_in_sid_start(QB_NET_SID_5); }
int qb_audio_pkill_all_myaplay(void);
int qb_audio_pkill_all_myarecord(void);
int qb_audio_net_stream_ipaddr_set(const void* unused);

// "%d.%d.%d.%d" into buf (at most size-1 characters); empty for a.48.0.0.
void audio_ipaddr_create(int a, int b, int c, int d, char* buf, size_t size);
// 12 hex characters to 6 bytes. 1, or 0 for null.
int macaddr_str2hex(const char* str, qb_u8_t* hex);
int qb_audio_channel_state_id_switch_netstreamsel(int ch);
int qb_audio_netstreamsel_switch_channel_state_id(int src);

int qb_net_stream_select_get(void);
void qb_net_stream_select_set(int sel);
// Source selection of network output stream sid (0 for another sid; first, second, third below).
int qb_net_n_stream_select_get(int sid);
inline int qb_net_first_stream_select_get(void) { return qb_net_n_stream_select_get(QB_NET_SID_1); }
inline int qb_net_second_stream_select_get(void) { return qb_net_n_stream_select_get(QB_NET_SID_5); }
inline int qb_net_third_stream_select_get(void) { return qb_net_n_stream_select_get(QB_NET_SID_3); }
void qb_net_n_stream_select_set(int sid, int sel);
inline void qb_net_first_stream_select_set(int sel) { qb_net_n_stream_select_set(QB_NET_SID_1, sel); }
inline void qb_net_second_stream_select_set(int sel) { qb_net_n_stream_select_set(QB_NET_SID_5, sel); }
inline void qb_net_third_stream_select_set(int sel) { qb_net_n_stream_select_set(QB_NET_SID_3, sel); }
int qb_msic_net_spdif_out_src_get(void);
void qb_msic_net_spdif_out_src_set(int src);
int qb_misc_audio_streamId_get(void);
void qb_misc_audio_streamId_set(int sid);

// Address and device id of stream sid 0-2 (out: the output's, else the input's); a null text keeps
// its field.
void qb_misc_net_stream_addr_set(int sid, bool out, const char* ipaddr, const char* deviceid);
// Address of stream sid 0-2, copied under the lock into the stream's snapshot in the module record:
// valid until the next call for the same stream and direction, so each is called by one thread
// only, the worker of its stream.
char* qb_misc_net_stream_ipaddr_get(int sid, bool out);
inline char* qb_misc_net_stream_out1_ipaddr_get(void) { return qb_misc_net_stream_ipaddr_get(QB_NET_SID_1, true); }
inline char* qb_misc_net_stream_out3_ipaddr_get(void) { return qb_misc_net_stream_ipaddr_get(QB_NET_SID_3, true); }
inline char* qb_misc_net_stream_out5_ipaddr_get(void) { return qb_misc_net_stream_ipaddr_get(QB_NET_SID_5, true); }
inline char* qb_misc_net_stream_in1_ipaddr_get(void) { return qb_misc_net_stream_ipaddr_get(QB_NET_SID_1, false); }
inline char* qb_misc_net_stream_in3_ipaddr_get(void) { return qb_misc_net_stream_ipaddr_get(QB_NET_SID_3, false); }
inline char* qb_misc_net_stream_in5_ipaddr_get(void) { return qb_misc_net_stream_ipaddr_get(QB_NET_SID_5, false); }
inline void qb_misc_net_stream_out1_ipaddr_set(const char* ipaddr, const char* deviceid) {
  qb_misc_net_stream_addr_set(QB_NET_SID_1, true, ipaddr, deviceid);
}
inline void qb_misc_net_stream_out5_ipaddr_set(const char* ipaddr, const char* deviceid) {
  qb_misc_net_stream_addr_set(QB_NET_SID_5, true, ipaddr, deviceid);
}
inline void qb_misc_net_stream_in1_ipaddr_set(const char* ipaddr) {
  qb_misc_net_stream_addr_set(QB_NET_SID_1, false, ipaddr, nullptr);
}
inline void qb_misc_net_stream_in5_ipaddr_set(const char* ipaddr) {
  qb_misc_net_stream_addr_set(QB_NET_SID_5, false, ipaddr, nullptr);
}
inline void qb_misc_net_stream_in1_ipaddr_set2(const char* ipaddr, const char* deviceid) {
  qb_misc_net_stream_addr_set(QB_NET_SID_1, false, ipaddr, deviceid);
}
inline void qb_misc_net_stream_in3_ipaddr_set2(const char* ipaddr, const char* deviceid) {
  qb_misc_net_stream_addr_set(QB_NET_SID_3, false, ipaddr, deviceid);
}
inline void qb_misc_net_stream_in5_ipaddr_set2(const char* ipaddr, const char* deviceid) {
  qb_misc_net_stream_addr_set(QB_NET_SID_5, false, ipaddr, deviceid);
}
// Race-free copy of the whole address block (dumps).
void qb_misc_net_stream_ipaddr_copy(net_stream_ipaddr_t* out);

inline int is_qb_net_first_stream_select_spdif(void) { return qb_net_first_stream_select_get() == QB_AUDIO_SRC_SPDIF; }
int is_qb_net_second_stream_select_spdif(void);
inline int is_qb_net_third_stream_select_spdif(void) { return qb_net_third_stream_select_get() == QB_AUDIO_SRC_SPDIF; }
inline int is_qb_net_first_stream_select_arc(void) { return qb_net_first_stream_select_get() == QB_AUDIO_SRC_EARC; }
int is_qb_net_second_stream_select_arc(void);
inline int is_qb_net_third_stream_select_arc(void) { return qb_net_third_stream_select_get() == QB_AUDIO_SRC_EARC; }
int audio_hdmi_streamout(void);
