// What the daemon and the programs that talk to it agree on: the command socket with its command
// codes and payload layouts, the channel, source and format numbers those payloads carry, the
// report and drop-event item types, and the files the daemons publish under /tmp. Payloads are
// little-endian records copied byte for byte.
#pragma once

#include "qb_types.h"

// ---- command socket ------------------------------------------------------------------------
inline constexpr const char* QB_AUDIO_CMD_ADDRESS = "127.0.0.1";
inline constexpr int QB_AUDIO_CMD_PORT = 9994;
// Largest command datagram received.
inline constexpr int QB_AUDIO_CMD_BUF_SIZE = 1024;

// Outer item type of a command message.
inline constexpr qb_s32_t QB_AUDIO_MSG_TYPE_CMD = 2;

// Operation: the lower 16 bits of an inner item's type.
enum QB_AUDIO_CMD_OP_E {
  QB_AUDIO_CMD_OP_GET = 1,
  QB_AUDIO_CMD_OP_SET = 2,
  QB_AUDIO_CMD_OP_NOTIFY = 3,
};

// Command identifier: the upper 16 bits of an inner item's type.
enum QB_AUDIO_CMD_E {
  QB_AUDIO_CMD_INPUT_SRC_MAC = 1,
  QB_AUDIO_CMD_OUTPUT_MUTE_CTRL = 2,
  QB_AUDIO_CMD_OUTPUT_LATENCY_CTRL = 3,
  QB_AUDIO_CMD_OUTPUT_SRC_SELECT = 4,
  QB_AUDIO_CMD_OUTPUT_DWM_MODE = 5,
  QB_AUDIO_CMD_OUTPUT_ANALOG_VOLUME = 6,
  QB_AUDIO_CMD_OUTPUT_ANALOG_FULLSCALEVRMS = 7,
  QB_AUDIO_CMD_CHANNEL_INFO = 8,
  QB_AUDIO_CMD_STREAM_INPUT_FORLOCAL = 9,
  QB_AUDIO_CMD_STREAM_INPUT_FROMNET = 10,
  QB_AUDIO_CMD_STREAM_OUTPUT_TONET = 11,
  QB_AUDIO_CMD_CEC_PHY_ADDR = 12,
  QB_AUDIO_CMD_IT6621_MODE = 13,
  QB_AUDIO_CMD_INPUT_ANALOG_FULLSCALEVRMS = 14,
  QB_AUDIO_CMD_MONITOR_STATUS = 15,
  QB_AUDIO_CMD_STREAM_INPUT_FALLBACK_FORLOCAL = 16,
  QB_AUDIO_CMD_DETAILS_STATUS = 17,
  QB_AUDIO_CMD_EARC_ENABLE_CTRL = 18,
  QB_AUDIO_CMD_EARC_ONLYARC = 19,
  QB_AUDIO_CMD_MAX = 20,
};

// Item type of a command: identifier in the upper half, operation in the lower half.
constexpr qb_s32_t qb_audio_cmd_type(qb_s32_t id, qb_s32_t op) {
  return static_cast<qb_s32_t>((static_cast<qb_u32_t>(id) << 16) | (static_cast<qb_u32_t>(op) & 0xFFFFu));
}
inline constexpr qb_u32_t QB_AUDIO_CMD_ID_MASK = 0xFFFF0000u;
inline constexpr qb_u32_t QB_AUDIO_CMD_OP_MASK = 0x0000FFFFu;

// ---- numbers carried in payloads -------------------------------------------------------------
// Channel ids
inline constexpr qb_s32_t QB_AUDIO_CHN_ANALOG = 1;
inline constexpr qb_s32_t QB_AUDIO_CHN_EARC = 2;
inline constexpr qb_s32_t QB_AUDIO_CHN_VIDEO = 3;
inline constexpr qb_s32_t QB_AUDIO_CHN_DSP = 4;
inline constexpr qb_s32_t QB_AUDIO_CHN_SPDIF = 5;
inline constexpr qb_s32_t QB_AUDIO_CHN_NSI1 = 6;
inline constexpr qb_s32_t QB_AUDIO_CHN_NSI3 = 7;
inline constexpr qb_s32_t QB_AUDIO_CHN_NSI5 = 8;
inline constexpr qb_s32_t QB_AUDIO_CHN_NSI_SPDIF = 9;
inline constexpr qb_s32_t QB_AUDIO_CHN_NSO1 = 10;
inline constexpr qb_s32_t QB_AUDIO_CHN_NSO3 = 11;
inline constexpr qb_s32_t QB_AUDIO_CHN_NSO5 = 12;
inline constexpr qb_s32_t QB_AUDIO_CHN_NSO_SPDIF = 13;
inline constexpr qb_s32_t QB_AUDIO_CHN_MIN = QB_AUDIO_CHN_ANALOG;
inline constexpr qb_s32_t QB_AUDIO_CHN_MAX = QB_AUDIO_CHN_NSO_SPDIF;
inline constexpr int QB_AUDIO_CHN_COUNT = 13;

// Audio_Type values (compare as unsigned bytes).
inline constexpr qb_u8_t QB_AUDIO_TYPE_LPCM = 0x80;
inline constexpr qb_u8_t QB_AUDIO_TYPE_NLPCM = 0x90;
inline constexpr qb_u8_t QB_AUDIO_TYPE_DSD = 0xA0;
inline constexpr qb_u8_t QB_AUDIO_TYPE_HBR = 0xC0;

// Output-source numbers.
inline constexpr qb_s32_t QB_AUDIO_SRC_ANALOG = 0;
inline constexpr qb_s32_t QB_AUDIO_SRC_HDMI = 1;
inline constexpr qb_s32_t QB_AUDIO_SRC_SPDIF = 2;
inline constexpr qb_s32_t QB_AUDIO_SRC_EARC = 3;
inline constexpr qb_s32_t QB_AUDIO_SRC_STREAM = 4;
inline constexpr qb_s32_t QB_AUDIO_SRC_DSP = 5;
inline constexpr qb_s32_t QB_AUDIO_SRC_HDMI_DOWNMIX = 6;

// ---- payload layouts -------------------------------------------------------------------------
// The 20-byte audio format record of one channel (the channel information notification). Byte
// order is part of the network header and of the saved file; values are used as unsigned bytes.
struct qb_audio_info {
  qb_s8_t Audio_On;         // 1 audio present
  qb_s8_t SampleFrequency;  // sample-frequency code (IEC 60958-3 byte 3)
  qb_s8_t ValidCh;          // channel count: 2, 4, 6 or 8
  qb_s8_t SampleSize;       // 16 or 24
  qb_s8_t io_in_use;        // 2 in records built here
  qb_s8_t enable_upstream;
  qb_s8_t DownSampling;
  qb_s8_t Mode16bits;
  qb_s8_t Audio_Type;       // 0x80 LPCM, 0x90 NLPCM, 0xA0 DSD, 0xC0 HBR
  qb_s8_t bSPDIF;           // 1: S/PDIF- or ARC-framed stream
  qb_s8_t AUD_DB[5];        // CEA-861 Audio InfoFrame data bytes 1-5
  qb_s8_t ChStat[5];        // IEC 60958-3 channel-status bytes 0-4
};
static_assert(sizeof(qb_audio_info) == 20, "qb_audio_info is a 20-byte wire record");

// Output control payloads (all fields unsigned 32-bit little-endian).
typedef struct qb_audio_output_mute_ctrl_t {
  qb_u32_t ch;
  qb_u32_t enable;
  qb_u32_t mute;
} qb_audio_output_mute_ctrl_t;

typedef struct qb_audio_output_latency_ctrl_t {
  qb_u32_t ch;
  qb_u32_t time;
} qb_audio_output_latency_ctrl_t;

typedef struct qb_audio_output_src_select_t {
  qb_u32_t ch;
  qb_u32_t src;
} qb_audio_output_src_select_t;

struct qb_audio_output_dwm_mode_t {
  qb_u32_t ch;
  qb_u32_t mode;
};

typedef struct qb_audio_output_analog_volume_t {
  qb_u32_t vol;
} qb_audio_output_analog_volume_t;

typedef struct qb_audio_output_analog_fullscalevrms_t {
  qb_u32_t vrms;
} qb_audio_output_analog_fullscalevrms_t;

typedef struct qb_audio_input_analog_fullscalevrms_t {
  qb_u32_t vrms;
} qb_audio_input_analog_fullscalevrms_t;

typedef struct qb_audio_output_earc_enable_ctrl_t {
  qb_u32_t ch;
  qb_u32_t enable;
  qb_u32_t onlyArc;
} qb_audio_output_earc_enable_ctrl_t;

typedef struct qb_audio_input_earc_onlyarc_t {
  qb_u32_t onlyArc;
} qb_audio_input_earc_onlyarc_t;

// Stream selection and monitor payloads.
typedef struct qb_audio_stream_input_select_t {
  qb_u32_t ch;
  qb_u32_t sid;
  qb_u32_t fallback_sid;
} qb_audio_stream_input_select_t;

typedef struct qb_it6621_mode {
  qb_s32_t it6621_mode;
} qb_it6621_mode;

typedef struct qb_hdmi_moitor_status {
  qb_s32_t connected;
} qb_hdmi_moitor_status;

typedef struct qb_detail_audio_status {
  qb_s32_t chs;
} qb_detail_audio_status;

inline constexpr int QB_AUDIO_MAC_TEXT_SIZE = 16;

// Output stream request (24 bytes).
struct qb_audio_output_stream_t {
  qb_s32_t streamID;
  qb_s32_t source;
  char vaxoMac[QB_AUDIO_MAC_TEXT_SIZE];
};
static_assert(sizeof(qb_audio_output_stream_t) == 24, "24-byte output request");

// Input stream request (24 bytes).
struct qb_audio_input_stream_t {
  char deviceID[QB_AUDIO_MAC_TEXT_SIZE];
  qb_s32_t streamID;
  qb_s32_t subscriptionID;
};
static_assert(sizeof(qb_audio_input_stream_t) == 24, "24-byte input request");

// ---- reports and drop events to the control process ------------------------------------------
inline constexpr const char* QB_REPORT_ADDRESS = "127.0.0.1";
inline constexpr int QB_REPORT_PORT = 9995;
// Outer and inner item types of a report message.
inline constexpr qb_s32_t QB_REPORT_OUTER_TYPE = 2;
inline constexpr qb_s32_t QB_REPORT_INNER_TYPE = 0x00040502;
// Inner item type of the drop event, and the outer type that carries it.
inline constexpr qb_s32_t AUDIO_LOSS_EVENT_TYPE = 0x40503;
inline constexpr qb_s32_t AUDIO_LOSS_EVENT_OUTER_TYPE = 2;

// ---- files (board paths) -----------------------------------------------------------------------
// The debug request pipe: a word written into the pipe makes the daemon write the dump file, and
// the marker is present again once the dump is complete.
inline constexpr const char* QB_DEBUG_REQUEST_FIFO = "/tmp/request";
inline constexpr const char* QB_DEBUG_DUMP_FILE = "/tmp/dump-status.txt";
inline constexpr const char* QB_DEBUG_REQUEST_OK = "/tmp/request-ok";
// Packet-loss statistics.
inline constexpr const char* AUDIO_LOSS_FILE = "/tmp/pktdrop.json";
// The genlock service's status.
inline constexpr const char* SI5351_STATUS_FILE = "/tmp/genlock.json";
