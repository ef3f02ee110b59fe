// The routing module: the per-channel audio format table, the records of the routing singleton,
// and the operations on channel records. FPGA access, network stream endpoints, the S/PDIF
// receiver and the small utilities have headers of their own (qb_audio_misc_*.h).
//
// Thread safety: the channel table is guarded by one lock inside the module. Whole-record copies
// in and out (qb_audio_channel_state_set / qb_audio_channel_state_copy) take it, so a reader never
// sees a half-written record. qb_audio_channel_state_get still hands out the live slot for callers
// that own a channel; a thread that reads a channel another thread writes should use
// qb_audio_channel_state_copy.
#pragma once

#include <cstdio>

#include "qb_audio_protocol.h"  // channel, source and format numbers, qb_audio_info
#include "qb_types.h"

// A channel record as it travels between command handlers and the bridge functions.
struct qb_audio_info_t {
  qb_s32_t ch;
  qb_audio_info ainfo;
};
static_assert(sizeof(qb_audio_info_t) == 24, "qb_audio_info_t is 24 bytes");

// The thirteen channel records followed by their status flags, in channel-id order.
struct misc_channel_state_t {
  qb_audio_info analog;
  qb_audio_info earc;
  qb_audio_info video;
  qb_audio_info dsp;
  qb_audio_info spdif;
  qb_audio_info net_stream_in1;
  qb_audio_info net_stream_in3;
  qb_audio_info net_stream_in5;
  qb_audio_info net_stream_in_spdif;
  qb_audio_info net_stream_out1;
  qb_audio_info net_stream_out3;
  qb_audio_info net_stream_out5;
  qb_audio_info net_stream_out_spdif;
  qb_s32_t analog_status;
  qb_s32_t earc_status;
  qb_s32_t video_status;
  qb_s32_t dsp_status;
  qb_s32_t spdif_status;
  qb_s32_t sai1_status;
  qb_s32_t sai3_status;
  qb_s32_t sai5_status;
  qb_s32_t spdif_in_status;
  qb_s32_t sao1_status;
  qb_s32_t sao3_status;
  qb_s32_t sao5_status;
  qb_s32_t spdif_out_status;
};

// Matrix source value carrying the network stream that feeds each local output (4, 5 or 6).
struct net_stream_in_t {
  qb_s32_t analog;
  qb_s32_t hdmi;
  qb_s32_t earc;
  qb_s32_t spdif;
};

inline constexpr int QB_NET_IPADDR_SIZE = 32;
inline constexpr int QB_NET_DEVICEID_SIZE = 16;

// Multicast group texts and peer device ids of the six network streams (zero-terminated).
struct net_stream_ipaddr_t {
  char sai1_in_ipaddr[QB_NET_IPADDR_SIZE];
  char sai3_in_ipaddr[QB_NET_IPADDR_SIZE];
  char sai5_in_ipaddr[QB_NET_IPADDR_SIZE];
  char sai1_out_ipaddr[QB_NET_IPADDR_SIZE];
  char sai3_out_ipaddr[QB_NET_IPADDR_SIZE];
  char sai5_out_ipaddr[QB_NET_IPADDR_SIZE];
  char sai1_in_deviceid[QB_NET_DEVICEID_SIZE];
  char sai3_in_deviceid[QB_NET_DEVICEID_SIZE];
  char sai5_in_deviceid[QB_NET_DEVICEID_SIZE];
  char sai1_out_deviceid[QB_NET_DEVICEID_SIZE];
  char sai3_out_deviceid[QB_NET_DEVICEID_SIZE];
  char sai5_out_deviceid[QB_NET_DEVICEID_SIZE];
};

// Output-source number sent on network stream 0 (first), 1 (second), 2 (third).
struct net_stream_output_sel_t {
  qb_s32_t first;
  qb_s32_t second;
  qb_s32_t third;
};

// Stream 1 carries the S/PDIF input (spdif) or an ARC stream from the eARC input (arc).
struct net_stream_spdif_t {
  qb_s32_t spdif;
  qb_s32_t arc;
};

// The S/PDIF receiver's register mapping and its last accepted format.
struct nxp_map_spdif_reg_t {
  qb_s32_t fd;        // /dev/mem descriptor, 0 when not open
  qb_u8_t* map_base;  // mapping, null when not mapped
  qb_audio_info ainfo;
};

struct output_downmix_t {
  qb_audio_output_dwm_mode_t hdmi_downmix_mode;
  qb_audio_output_dwm_mode_t spdif_downmix_mode;
  qb_audio_output_dwm_mode_t earc_downmix_mode;
};

// Stream id to fall back to per output; -1 means none.
struct output_fallback_sid_t {
  qb_s32_t hdmi_fallback_sid;
  qb_s32_t spdif_fallback_sid;
  qb_s32_t earc_fallback_sid;
};

struct streamout_streamId_t {
  qb_s32_t streamId;
};

struct output_sid_t {
  qb_s32_t hdmi_sid;
  qb_s32_t analog_sid;
  qb_s32_t spdif_sid;
  qb_s32_t earc_sid;
};

struct local_port_info_t {
  qb_u32_t ch;
  qb_u32_t src;
  qb_u32_t subid;
};

struct local_port_t {
  local_port_info_t analog;
  local_port_info_t hdmi;
};

// The routing singleton. One static instance inside the module, zero-filled by qb_audio_misc_init.
struct qb_audio_misc_main_ctrl_t {
  misc_channel_state_t channel_state;
  net_stream_in_t nsi;
  qb_s32_t net_spdif_out_src;
  net_stream_ipaddr_t ipaddr;
  qb_s32_t net_stream_sel;
  net_stream_output_sel_t net_stream;
  net_stream_spdif_t spdif;
  nxp_map_spdif_reg_t spdif_mreg;
  output_downmix_t output_downmix;
  output_fallback_sid_t output_fallback_sid;
  streamout_streamId_t streamout_streamId;
  output_sid_t output_sid;
  output_sid_t output_mode;
  output_sid_t output_actual_sid;
  output_sid_t output_mute;
  local_port_t local_port;
  qb_s32_t it6621_mode;
  qb_s32_t monitor_status;
  qb_s32_t audio_src_multi_channel_local;
};

int qb_audio_misc_init(void);
int qb_audio_misc_uninit(void);

// Live slot of a channel, or null (logs "invalid audio channel:%d").
qb_audio_info* qb_audio_channel_state_get(int ch);
// Copies the record into the channel, marks it valid and logs it. 1, or 0.
int qb_audio_channel_state_set(int ch, const qb_audio_info* info);
// Race-free whole-record copy out of a channel. 1, or 0 for an invalid id or null out.
int qb_audio_channel_state_copy(int ch, qb_audio_info* out);
// Zeroes the channel-status bytes of a channel. 0, or -1 for an invalid id.
int qb_audio_channel_state_reset(int ch);
// Single bytes of a channel record that are rewritten on their own.
enum qb_audio_info_byte_e { QB_AUDIO_INFO_AUDIO_ON, QB_AUDIO_INFO_AUD_DB0 };
// Rewrites one byte of a channel record in place, under the table's lock, without logging the
// record or touching its status flag. 1, or 0 for an invalid id or field.
int qb_audio_channel_state_byte_set(int ch, qb_audio_info_byte_e field, qb_s8_t value);

int qb_misc_audio_status_valid_set(int ch, int value);
int qb_misc_audio_status_valid_get(int ch);

int is_qb_audio_channel_state_valid(const qb_audio_info* info);
int qb_audio_channel_state_validch_get(int ch, int* validch);
int qb_audio_channel_state_samplefreq_get(int ch, int* freq);
int qb_audio_channel_state_compare(const qb_audio_info* a, const qb_audio_info* b);
// 0 equal, 1 different (InfoFrame bytes ignored when b is not LPCM).
int cmp_aiinfo(const qb_audio_info* a, const qb_audio_info* b);
// Matrix source value of a channel id; 0 for channels without one.
int qb_audio_channel_state_id_switch(int ch);

// Sample-frequency code to Hz (0 and a WARN line for an unknown code).
int get_sample_frequency2(int ch, int code);
// As get_sample_frequency2, but channel 5 takes the raw receiver nibble.
int get_sample_frequency(int ch, int code);
// CEA-861 short-audio-descriptor rate bit of a sample-frequency code.
int get_audio_samplerate1(int code);
int get_audio_type(int value);

// 1 when the record must not be played on a stereo-only sink (null, not LPCM, or above 2 ch).
int is_qb_audio_output_mute(const qb_audio_info* info);
int is_qb_audio_output_mute_from_ch(int ch);

// Matrix source name ("it6620" ... "spdif in", "UNKNOWN").
const char* qb_audio_matrix_source_name(int src);
// Matrix source of a stream id: 0 -> 4, 1 -> 6, 2 -> 5, other -> 255.
int qb_misc_audio_get_saiid_by_sid(int sid);
// Channel id of a stream id's network input: 0 -> 6, 1 -> 8, 2 -> 7, other -> 255.
int qb_misc_audio_get_chn_saiid_by_sid(int sid);

// Name of a channel id in dumps and logs ("analog" ... "nsospdif", "unknown").
const char* qb_audio_channel_name(int ch);
void dump_channel_stat(int ch, const qb_audio_info* info);
void dump_channel_stat2file(FILE* fp, int ch, const qb_audio_info* info);
void channel_stat_printf(const qb_audio_info* info);
void dump_misc_param(FILE* fp);
