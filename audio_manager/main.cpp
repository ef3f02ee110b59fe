// audio_manager: start-up, the init list of the audio modules and the signal-driven shutdown.
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <mutex>

#include "am_log.h"
#include "am_notify.h"
#include "audio_packet_loss_statistics.h"
#include "i2c_device.h"
#include "posix_system.h"
#include "qb_audio_analog.h"
#include "qb_audio_aplay.h"
#include "qb_audio_earc.h"
#include "qb_audio_hdmi.h"
#include "qb_audio_main.h"
#include "qb_audio_misc.h"
#include "qb_audio_misc_fpga.h"
#include "qb_audio_parse.h"
#include "qb_audio_spdif.h"
#include "qb_audio_stream.h"

namespace {

// The init list: started from the first row to the last, stopped from the last to the first, so
// the routing module starts before the audio thread manager and stops after it.
constexpr qb_init_fun_list_t global_list[] = {
    {qb_audio_analog_init, qb_audio_analog_uninit},
    {qb_audio_earc_init, qb_audio_earc_uninit},
    {qb_audio_hdmi_init, qb_audio_hdmi_uninit},
    {qb_audio_spdif_init, qb_audio_spdif_uninit},
    {qb_audio_stream_init, qb_audio_stream_uninit},
    {qb_audio_misc_init, qb_audio_misc_uninit},
    {qb_audio_aplay_init, qb_audio_aplay_uninit},
};
constexpr int kGlobalListRows = static_cast<int>(sizeof(global_list) / sizeof(global_list[0]));
static_assert(kGlobalListRows == 7, "the init list has seven rows");

// Signals that end the daemon, in the order their handler is installed.
constexpr int kTerminationSignals[] = {SIGTERM, SIGINT, SIGTSTP};

// Analog codec start command.
constexpr const char* kCodecStartCommand = "/customer/bin/audio_codec --start";

// Routes set on boards 1 and 3: the DSP input multiplexer "I2S_Mux_DSP_DAI1" takes
// "HDMI-RCVR-TX", then the DAC multiplexer "I2S_Mux_PCM5122" takes "DSP-DAO1".
struct fpga_reg_write_t {
  qb_u8_t reg;
  qb_u8_t value;
};
constexpr fpga_reg_write_t kDspBoardRoutes[] = {{FPGA_REG_ROUTE_DSP_IN, FPGA_SRC_HDMI_IN},
                                                {FPGA_REG_ROUTE_ANALOG_OUT, FPGA_SRC_DSP_DAO}};

// Seconds slept should the statistics loop ever return.
constexpr unsigned kLossLoopRestartSleepS = 10000;

// The program's state. Start-up holds init_walk_mutex while it walks the init list, so that a
// signal during start-up stops the modules only once they have all been started. The termination
// signal handler only writes one byte into shutdown_pipe; the shutdown thread reads it and runs
// the shutdown steps on a normal thread.
struct main_state_t {
  std::mutex init_walk_mutex;
  int shutdown_pipe[2] = {-1, -1};
};
main_state_t g_main;

// The handler installed for SIGTERM, SIGINT and SIGTSTP.
void exit_main(int signo) {
  const int saved_errno = errno;
  const char byte = static_cast<char>(signo);
  (void)!write(g_main.shutdown_pipe[1], &byte, 1);  // the pipe is non-blocking: never waits here
  errno = saved_errno;
}

// Shutdown thread: waits for the first termination signal, then logs, sets the exit flag, stops
// the init list from aplay back to analog and ends the process with status 0. Later signals find
// nobody reading and do nothing.
void* shutdown_task(void*) {
  char byte = 0;
  for (;;) {
    const ssize_t n = read(g_main.shutdown_pipe[0], &byte, 1);
    if (n == 1) {
      break;
    }
    if (n == 0 || (n < 0 && errno != EINTR)) {
      return nullptr;  // the pipe is gone: no signal can arrive through it any more
    }
  }
  am_notify_stopping();
  std::lock_guard<std::mutex> init_done(g_main.init_walk_mutex);
  if (qb_audio_shutdown_steps(global_list, kGlobalListRows) == 1) {
    std::cout.flush();
    std::fflush(nullptr);
    _exit(0);  // other threads are still running: no static destructors under their feet
  }
  return nullptr;
}

// Starts a detached thread: nobody waits for it, so the process may end while it runs and its
// resources are released when it finishes. False (logged) when it cannot be created.
bool start_detached(void* (*entry)(void*), const char* failure) {
  pthread_t tid;
  if (pthread_create(&tid, nullptr, entry, nullptr) != 0) {
    AM_LOG_ERROR("%s", failure);
    return false;
  }
  pthread_detach(tid);
  return true;
}

// Creates the signal pipe and the thread that serves it. False when either fails.
bool start_shutdown_thread(void) {
  if (pipe2(g_main.shutdown_pipe, O_CLOEXEC) != 0) {
    AM_LOG_ERROR("create shutdown pipe err:%s", std::strerror(errno));
    return false;
  }
  (void)fcntl(g_main.shutdown_pipe[1], F_SETFL, O_NONBLOCK);
  return start_detached(shutdown_task, "create shutdown thread err");
}

void set_board_routes(qb_s32_t board_id) {
  if (board_id != QB_BOARD_MODE_TX_A && board_id != QB_BOARD_MODE_TR_A) {
    return;
  }
  for (const fpga_reg_write_t& route : kDspBoardRoutes) {
    (void)I2C_Device_Write(QB_AUDIO_FPGA_I2C_DEV, QB_AUDIO_FPGA_I2C_ADDR, route.reg, &route.value, 1);
  }
}

}  // namespace

int main(int argc, char* argv[]) {
  SetLog4cppStatus(1);
  if (am_log_configure(QB_AUDIO_LOG_CONF_FILE) != 0) {
    AM_LOG_ERROR("log configuration %s missing or invalid, logging to standard error",
                 QB_AUDIO_LOG_CONF_FILE);
  }
  AM_LOG_INFO("program:%s startup", (argc > 0 && argv[0] != nullptr) ? argv[0] : "");

  const qb_s32_t board_id = GetModeFromJsonFile2();
  audio_board_id_set(board_id);
  AM_LOG_INFO("audio manager board id :%d", board_id);

  // Without the shutdown thread the signals keep their default action: they still end the daemon.
  if (start_shutdown_thread()) {
    for (const int signo : kTerminationSignals) {
      signal(signo, exit_main);
    }
  }
  AM_LOG_INFO("exec cmd [%s]", kCodecStartCommand);
  if (posix_system(kCodecStartCommand) < 0) {
    AM_LOG_ERROR("exec cmd [%s] fail", kCodecStartCommand);
  }
  audio_unmute_all();
  set_board_routes(board_id);
  {
    std::lock_guard<std::mutex> walking(g_main.init_walk_mutex);
    qb_init_list_start(global_list, kGlobalListRows);
  }
  AM_LOG_INFO("audio manager init done");

  start_detached(qb_cmd_audio_task1, "create qb_cmd_audio_task1 err");
  start_detached(qb_debug_task, "create qb_debug_audio_task err");
  // The init list has run and the request threads are started: the service manager may start
  // the units that wait for the daemon.
  am_notify_ready();

  for (;;) {
    audio_loss_proc();
    sleep(kLossLoopRestartSleepS);
  }
}
