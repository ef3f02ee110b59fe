// The command thread and the dispatcher of cmd_core's TLV commands.
#include "qb_audio_parse.h"

#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "am_log.h"
#include "qb_audio_main.h"
#include "qb_audio_parse_private.h"
#include "qb_socket.h"

namespace {

// Rows of the dispatch table by the operations a command has.
constexpr qb_audio_cmd_operation_t get_set(int id, qb_audio_cmd_fun_t get, qb_audio_cmd_fun_t set) {
  return {id, get, set, nullptr};
}
constexpr qb_audio_cmd_operation_t set_only(int id, qb_audio_cmd_fun_t set) {
  return {id, nullptr, set, nullptr};
}

// The dispatch table: commands of one message run in this row order; id 0 ends it.
constexpr qb_audio_cmd_operation_t qb_audio_cmd_table[QB_AUDIO_CMD_TABLE_ROWS] = {
    get_set(QB_AUDIO_CMD_INPUT_SRC_MAC, input_src_mac_get, input_src_mac_set),
    set_only(QB_AUDIO_CMD_INPUT_ANALOG_FULLSCALEVRMS, input_analog_volume_set),
    get_set(QB_AUDIO_CMD_OUTPUT_MUTE_CTRL, output_mute_ctrl_get, output_mute_ctrl_set),
    get_set(QB_AUDIO_CMD_OUTPUT_LATENCY_CTRL, output_latency_ctrl_get, output_latency_ctrl_set),
    get_set(QB_AUDIO_CMD_OUTPUT_SRC_SELECT, output_src_select_get, output_src_select_set),
    get_set(QB_AUDIO_CMD_OUTPUT_DWM_MODE, output_dwm_mode_get, output_dwm_mode_set),
    get_set(QB_AUDIO_CMD_OUTPUT_ANALOG_VOLUME, output_analog_volume_get, output_analog_volume_set),
    get_set(QB_AUDIO_CMD_OUTPUT_ANALOG_FULLSCALEVRMS, output_analog_fullscalevrms_get,
            output_analog_fullscalevrms_set),
    {QB_AUDIO_CMD_CHANNEL_INFO, nullptr, nullptr, audio_channel_info_note},
    set_only(QB_AUDIO_CMD_STREAM_INPUT_FORLOCAL, stream_input_select_set),
    set_only(QB_AUDIO_CMD_STREAM_INPUT_FROMNET, stream_input_fromnet_set),
    set_only(QB_AUDIO_CMD_STREAM_OUTPUT_TONET, stream_output_tonet_set),
    set_only(QB_AUDIO_CMD_CEC_PHY_ADDR, cec_phyaddr_set),
    set_only(QB_AUDIO_CMD_IT6621_MODE, it6621_mode_set),
    set_only(QB_AUDIO_CMD_MONITOR_STATUS, monitor_status_set),
    set_only(QB_AUDIO_CMD_STREAM_INPUT_FALLBACK_FORLOCAL, stream_input_fallback_select_set),
    {QB_AUDIO_CMD_DETAILS_STATUS, details_audio_status_get, nullptr, nullptr},
    get_set(QB_AUDIO_CMD_EARC_ENABLE_CTRL, output_earc_enable_ctrl_get, output_earc_enable_ctrl_set),
    set_only(QB_AUDIO_CMD_EARC_ONLYARC, input_earc_onlyarc_ctrl_set),
    {0, nullptr, nullptr, nullptr},
};

// Time-out of one wait of the command thread.
constexpr int QB_AUDIO_CMD_SELECT_TIMEOUT_MS = 1000;
// Offset of the outer length in a message.
constexpr int kOuterLengthOffset = 4;
// Without a usable socket the wait fails at once: the loop pauses as long as one wait would last.
constexpr useconds_t kCmdSocketErrorPauseUs = static_cast<useconds_t>(QB_AUDIO_CMD_SELECT_TIMEOUT_MS) * 1000U;

// The handler of a row for an operation, or nullptr.
qb_audio_cmd_fun_t handler_for(const qb_audio_cmd_operation_t& row, qb_u32_t op) {
  switch (op) {
    case QB_AUDIO_CMD_OP_GET:
      return row.fun_get;
    case QB_AUDIO_CMD_OP_SET:
      return row.fun_set;
    case QB_AUDIO_CMD_OP_NOTIFY:
      return row.fun_not;
    default:
      return nullptr;
  }
}

// Runs every command of the inner box in table order, each identifier at most once.
void dispatch_inner(const tlv_box_t* inner, const qb_audio_cmd_operation_t* table) {
  for (const qb_audio_cmd_operation_t* row = table; row->id != 0; ++row) {
    const tlv_t* item = is_audio_cmd_head_valid(inner, row->id);
    if (item == nullptr) {
      continue;
    }
    const qb_audio_cmd_fun_t fun = handler_for(*row, static_cast<qb_u32_t>(item->type) & QB_AUDIO_CMD_OP_MASK);
    if (fun != nullptr) {
      (void)fun(item->value, item->length);
    }
  }
}

// Size of the datagram waiting on the socket (0 when none or unknown).
int pending_datagram_bytes(int fd) {
  int pending = 0;
  return ioctl(fd, FIONREAD, &pending) != 0 ? 0 : pending;
}

// A datagram larger than the receive buffer is refused by the receive function and stays queued;
// it is read and discarded here so that the socket does not stay readable for ever.
void drain_oversized_datagram(int fd, int pending) {
  qb_u8_t scratch[1];
  (void)recv(fd, scratch, sizeof(scratch), MSG_DONTWAIT | MSG_TRUNC);
  AM_LOG_ERROR("drop cmd datagram of %d bytes, larger than %d", pending, QB_AUDIO_CMD_BUF_SIZE);
}

// Creates and binds the command socket, storing it in the frame's state.
void open_cmd_socket(void) {
  const int fd = qb_create_sock(QB_UDP_SOCK);
  audio_cmd_fd_set(fd);
  if (fd < 1) {
    AM_LOG_ERROR("create socket err");
  }
  if (qb_bind_sock(fd, qb_ip_a2n(QB_AUDIO_CMD_ADDRESS), QB_AUDIO_CMD_PORT) != 0) {
    AM_LOG_ERROR("bind socket err");
  }
}

void close_cmd_socket(void) {
  const int fd = audio_cmd_fd_get();
  if (fd > 0) {
    close(fd);
    audio_cmd_fd_set(0);
  }
}

}  // namespace

const qb_audio_cmd_operation_t* qb_audio_cmd_table_get(void) { return qb_audio_cmd_table; }

tlv_t* is_cmd_first_type_valid(const tlv_box_t* box) {
  return box == nullptr ? nullptr : tlv_box_get_node(box, QB_AUDIO_MSG_TYPE_CMD);
}

tlv_t* is_audio_cmd_head_valid(const tlv_box_t* box, int id) {
  return box == nullptr ? nullptr
                        : tlv_box_get_mask_node(box, qb_audio_cmd_type(id, 0), QB_AUDIO_CMD_ID_MASK);
}

void audio_recv_data_proc_table(const qb_u8_t* message, int received,
                                const qb_audio_cmd_operation_t* table) {
  if (message == nullptr || received <= kOuterLengthOffset || table == nullptr) {
    return;
  }
  // bytes of the length beyond the datagram count as zero, like the rest of the receive buffer
  qb_s32_t outer_length;
  (void)qb_payload_read(message + kOuterLengthOffset, received - kOuterLengthOffset, &outer_length,
                        QB_PAYLOAD_PARTIAL);
  if (outer_length <= 0) {
    return;
  }
  // An outer length beyond the bytes received is cut to what was received: a truncated outer
  // item is then no command at all.
  const int64_t wanted = static_cast<int64_t>(outer_length) + TLV_HEAD_BYTES;
  const qb_s32_t parse_size = static_cast<qb_s32_t>(std::min<int64_t>(wanted, received));
  tlv_box_t* outer = tlv_box_parse(message, parse_size);
  const tlv_t* cmd = is_cmd_first_type_valid(outer);
  if (cmd == nullptr) {
    AM_LOG_ERROR("invalid cmd");
    tlv_box_destroy(outer);  // null when the message was no box at all
    return;
  }
  tlv_box_t* inner = tlv_box_parse(cmd->value, cmd->length);
  if (inner != nullptr) {
    dispatch_inner(inner, table);
    tlv_box_destroy(inner);
  }
  tlv_box_destroy(outer);
}

void audio_recv_data_proc(const qb_u8_t* message, int received) {
  audio_recv_data_proc_table(message, received, qb_audio_cmd_table);
}

int audio_proc(void) {
  qb_u8_t buffer[QB_AUDIO_CMD_BUF_SIZE] = {};
  struct sockaddr_in from = {};
  socklen_t from_len = sizeof(from);
  const int fd = audio_cmd_fd_get();
  errno = 0;
  const int received = qb_udp_recv(fd, buffer, sizeof(buffer), 0, &from, &from_len);
  if (received < 1) {
    const int pending = pending_datagram_bytes(fd);
    const bool oversized = pending > QB_AUDIO_CMD_BUF_SIZE;
    if (oversized) {
      errno = EMSGSIZE;
    }
    AM_LOG_ERROR("audio recv err:%s", std::strerror(errno));
    if (oversized) {
      drain_oversized_datagram(fd, pending);
    }
    return 1;
  }
  audio_recv_data_proc(buffer, received);
  return 1;
}

void* qb_cmd_audio_task1(void* arg) {
  (void)arg;
  open_cmd_socket();
  prctl(PR_SET_NAME, "cmd_task", 0, 0, 0);
  AM_LOG_INFO("audio task thread id %ld,%d,%08x!!!!", static_cast<long>(syscall(SYS_gettid)),
              audio_cmd_fd_get(), QB_SOCK_READABLE);
  while (audio_exit_get() == 0) {
    const int fd = audio_cmd_fd_get();
    const int ready = qb_select(&fd, 1, QB_SELECT_READ, QB_AUDIO_CMD_SELECT_TIMEOUT_MS);
    if (ready == fd + QB_SOCK_READABLE) {
      (void)audio_proc();
    } else if (ready < 0) {
      usleep(kCmdSocketErrorPauseUs);
    }
  }
  close_cmd_socket();
  return nullptr;
}
