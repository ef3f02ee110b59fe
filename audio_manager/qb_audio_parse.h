// The command socket of the daemon: cmd_core sends TLV messages to 127.0.0.1:9994; the command
// thread receives them one at a time and hands each command to the handler that the dispatch
// table names for its identifier and operation. Also declares every command handler (output
// control and stream selection) and the all-gates mute and unmute.
#pragma once

#include "qb_audio_protocol.h"  // command codes and payload layouts
#include "qb_tlv_box.h"
#include "qb_types.h"

// ---- endpoint --------------------------------------------------------------------------------
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
