// The command socket of the daemon: cmd_core sends TLV messages to 127.0.0.1:9994; the command
// thread receives them one at a time and hands each command to the handler that the dispatch
// table names for its identifier and operation. Also declares every command handler (output
// control and stream selection) and the all-gates mute and unmute.
#pragma once

#include "qb_audio_misc.h"
#include "qb_tlv_box.h"
#include "qb_types.h"

// ---- endpoint and message layout -------------------------------------------------------------
inline constexpr const char* QB_AUDIO_CMD_ADDRESS = "127.0.0.1";
inline constexpr int QB_AUDIO_CMD_PORT = 9994;
// Largest command datagram received.
inline constexpr int QB_AUDIO_CMD_BUF_SIZE = 1024;
// Time-out of one wait of the command thread.
inline constexpr int QB_AUDIO_CMD_SELECT_TIMEOUT_MS = 1000;

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

// A command handler: (payload bytes, payload length) -> 1 when done, 0 when refused. The payload
// is valid only during the call and may be shorter than the handler's record.
typedef int (*qb_audio_cmd_fun_t)(const void* buf, int len);

// One row of the dispatch table; id 0 ends the table.
typedef struct qb_audio_cmd_operation_t {
  int id;
  qb_audio_cmd_fun_t fun_get;
  qb_audio_cmd_fun_t fun_set;
  qb_audio_cmd_fun_t fun_not;
} qb_audio_cmd_operation_t;

// Number of rows of the dispatch table, the end row included.
inline constexpr int QB_AUDIO_CMD_TABLE_ROWS = 20;

// The daemon's dispatch table (QB_AUDIO_CMD_TABLE_ROWS rows, ending with id 0).
const qb_audio_cmd_operation_t* qb_audio_cmd_table_get(void);

// ---- command thread and dispatch -----------------------------------------------------------
// Thread entry: serves the command socket until the exit flag is set.
void* qb_cmd_audio_task1(void* arg);
// Receives one datagram on the command socket and dispatches it. Always 1.
int audio_proc(void);
// Checks and dispatches one received message of `received` bytes through the daemon's table.
void audio_recv_data_proc(const qb_u8_t* message, int received);
// The same through a given table (ending with id 0).
void audio_recv_data_proc_table(const qb_u8_t* message, int received,
                                const qb_audio_cmd_operation_t* table);
// The outer item of type QB_AUDIO_MSG_TYPE_CMD, or nullptr.
tlv_t* is_cmd_first_type_valid(const tlv_box_t* box);
// The first item whose upper 16 bits are `id`, or nullptr.
tlv_t* is_audio_cmd_head_valid(const tlv_box_t* box, int id);

// ---- output control payloads (all fields unsigned 32-bit little-endian) ---------------------
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

// qb_audio_output_dwm_mode_t (ch, mode) is the routing module's record (qb_audio_misc.h).

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

// ---- stream selection and monitor payloads ----------------------------------------------------
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

// ---- output control handlers ------------------------------------------------------------------
int output_mute_ctrl_get(const void* buf, int len);
int output_mute_ctrl_set(const void* buf, int len);
int output_latency_ctrl_get(const void* buf, int len);
int output_latency_ctrl_set(const void* buf, int len);
int output_src_select_get(const void* buf, int len);
int output_src_select_set(const void* buf, int len);
int output_dwm_mode_get(const void* buf, int len);
int output_dwm_mode_set(const void* buf, int len);
int output_analog_volume_get(const void* buf, int len);
int output_analog_volume_set(const void* buf, int len);
int output_analog_fullscalevrms_get(const void* buf, int len);
int output_analog_fullscalevrms_set(const void* buf, int len);
int input_analog_volume_set(const void* buf, int len);
int output_earc_enable_ctrl_get(const void* buf, int len);
int output_earc_enable_ctrl_set(const void* buf, int len);
int input_earc_onlyarc_ctrl_set(const void* buf, int len);

// ARC mode requests to the bridge services (0 off, 1 ARC and eARC, 2 ARC only). Return 1.
int arc_on_off_ctrl(int mode);
int it6621_arc_on_off_ctrl(int mode);
// The analog output volume last passed to the codec program.
qb_s32_t analog_volume_get(void);

// Every FPGA mute gate closed: register 0x52 <- 0x00.
void audio_mute_all(void);
// Every FPGA mute gate opened: 0x52, 0x53, 0x55..0x5B <- 0xFF, in that order.
void audio_unmute_all(void);

// ---- stream selection and monitor handlers ---------------------------------------------------
int input_src_mac_get(const void* buf, int len);
int input_src_mac_set(const void* buf, int len);
int stream_input_select_set(const void* buf, int len);
int stream_input_fromnet_set(const void* buf, int len);
int stream_output_tonet_set(const void* buf, int len);
int cec_phyaddr_set(const void* buf, int len);
int it6621_mode_set(const void* buf, int len);
int monitor_status_set(const void* buf, int len);
int stream_input_fallback_select_set(const void* buf, int len);
int details_audio_status_get(const void* buf, int len);
int audio_channel_info_note(const void* buf, int len);
