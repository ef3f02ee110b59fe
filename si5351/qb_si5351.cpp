// Si5351A driver, genlock service and genlock client calls.
#include "qb_si5351.h"

#include <arpa/inet.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "am_log.h"
#include "am_status_file.h"
#include "i2c_device.h"
#include "qb_si5351_tables.h"
#include "qb_socket.h"

namespace {

// Guards ch_param, stSi5351Conf and the multisynth writes made from them. Only the service thread
// changes them; the lock keeps the text dump and direct callers consistent. Recursive because the
// operations build on one another (a step validates, then programs, then writes).
std::recursive_mutex g_si5351_mutex;
using si5351_guard_t = std::lock_guard<std::recursive_mutex>;

// The working parameter set: every programming operation fills it and writes it to the chip.
channel_param_t ch_param = {0, 0, 0, 0};

// Genlock channel records, index = channel - 1.
SI5351_CONF_T stSi5351Conf[SI5351_CHANNEL_NUM] = {
    {1, 48000, 0, QB_SI5351_SET_PARAM, 0, 0},
    {2, 48000, 0, QB_SI5351_SET_PARAM, 0, 0},
    {3, 48000, 0, QB_SI5351_SET_PARAM, 0, 0},
};

pthread_t si5351tidp;
std::atomic<qb_s64_t> si5351pid{0};
// Set once the service socket is bound (read by the service program for its readiness notice).
std::atomic<bool> g_svr_open{false};
std::atomic<void (*)(void)> g_svr_on_open{nullptr};

// Receive buffer of the service, zeroed once when the service socket opens. Requests are not
// length-checked: a short datagram leaves the earlier bytes in place, and the set-param reply
// carries all 64 bytes. Used by the service thread only.
qb_u8_t g_svr_buf[SI5351_SVR_BUF_LEN];

// A receiver must start even when no genlock service answers: three unanswered set-param
// requests (6 s) and it goes on without the reply.
constexpr int SI5351_SET_PARAM_MAX_TRIES = 3;
// Slice of the wait for the set-param reply after which the caller's stop condition is checked.
constexpr int SI5351_CLIENT_WAIT_SLICE_MS = 100;
// A client reply is read into 128 zeroed bytes, at most 127 of them, so it is always a text.
constexpr int SI5351_CLIENT_REPLY_LEN = 128;
// The dump query gives up after this many rounds and takes at most this many replies.
constexpr int SI5351_DUMP_MAX_ROUNDS = 20;
constexpr int SI5351_DUMP_MAX_REPLIES = 4;
constexpr qb_s32_t SI5351_DUMP_ARG = 48000;
// Pause after each channel line of the text dump.
constexpr useconds_t SI5351_DUMP_LINE_PAUSE_US = 10000;
// Pause before the service tries its socket again when it cannot be opened.
constexpr unsigned SI5351_SVR_REOPEN_S = 2;
// Size of the status text.
constexpr size_t SI5351_JSON_LEN = 1024;
// Mode of the status file (before the umask), as a file that any program may read or replace.
constexpr mode_t SI5351_STATUS_FILE_MODE = 0666;

// Frequency plan of one sample rate.
struct si5351_rate_plan_t {
  qb_s32_t rate;
  qb_u32_t div;       // R divider code
  qb_u32_t r;         // R divider value: multisynth shift per Hz of output shift
  bool family_44k1;   // 22,579,000 Hz multisynth (else 24,576,000 Hz)
};

constexpr si5351_rate_plan_t kRatePlan[] = {
    {44100, SI5351_R_DIV_4, 4, true},  {48000, SI5351_R_DIV_4, 4, false},
    {88200, SI5351_R_DIV_2, 2, true},  {96000, SI5351_R_DIV_2, 2, false},
    {176400, SI5351_R_DIV_1, 1, true}, {192000, SI5351_R_DIV_1, 1, false},
};

const si5351_rate_plan_t* find_rate_plan(int rate) {
  for (const si5351_rate_plan_t& plan : kRatePlan) {
    if (plan.rate == rate) {
      return &plan;
    }
  }
  return nullptr;
}

bool is_channel_valid(int ch) {
  return ch >= 1 && ch <= SI5351_CHANNEL_NUM;
}

SI5351_CONF_T* conf_of(int ch) {
  return is_channel_valid(ch) ? &stSi5351Conf[ch - 1] : nullptr;
}

bool is_step_valid(int step) {
  return step >= SI5351_STEP_HZ && step <= SI5351_MAX_ADJUST_HZ && step % SI5351_STEP_HZ == 0;
}

bool is_value_valid(int value) {
  return value >= -SI5351_MAX_ADJUST_HZ && value <= SI5351_MAX_ADJUST_HZ &&
         value % SI5351_STEP_HZ == 0;
}

// The step-table row whose shift is step x R, or -1.
int step_row(const si5351_rate_plan_t& plan, int step) {
  if (!is_step_valid(step)) {
    return -1;
  }
  const qb_u32_t shift = static_cast<qb_u32_t>(step) * plan.r;
  for (int row = 0; row < MCLK_MSP_INC_MAX; ++row) {
    if (mclk_msp_shift_hz[row] == shift) {
      return row;
    }
  }
  return -1;
}

void load_msp(const mclk_msp_data_t& data) {
  ch_param.msp1 = data.msp1;
  ch_param.msp2 = data.msp2;
  ch_param.msp3 = data.msp3;
}

qb_u8_t first_register_of(int ch) {
  switch (ch) {
    case 1:
      return SI5351_MS0_FIRST_REG;
    case 2:
      return SI5351_MS1_FIRST_REG;
    case 3:
      return SI5351_MS2_FIRST_REG;
    default:
      return 0;
  }
}

void si5351_write_reg(qb_u8_t reg, qb_u8_t value) {
  // The result is not checked: the bus routine reports its own failures on standard output.
  (void)I2C_Device_Write(SI5351_I2C_BUS, SI5351_I2C_ADDR, reg, &value, 1);
}

// Shared by nominal, increase and decrease: div and P1-P3 for (rate, step), then the write.
int program_adjusted(int ch, int rate, int step, bool increase) {
  const si5351_rate_plan_t* plan = find_rate_plan(rate);
  if (plan == nullptr) {
    return 0;
  }
  const int row = step_row(*plan, step);
  if (row < 0) {
    return 0;
  }
  ch_param.div = plan->div;
  if (plan->family_44k1) {
    if (increase) {
      qb_si5351_param_44100x_inc_set(step, rate);
    } else {
      qb_si5351_param_44100x_dec_set(step, rate);
    }
  } else {
    load_msp(increase ? mclk_msp_24576000_inc[row] : mclk_msp_24576000_dec[row]);
  }
  si5351_channel_param_set(ch);
  return 1;
}

int param_44100x_set(int step, int rate, const mclk_msp_data_t (&table)[MCLK_MSP_INC_MAX]) {
  const si5351_rate_plan_t* plan = find_rate_plan(rate);
  if (plan == nullptr || !plan->family_44k1) {
    return 0;
  }
  const int row = step_row(*plan, step);
  if (row < 0) {
    return 0;
  }
  load_msp(table[row]);
  return 1;
}

// Validates a record before a step; prints why it is refused.
bool is_conf_valid(const SI5351_CONF_T* conf) {
  if (!is_channel_valid(conf->ch)) {
    printf("invalid ch:%d \n", conf->ch);
    return false;
  }
  if (find_rate_plan(conf->rate) == nullptr) {
    printf("invalid rate:%d \n", conf->rate);
    return false;
  }
  if (!is_value_valid(conf->value)) {
    printf("invalid value:%d \n", conf->value);
    return false;
  }
  return true;
}

void log_reset_step(int ch) {
  const SI5351_CONF_T* conf = conf_of(ch);
  AM_LOG_INFO("si5351 ch:%d rate:%d reset to value:%d", ch, conf->rate, conf->value);
}

sockaddr_in service_address() {
  sockaddr_in addr;
  std::memset(&addr, 0, sizeof addr);
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(SI5351_SVR_PORT));
  addr.sin_addr.s_addr = htonl(qb_ip_a2n(SI5351_SVR_ADDR));
  return addr;
}

// A non-blocking UDP socket bound to addr:port (address reuse on), or -1 (logged).
int open_bound_udp(const char* addr, int port) {
  int fd = qb_create_sock(QB_UDP_SOCK);
  if (fd < 1) {
    AM_LOG_ERROR("create socket<%s:%d> err", addr, port);
    return -1;
  }
  qb_set_sock_noblock(fd);
  if (qb_bind_sock(fd, qb_ip_a2n(addr), port) != 0) {
    qb_close_socket(&fd);
    AM_LOG_ERROR("bind socket<%s:%d> err", addr, port);
    return -1;
  }
  return fd;
}

// Sends a request of len bytes to the service address; true when all of it went out.
bool send_request(int sock, const SI5351_MSG_T& msg, int len) {
  if (sock < 1) {
    errno = EBADF;  // the error text names the bad socket, not an earlier call's failure
    return false;
  }
  const sockaddr_in dest = service_address();
  return qb_udp_send(sock, &msg, len, &dest) == len;
}

// Sends a request of len bytes to the peer the socket is connected to; true when all went out.
bool send_connected(int sock, const SI5351_MSG_T& msg, int len) {
  sockaddr_in peer;
  socklen_t peer_len = sizeof peer;
  std::memset(&peer, 0, sizeof peer);
  if (sock < 1) {
    errno = EBADF;  // the error text names the bad socket, not an earlier call's failure
    return false;
  }
  if (getpeername(sock, reinterpret_cast<sockaddr*>(&peer), &peer_len) != 0) {
    return false;
  }
  return qb_udp_send(sock, &msg, len, &peer) == len;
}

SI5351_MSG_T make_request(qb_u32_t command, int ch, int arg1, int arg2) {
  SI5351_MSG_T msg;
  msg.command = command;
  msg.channel = ch;
  msg.arg1 = arg1;
  msg.arg2 = arg2;
  return msg;
}

int send_step_request(int sock, qb_u32_t command, const char* name, int ch) {
  const SI5351_MSG_T msg = make_request(command, ch, 0, 0);
  if (!send_connected(sock, msg, SI5351_MSG_LEN)) {
    AM_LOG_ERROR("send %s to<%s:%d> fd:%d error:%s", name, SI5351_SVR_ADDR, SI5351_SVR_PORT, sock,
                 strerror(errno));
    return -1;
  }
  return 0;
}

bool wait_readable(int sock, int timeout_ms) {
  return qb_select(&sock, 1, QB_SELECT_READ, timeout_ms) == sock + QB_SOCK_READABLE;
}

void svr_dispatch(int fd, const sockaddr_in& from) {
  SI5351_MSG_T msg;
  std::memcpy(&msg, g_svr_buf, sizeof msg);
  const int ch = msg.channel;
  switch (msg.command) {
    case QB_SI5351_SET_PARAM:
      qb_udp_send(fd, g_svr_buf, SI5351_SVR_BUF_LEN, &from);
      qb_si5351_set_param(ch, msg.arg1);
      AM_LOG_INFO("set param ch:%d rate:%d", ch, msg.arg1);
      set_chn_stat(ch, QB_SI5351_SET_PARAM);
      break;
    case QB_SI5351_SET_INC:
      set_chn_stat(ch, QB_SI5351_SET_INC);
      qb_si5351_increase(ch);
      break;
    case QB_SI5351_SET_DEC:
      set_chn_stat(ch, QB_SI5351_SET_DEC);
      qb_si5351_decrease(ch);
      break;
    case QB_SI5351_SET_RESET:
      set_chn_stat(ch, QB_SI5351_SET_RESET);
      qb_si5351_reset_chn2(ch);
      break;
    case QB_FIFO_REPORT:
      set_fifo_stat(ch, msg.arg1, msg.arg2);
      dump2json();
      break;
    default:
      // The dump request has no handler here either: it is logged and not answered.
      AM_LOG_ERROR("unknown cmd:0x%x", msg.command);
      break;
  }
}

}  // namespace

// ---- Chip driver -----------------------------------------------------------------------------

int qb_si5351_init(void) {
  si5351_guard_t guard(g_si5351_mutex);
  for (const si5351a_revb_register_t& row : si5351a_revb_registers_24576) {
    si5351_write_reg(static_cast<qb_u8_t>(row.address), row.value);
  }
  ch_param = channel_param_t{0, 0, 0, 0};
  return 1;
}

int qb_si5351_set(int ch, int rate) {
  const si5351_rate_plan_t* plan = find_rate_plan(rate);
  if (plan == nullptr) {
    printf("rate:%d error\n", rate);
    return 0;
  }
  si5351_guard_t guard(g_si5351_mutex);
  ch_param.div = plan->div;
  load_msp(plan->family_44k1 ? mclk_msp_22579000_nominal : mclk_msp_24576000_nominal);
  si5351_channel_param_set(ch);
  return 1;
}

int qb_si5351_param_inc_set(int ch, int rate, int step) {
  si5351_guard_t guard(g_si5351_mutex);
  return program_adjusted(ch, rate, step, true);
}

int qb_si5351_param_dec_set(int ch, int rate, int step) {
  si5351_guard_t guard(g_si5351_mutex);
  return program_adjusted(ch, rate, step, false);
}

int qb_si5351_param_44100x_inc_set(int step, int rate) {
  si5351_guard_t guard(g_si5351_mutex);
  return param_44100x_set(step, rate, mclk_msp_22579000_inc);
}

int qb_si5351_param_44100x_dec_set(int step, int rate) {
  si5351_guard_t guard(g_si5351_mutex);
  return param_44100x_set(step, rate, mclk_msp_22579000_dec);
}

void si5351_channel_param_set(int ch) {
  const qb_u8_t first = first_register_of(ch);
  if (first == 0) {
    return;
  }
  si5351_guard_t guard(g_si5351_mutex);
  const qb_u32_t p1 = ch_param.msp1;
  const qb_u32_t p2 = ch_param.msp2;
  const qb_u32_t p3 = ch_param.msp3;
  const qb_u8_t bytes[SI5351_MS_PARAM_REGS] = {
      static_cast<qb_u8_t>((p3 >> 8) & 0xFF),
      static_cast<qb_u8_t>(p3 & 0xFF),
      static_cast<qb_u8_t>(((ch_param.div & 0x07) << 4) | ((p1 >> 16) & 0x03)),
      static_cast<qb_u8_t>((p1 >> 8) & 0xFF),
      static_cast<qb_u8_t>(p1 & 0xFF),
      static_cast<qb_u8_t>((((p3 >> 16) & 0x0F) << 4) | ((p2 >> 16) & 0x0F)),
      static_cast<qb_u8_t>((p2 >> 8) & 0xFF),
      static_cast<qb_u8_t>(p2 & 0xFF),
  };
  for (int i = 0; i < SI5351_MS_PARAM_REGS; ++i) {
    si5351_write_reg(static_cast<qb_u8_t>(first + i), bytes[i]);
  }
}

int qb_si5351_param_inc_dec(int ch, int rate, int value) {
  if (rate < 1) {
    return 0;
  }
  if (value == 0) {
    qb_si5351_set(ch, rate);
  } else if (value > 0) {
    qb_si5351_param_inc_set(ch, rate, value);
  } else {
    qb_si5351_param_dec_set(ch, rate, -value);
  }
  return 0;
}

int qb_si5351_conf_inc(SI5351_CONF_T* conf) {
  if (conf == nullptr) {
    return -1;
  }
  si5351_guard_t guard(g_si5351_mutex);
  if (!is_conf_valid(conf)) {
    return -1;
  }
  if (conf->value >= SI5351_MAX_ADJUST_HZ) {
    return 1;
  }
  conf->value += SI5351_STEP_HZ;
  return 0;
}

int qb_si5351_conf_dec(SI5351_CONF_T* conf) {
  if (conf == nullptr) {
    return -1;
  }
  si5351_guard_t guard(g_si5351_mutex);
  if (!is_conf_valid(conf)) {
    return -1;
  }
  if (conf->value <= -SI5351_MAX_ADJUST_HZ) {
    return 1;
  }
  conf->value -= SI5351_STEP_HZ;
  return 0;
}

int qb_si5351_param_inc_dec2(const SI5351_CONF_T* conf) {
  if (conf == nullptr) {
    return -1;
  }
  si5351_guard_t guard(g_si5351_mutex);
  AM_LOG_INFO("si5351 ch:%d rate:%d value:%d status:%s", conf->ch, conf->rate, conf->value,
              get_status_si53512(conf->state));
  return qb_si5351_param_inc_dec(conf->ch, conf->rate, conf->value);
}

int qb_si5351_increase(int ch) {
  si5351_guard_t guard(g_si5351_mutex);
  SI5351_CONF_T* conf = conf_of(ch);
  if (conf == nullptr || qb_si5351_conf_inc(conf) != 0) {
    return 0;
  }
  qb_si5351_param_inc_dec2(conf);
  return 0;
}

int qb_si5351_decrease(int ch) {
  si5351_guard_t guard(g_si5351_mutex);
  SI5351_CONF_T* conf = conf_of(ch);
  if (conf == nullptr || qb_si5351_conf_dec(conf) != 0) {
    return 0;
  }
  qb_si5351_param_inc_dec2(conf);
  return 0;
}

int qb_si5351_set_conf(int ch, int rate) {
  si5351_guard_t guard(g_si5351_mutex);
  SI5351_CONF_T* conf = conf_of(ch);
  if (conf != nullptr) {
    conf->ch = ch;
    conf->rate = rate;
    conf->value = 0;
  }
  return 0;
}

int qb_si5351_set_param(int ch, int rate) {
  si5351_guard_t guard(g_si5351_mutex);
  qb_si5351_set(ch, rate);
  qb_si5351_set_conf(ch, rate);
  return 0;
}

int qb_si5351_reset_chn(int ch) {
  si5351_guard_t guard(g_si5351_mutex);
  SI5351_CONF_T* conf = conf_of(ch);
  if (conf == nullptr || conf->value == 0) {
    return 0;
  }
  const int rate = conf->rate;
  qb_si5351_set(ch, rate);
  qb_si5351_set_conf(ch, rate);
  AM_LOG_INFO("si5351 ch:%d rate:%d reset", ch, rate);
  return 0;
}

int qb_si5351_reset_chn2(int ch) {
  si5351_guard_t guard(g_si5351_mutex);
  const SI5351_CONF_T* conf = conf_of(ch);
  if (conf == nullptr) {
    return 0;
  }
  if (conf->value < 0) {
    qb_si5351_increase(ch);
    log_reset_step(ch);
  }
  if (conf->value > 0) {
    qb_si5351_decrease(ch);
    log_reset_step(ch);
  }
  return 0;
}

int set_fifo_stat(int ch, int total, int used) {
  si5351_guard_t guard(g_si5351_mutex);
  SI5351_CONF_T* conf = conf_of(ch);
  if (conf != nullptr) {
    conf->fifoTotal = total;
    conf->fifoUsed = used;
  }
  return 0;
}

int set_chn_stat(int ch, int state) {
  si5351_guard_t guard(g_si5351_mutex);
  SI5351_CONF_T* conf = conf_of(ch);
  if (conf != nullptr) {
    conf->state = state;
  }
  return 0;
}

const char* get_status_si53512(int state) {
  switch (state) {
    case QB_SI5351_SET_PARAM:
      return "set param";
    case QB_SI5351_SET_INC:
      return "increase";
    case QB_SI5351_SET_DEC:
      return "decrease";
    case QB_SI5351_SET_RESET:
      return "reset";
    default:
      return "unknonw";
  }
}

bool qb_si5351_conf_get(int ch, SI5351_CONF_T* out) {
  si5351_guard_t guard(g_si5351_mutex);
  const SI5351_CONF_T* conf = conf_of(ch);
  if (conf == nullptr || out == nullptr) {
    return false;
  }
  *out = *conf;
  return true;
}

// ---- Genlock service -------------------------------------------------------------------------

int qb_si5351_start2(void) {
  qb_si5351_init();
  if (pthread_create(&si5351tidp, nullptr, si5351_task, nullptr) != 0) {
    AM_LOG_ERROR(" audio si5351_task thread create fail");
    return -1;
  }
  pthread_detach(si5351tidp);
  return 0;
}

int qb_si5351_start(void) {
  qb_si5351_init();
  return 0;
}

void* si5351_task(void* /*arg*/) {
  prctl(PR_SET_NAME, "si5351_clk", 0, 0, 0);
  si5351pid.store(static_cast<qb_s64_t>(syscall(SYS_gettid)));
  AM_LOG_INFO("si5351_task pid:%ld", static_cast<long>(si5351pid.load()));
  si5351_svr_start();
  return nullptr;
}

void si5351_svr_start(void) {
  int fd = si5351_svr_open(SI5351_SVR_ADDR, SI5351_SVR_PORT);
  while (fd < 0) {
    sleep(SI5351_SVR_REOPEN_S);
    fd = si5351_svr_open(SI5351_SVR_ADDR, SI5351_SVR_PORT);
  }
  g_svr_open.store(true);
  void (*on_open)(void) = g_svr_on_open.load();
  if (on_open != nullptr) {
    on_open();
  }
  for (;;) {
    si5351_svr_poll(fd, SI5351_SVR_IDLE_MS);
  }
}

bool si5351_svr_is_open(void) {
  return g_svr_open.load();
}

void si5351_svr_on_open_set(void (*on_open)(void)) { g_svr_on_open.store(on_open); }

int si5351_svr_open(const char* addr, int port) {
  const int fd = open_bound_udp(addr, port);
  if (fd >= 0) {
    std::memset(g_svr_buf, 0, sizeof g_svr_buf);
  }
  return fd;
}

void si5351_svr_poll(int fd, int wait_ms) {
  const int ready = qb_select(&fd, 1, QB_SELECT_READ, wait_ms);
  if (ready == 0) {
    handle_reset_stat();
    return;
  }
  if (ready != fd + QB_SOCK_READABLE) {
    // Only a broken socket gets here; do not spin on it.
    usleep(static_cast<useconds_t>(wait_ms) * 1000U);
    return;
  }
  sockaddr_in from;
  socklen_t from_len = sizeof from;
  std::memset(&from, 0, sizeof from);
  // One datagram of at most 64 bytes; a longer one is cut, never left blocking the socket.
  qb_u8_t received[SI5351_SVR_BUF_LEN];
  const int n = qb_udp_recv2(fd, received, SI5351_SVR_BUF_LEN, 0, &from, &from_len);
  if (n > 0) {
    si5351_svr_serve(fd, received, static_cast<size_t>(n), from);
  }
}

void si5351_svr_serve(int fd, const qb_u8_t* data, size_t len, const sockaddr_in& from) {
  if (len == 0) {
    return;
  }
  si5351_guard_t guard(g_si5351_mutex);
  std::memcpy(g_svr_buf, data, len < sizeof g_svr_buf ? len : sizeof g_svr_buf);
  svr_dispatch(fd, from);
}

int handle_reset_stat(void) {
  si5351_guard_t guard(g_si5351_mutex);
  for (int ch = 1; ch <= SI5351_CHANNEL_NUM; ++ch) {
    SI5351_CONF_T* conf = conf_of(ch);
    if (conf->state != static_cast<qb_s32_t>(QB_SI5351_SET_RESET)) {
      continue;
    }
    qb_si5351_reset_chn2(ch);
    if (conf->value == 0) {
      conf->state = QB_SI5351_SET_PARAM;
    }
  }
  return 0;
}

int dump2json(void) {
  SI5351_CONF_T conf[SI5351_CHANNEL_NUM];
  {
    si5351_guard_t guard(g_si5351_mutex);
    std::memcpy(conf, stSi5351Conf, sizeof conf);
  }
  // The text lives in a fixed buffer: the only failure left is a text that does not fit.
  char text[SI5351_JSON_LEN];
  const int len = snprintf(
      text, sizeof text,
      "{\"genlock\":{\"hdmi\":{\"fifoTotal\":%d,\"fifoUsed\":%d,\"ppmAdjusted\":%d,\"ppmMaxStep\":300},"
      "\"analog\":{\"fifoTotal\":%d,\"fifoUsed\":%d,\"ppmAdjusted\":%d,\"ppmMaxStep\":300},"
      "\"earc/spdif\":{\"fifoTotal\":%d,\"fifoUsed\":%d,\"ppmAdjusted\":%d,\"ppmMaxStep\":300}}}",
      conf[0].fifoTotal, conf[0].fifoUsed, conf[0].value, conf[1].fifoTotal, conf[1].fifoUsed,
      conf[1].value, conf[2].fifoTotal, conf[2].fifoUsed, conf[2].value);
  if (len < 0 || static_cast<size_t>(len) >= sizeof text) {
    return -1;
  }
  // Written beside the status file and renamed over it: a full disk keeps the old status whole.
  (void)am_status_file_replace(SI5351_STATUS_FILE, SI5351_STATUS_TMP_FILE, text,
                               static_cast<size_t>(len), SI5351_STATUS_FILE_MODE);
  return 0;
}

void qb_si5351_dump2(FILE* fp) {
  if (fp == nullptr) {
    return;
  }
  SI5351_CONF_T conf[SI5351_CHANNEL_NUM];
  {
    si5351_guard_t guard(g_si5351_mutex);
    std::memcpy(conf, stSi5351Conf, sizeof conf);
  }
  fprintf(fp, "si5351 pid:%ld \n", static_cast<long>(si5351pid.load()));
  for (int i = 0; i < SI5351_CHANNEL_NUM; ++i) {
    fprintf(fp, "ch:%d rate:%d value:%d status:%s\n", i + 1, conf[i].rate, conf[i].value,
            get_status_si53512(conf[i].state));
    usleep(SI5351_DUMP_LINE_PAUSE_US);
  }
  fprintf(fp, "\n");
}

// ---- Client calls ----------------------------------------------------------------------------

int udp_socket_create(const char* addr, int port) {
  if (addr == nullptr) {
    return -1;
  }
  int fd = open_bound_udp(addr, port);
  if (fd < 0) {
    return -1;
  }
  const sockaddr_in server = service_address();
  if (connect(fd, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) {
    AM_LOG_ERROR("connect to server<%s:%d> err", SI5351_SVR_ADDR, SI5351_SVR_PORT);
    qb_close_socket(&fd);
    return -1;
  }
  return fd;
}

int send_set_param(int sock, int ch, int rate) {
  return send_set_param2(sock, ch, rate, nullptr, nullptr);
}

int send_set_param2(int sock, int ch, int rate, bool (*give_up)(void*), void* arg) {
  const SI5351_MSG_T msg = make_request(QB_SI5351_SET_PARAM, ch, rate, 0);
  for (int tries = 0; tries < SI5351_SET_PARAM_MAX_TRIES; ++tries) {
    if (!send_connected(sock, msg, SI5351_MSG_LEN)) {
      AM_LOG_ERROR("send QB_SI5351_SET_PARAM to<%s:%d> fd:%d error:%s", SI5351_SVR_ADDR,
                   SI5351_SVR_PORT, sock, strerror(errno));
      return -1;
    }
    // The reply is awaited in slices, so that a caller that is told to stop (a service that
    // hangs must not hold up the daemon's shutdown) is back within one slice.
    bool readable = false;
    for (int waited = 0; !readable && waited < SI5351_SVR_IDLE_MS;
         waited += SI5351_CLIENT_WAIT_SLICE_MS) {
      if (give_up != nullptr && give_up(arg)) {
        return -1;
      }
      readable = wait_readable(sock, SI5351_CLIENT_WAIT_SLICE_MS);
    }
    if (!readable) {
      AM_LOG_ERROR("get 5351 set param response timeout");
      continue;
    }
    char reply[SI5351_CLIENT_REPLY_LEN] = {};
    const int n = qb_udp_recv2(sock, reply, SI5351_CLIENT_REPLY_LEN - 1, 0, nullptr, nullptr);
    AM_LOG_INFO("get 5351 set param ret=%d", n);
    return 0;
  }
  return -1;
}

int set_increase(int sock, int ch) {
  return send_step_request(sock, QB_SI5351_SET_INC, "QB_SI5351_SET_INC", ch);
}

int set_decrease(int sock, int ch) {
  return send_step_request(sock, QB_SI5351_SET_DEC, "QB_SI5351_SET_DEC", ch);
}

int set_reset(int sock, int ch) {
  return send_step_request(sock, QB_SI5351_SET_RESET, "QB_SI5351_SET_RESET", ch);
}

int set_fifo_status(int sock, int ch, int fifoTotal, int fifoUsed) {
  const SI5351_MSG_T msg = make_request(QB_FIFO_REPORT, ch, fifoTotal, fifoUsed);
  if (!send_request(sock, msg, SI5351_FIFO_MSG_LEN)) {
    AM_LOG_ERROR("send QB_FIFO_REPORT to<%s:%d> fd:%d error:%s", SI5351_SVR_ADDR, SI5351_SVR_PORT,
                 sock, strerror(errno));
    return -1;
  }
  return 0;
}

void qb_si5351_dump(FILE* fp) {
  int sock = udp_socket_create(SI5351_SVR_ADDR, SI5351_DUMP_CLIENT_PORT);
  if (sock < 0) {
    return;
  }
  const SI5351_MSG_T msg = make_request(QB_SI5351_DUMP, 0, SI5351_DUMP_ARG, 0);
  int replies = 0;
  for (int round = 0; round < SI5351_DUMP_MAX_ROUNDS; ++round) {
    if (replies == 0 && !send_request(sock, msg, SI5351_MSG_LEN)) {
      AM_LOG_ERROR("send QB_SI5351_DUMP to<%s:%d> fd:%d error:%s", SI5351_SVR_ADDR,
                   SI5351_SVR_PORT, sock, strerror(errno));
      break;
    }
    if (!wait_readable(sock, SI5351_SVR_IDLE_MS)) {
      AM_LOG_ERROR("get 5351 dump response timeout");
      break;
    }
    char reply[SI5351_CLIENT_REPLY_LEN] = {};
    const int n = qb_udp_recv2(sock, reply, SI5351_CLIENT_REPLY_LEN - 1, 0, nullptr, nullptr);
    if (n <= 0) {
      continue;
    }
    if (fp != nullptr) {
      fprintf(fp, "%s", reply);
    }
    if (++replies >= SI5351_DUMP_MAX_REPLIES) {
      break;
    }
  }
  qb_close_socket(&sock);
}
