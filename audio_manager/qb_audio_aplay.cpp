// The audio thread manager: three playback workers, three capture workers and the "spdif_task"
// control thread.
#include "qb_audio_aplay.h"

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "am_log.h"
#include "qb_audio_misc.h"
#include "qb_audio_misc_bridge.h"
#include "qb_audio_misc_fpga.h"
#include "qb_audio_misc_spdif.h"
#include "qb_audio_misc_stream.h"

namespace {

// The singleton lives with the stop entries (qb_audio_aplay_ctrl.cpp).
qb_audio_aplay_main_ctrl_t& aplay() { return *qb_audio_aplay_ctrl_get(); }

constexpr size_t kThreadNameSize = 16;
constexpr size_t kAddrSize = 33;  // at most 32 characters of the address, zero-terminated
// An idle worker looks again after this period; also the pause before each capture run.
constexpr unsigned kIdleWaitMs = 1000;
// A playback run starts this long after its input address is known.
constexpr unsigned kPlaybackStartWaitMs = 300;
// The control thread polls the S/PDIF receiver at this period.
constexpr unsigned kControlPollMs = 100;
constexpr int kHdmiCaptureGate = 1;

// One worker: its device, the address getter of its network stream, its channel record and, for
// capture, the selection of its network stream.
struct worker_t {
  const char* device;
  char* (*address)(void);
  int channel;
  int (*selection)(void);
};
constexpr worker_t kPlaybackWorkers[QB_AUDIO_APLAY_WORKERS] = {
    {"hw:1,0", qb_misc_net_stream_in1_ipaddr_get, QB_AUDIO_CHN_NSI1, nullptr},
    {"hw:2,0", qb_misc_net_stream_in3_ipaddr_get, QB_AUDIO_CHN_NSI3, nullptr},
    {"hw:3,0", qb_misc_net_stream_in5_ipaddr_get, QB_AUDIO_CHN_NSI5, nullptr},
};
constexpr worker_t kCaptureWorkers[QB_AUDIO_APLAY_WORKERS] = {
    {"hw:1,0", qb_misc_net_stream_out1_ipaddr_get, QB_AUDIO_CHN_NSO1, qb_net_first_stream_select_get},
    {"hw:2,0", qb_misc_net_stream_out3_ipaddr_get, QB_AUDIO_CHN_NSO3, qb_net_third_stream_select_get},
    {"hw:3,0", qb_misc_net_stream_out5_ipaddr_get, QB_AUDIO_CHN_NSO5, qb_net_second_stream_select_get},
};

long kernel_tid() { return static_cast<long>(syscall(SYS_gettid)); }

bool exiting() { return aplay().exit.load() != 0; }

void exit_set(int on) {
  {
    std::lock_guard<std::mutex> lock(aplay().stop_mutex);
    aplay().exit.store(on);
  }
  aplay().stop_cv.notify_all();
}

// Waits `ms` milliseconds, or less when the module is told to stop.
void wait_unless_stopped(unsigned ms) {
  std::unique_lock<std::mutex> lock(aplay().stop_mutex);
  aplay().stop_cv.wait_for(lock, std::chrono::milliseconds(ms), [] { return exiting(); });
}

void name_thread(const char* fmt, int index) {
  char name[kThreadNameSize];
  snprintf(name, sizeof(name), fmt, index);
  prctl(PR_SET_NAME, name, 0, 0, 0);
}

void copy_address(char* out, const char* address) {
  snprintf(out, kAddrSize, "%s", address != nullptr ? address : "");
}

// Device of capture worker 2: the S/PDIF receiver while the second network stream carries the
// S/PDIF or the ARC input, else the third serial port.
const char* capture2_device() {
  return (is_qb_net_second_stream_select_spdif() || is_qb_net_second_stream_select_arc()) ? "hw:0,0" : "hw:3,0";
}

void* playback_worker(void* arg) {
  const int i = *static_cast<const qb_s32_t*>(arg);
  name_thread("aud_play_%d", i);
  if (i < 0 || i >= QB_AUDIO_APLAY_WORKERS) {
    AM_LOG_ERROR("sel:%d err", i);
    return nullptr;
  }
  const worker_t& w = kPlaybackWorkers[i];
  qb_audio_oper_ctrl_t* ctrl = &aplay().pctrl[i];
  const long tid = kernel_tid();
  AM_LOG_INFO("audio playback %d task thread id %ld,%s,%s!!!!", i, tid, w.device, w.address());
  aplay().ptid[i].store(tid);
  char addr[kAddrSize];
  while (!exiting()) {
    const char* address = w.address();
    if (address == nullptr || address[0] == '\0') {
      wait_unless_stopped(kIdleWaitMs);
      continue;
    }
    wait_unless_stopped(kPlaybackStartWaitMs);
    if (exiting()) {
      break;
    }
    copy_address(addr, address);
    qb_audio_oper_playback(ctrl, w.device, addr);
  }
  AM_LOG_INFO("playback thread %s:%d exit", w.device, i);
  return nullptr;
}

// One pass of a capture worker: an idle wait, or one capture run.
void capture_pass(int i, qb_audio_oper_ctrl_t* ctrl, const char** device, char* addr, long tid) {
  const worker_t& w = kCaptureWorkers[i];
  if (i == 2) {
    *device = capture2_device();
  }
  const char* address = w.address();
  qb_audio_info record{};
  if (i == 1 && is_qb_audio_output_mute_from_ch(QB_AUDIO_CHN_NSO3) == 1) {
    wait_unless_stopped(kIdleWaitMs);
    return;
  }
  qb_audio_channel_state_copy(w.channel, &record);
  aplay().ctid[i].store(tid);
  if (address == nullptr || address[0] == '\0' || record.Audio_On == 0) {
    wait_unless_stopped(kIdleWaitMs);
    const int selection = w.selection();
    if (selection == QB_AUDIO_SRC_HDMI_DOWNMIX && audio_hdmi_streamout() == 0 &&
        audio_hdmi_audio_on() != 0 && audio_hdmi_to_fpga_mute() != 0) {
      input_mute_ctrl(kHdmiCaptureGate, 0);
      wait_unless_stopped(kIdleWaitMs);
    }
    return;
  }
  wait_unless_stopped(kIdleWaitMs);
  if (exiting()) {
    return;
  }
  AM_LOG_INFO("ipaddr=%s AudioOn=%d", address, record.Audio_On);
  AM_LOG_INFO("audio capture idx=[%d] task thread id %ld [%s] ip:[%s]!!!!", i, tid, *device, address);
  copy_address(addr, address);
  qb_audio_oper_capture(ctrl, *device, addr);
}

void* capture_worker(void* arg) {
  const int i = *static_cast<const qb_s32_t*>(arg);
  name_thread("aud_capture_%d", i);
  const long tid = kernel_tid();
  AM_LOG_INFO("audio capture %d task thread id %ld!!!!", i, tid);
  if (i < 0 || i >= QB_AUDIO_APLAY_WORKERS) {
    AM_LOG_ERROR("sel:%d err", i);
    return nullptr;
  }
  qb_audio_oper_ctrl_t* ctrl = &aplay().cctrl[i];
  const char* device = kCaptureWorkers[i].device;
  char addr[kAddrSize] = {};
  while (!exiting()) {
    capture_pass(i, ctrl, &device, addr, tid);
  }
  AM_LOG_INFO("audio capture idx[%d] task thread id %ld,[%s],ip:[%s] exit", i, tid, device, addr);
  return nullptr;
}

void spdif_restart(int selection) {
  qb_audio_info info{};
  qb_misc_audio_spdif_info_copy(&info);
  qb_audio_channel_state_set(QB_AUDIO_CHN_SPDIF, &info);
  if (selection == QB_AUDIO_SRC_SPDIF) {
    qb_audio_net_stream_out5_start(QB_AUDIO_CHN_SPDIF);
    AM_LOG_INFO("%s,capture spdif restart:%d", "qb_audio_aplay_spdif", selection);
  } else {
    qb_audio_net_stream_out5_start(QB_AUDIO_CHN_EARC);
    AM_LOG_INFO("%s,capture arc restart:%d", "qb_audio_aplay_spdif", selection);
  }
}

void* control_thread(void*) {
  prctl(PR_SET_NAME, "spdif_task", 0, 0, 0);
  const long tid = kernel_tid();
  AM_LOG_INFO("aplay1 task thread id %ld!!!!", tid);
  aplay().tid.store(tid);
  while (!exiting()) {
    if (is_qb_misc_nxp_spdif_register_info_change() == 1) {
      const int selection = qb_net_second_stream_select_get();
      if (selection == QB_AUDIO_SRC_SPDIF || selection == QB_AUDIO_SRC_EARC) {
        spdif_restart(selection);
      }
    }
    wait_unless_stopped(kControlPollMs);
  }
  AM_LOG_INFO("audio aplay ctrl thread exit");
  return nullptr;
}

void reset_singleton() {
  aplay().tid.store(0);
  exit_set(0);
  aplay().init.store(0);
  aplay().ptids_created = false;
  for (int i = 0; i < QB_AUDIO_APLAY_WORKERS; ++i) {
    qb_audio_oper_default(&aplay().pctrl[i]);
    qb_audio_oper_default(&aplay().cctrl[i]);
    qb_audio_oper_publish(&aplay().pctrl[i]);
    qb_audio_oper_publish(&aplay().cctrl[i]);
    aplay().ptid[i].store(0);
    aplay().ctid[i].store(0);
    aplay().pidx[i] = i;
    aplay().cidx[i] = i;
    aplay().ptidp_created[i] = false;
    aplay().ctidp_created[i] = false;
  }
}

// "pid:%ld" and the engine record of each of the three engines of one kind.
void dump_blocks(FILE* file, const std::atomic<long>* tids, qb_audio_oper_ctrl_t* ctrls) {
  for (int i = 0; i < QB_AUDIO_APLAY_WORKERS; ++i) {
    fprintf(file, "pid:%ld\n", tids[i].load());
    dump_audio_ctrl1(&ctrls[i], file);
  }
}

// A dump: the title, the capture blocks and the playback blocks asked for, then an empty line.
void dump_engines(FILE* file, const char* title, bool capture, bool playback) {
  if (file == nullptr) {
    return;
  }
  fputs(title, file);
  if (capture) {
    dump_blocks(file, aplay().ctid, aplay().cctrl);
  }
  if (playback) {
    dump_blocks(file, aplay().ptid, aplay().pctrl);
  }
  fputs("\n", file);
}

// The workers of one kind: their handles, creation marks and arguments.
struct worker_kind_t {
  pthread_t* threads;
  bool* created;
  qb_s32_t* args;
  void* (*entry)(void*);
  const char* name;  // in the creation failure line
};
worker_kind_t playback_kind() {
  return {aplay().ptidp, aplay().ptidp_created, aplay().pidx, playback_worker, " audio play"};
}
worker_kind_t capture_kind() {
  return {aplay().ctidp, aplay().ctidp_created, aplay().cidx, capture_worker, "capture"};
}

int start_workers(const worker_kind_t& kind) {
  for (int i = 0; i < QB_AUDIO_APLAY_WORKERS; ++i) {
    if (pthread_create(&kind.threads[i], nullptr, kind.entry, &kind.args[i]) != 0) {
      AM_LOG_ERROR("%s-%d thread create fail", kind.name, i);
      return 0;
    }
    kind.created[i] = true;
  }
  return 1;
}

int join_workers(const worker_kind_t& kind) {
  for (int i = 0; i < QB_AUDIO_APLAY_WORKERS; ++i) {
    if (kind.created[i]) {
      pthread_join(kind.threads[i], nullptr);
      kind.created[i] = false;
    }
  }
  return 1;
}

}  // namespace

int qb_audio_aplay_playback_init() { return start_workers(playback_kind()); }
int qb_audio_aplay_capture_init() { return start_workers(capture_kind()); }
int qb_audio_aplay_playback_uninit() { return join_workers(playback_kind()); }
int qb_audio_aplay_capture_uninit() { return join_workers(capture_kind()); }

int qb_audio_aplay_init() {
  reset_singleton();
  qb_audio_oper_shutdown_set(0);
  AM_LOG_INFO("audio aplay init");
  exit_set(0);
  if (pthread_create(&aplay().ptids, nullptr, control_thread, nullptr) != 0) {
    AM_LOG_ERROR("aplay1 thread create fail");
    return 0;
  }
  aplay().ptids_created = true;
  qb_audio_aplay_playback_init();
  qb_audio_aplay_capture_init();
  aplay().init.store(1);
  return 1;
}

int qb_audio_aplay_uninit() {
  if (aplay().init.load() == 0) {
    return 0;
  }
  exit_set(1);
  aplay().init.store(0);
  // A run that starts after this point resets its own stop flag: the engine-wide stop ends it too.
  qb_audio_oper_shutdown_set(1);
  for (int i = 0; i < QB_AUDIO_APLAY_WORKERS; ++i) {
    qb_audio_oper_abort(&aplay().pctrl[i]);
    qb_audio_oper_abort(&aplay().cctrl[i]);
  }
  if (aplay().ptids_created) {
    pthread_join(aplay().ptids, nullptr);
    aplay().ptids_created = false;
  }
  qb_audio_aplay_capture_uninit();
  qb_audio_aplay_playback_uninit();
  qb_audio_oper_shutdown_set(0);
  return 1;
}

void dump_capture_param(FILE* file) { dump_engines(file, "dump capture param begin\n", true, false); }
void dump_playback_param(FILE* file) { dump_engines(file, "dump playback param begin\n", false, true); }
void dump_aplay_param(FILE* file) { dump_engines(file, "dump aplay param begin\n", true, true); }
