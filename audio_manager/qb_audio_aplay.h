// The audio thread manager: three playback workers (network input stream to a local ALSA device),
// three capture workers (local ALSA device to network output stream) and the "spdif_task" control
// thread that restarts network output 5 when the S/PDIF receiver reports a new format. A worker runs
// one engine run at a time and starts a new one when it ends; other modules end a run by setting the
// engine's stop flag, which is how a new address, source or format takes effect.
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include "qb_audio_oper.h"
#include "qb_types.h"

// Number of workers of each kind.
inline constexpr int QB_AUDIO_APLAY_WORKERS = 3;

typedef struct qb_audio_aplay_main_ctrl_t {
  pthread_t ptids;                // the control thread
  std::atomic<long> tid;          // its kernel thread id
  std::atomic<qb_s32_t> exit;     // 1 tells every thread of the module to finish
  std::atomic<qb_s32_t> init;     // 1 after a successful start, 0 after stop
  qb_audio_oper_ctrl_t pctrl[QB_AUDIO_APLAY_WORKERS];  // playback engine records
  pthread_t ptidp[QB_AUDIO_APLAY_WORKERS];             // playback workers
  std::atomic<long> ptid[QB_AUDIO_APLAY_WORKERS];      // their kernel thread ids
  qb_s32_t pidx[QB_AUDIO_APLAY_WORKERS];               // 0, 1, 2: argument of each playback worker
  qb_audio_oper_ctrl_t cctrl[QB_AUDIO_APLAY_WORKERS];  // capture engine records
  pthread_t ctidp[QB_AUDIO_APLAY_WORKERS];             // capture workers
  std::atomic<long> ctid[QB_AUDIO_APLAY_WORKERS];      // their kernel thread ids
  qb_s32_t cidx[QB_AUDIO_APLAY_WORKERS];               // 0, 1, 2: argument of each capture worker
  bool ptids_created;                                  // which threads exist and must be joined
  bool ptidp_created[QB_AUDIO_APLAY_WORKERS];
  bool ctidp_created[QB_AUDIO_APLAY_WORKERS];
  // `exit` is set under stop_mutex and announced on stop_cv, so that a thread in one of its idle
  // waits wakes at once.
  std::mutex stop_mutex;
  std::condition_variable stop_cv;
} qb_audio_aplay_main_ctrl_t;

// Init-list entries: start every thread (1, or 0 when the control thread cannot be created), and
// stop them all (1, or 0 when the module was not started).
int qb_audio_aplay_init();
int qb_audio_aplay_uninit();

// Start and join the workers of one kind (1, or 0 when a worker could not be created).
int qb_audio_aplay_playback_init();
int qb_audio_aplay_capture_init();
int qb_audio_aplay_playback_uninit();
int qb_audio_aplay_capture_uninit();

// End the current capture run of network output 1, 3 or 5; the worker starts a new run with the
// current address and device.
void qb_audio_aplay_in_abort_capture1();
void qb_audio_aplay_in_abort_capture3();
void qb_audio_aplay_in_abort_capture5();

// A network input's address or expected format changed (channel ids 6, 7, 8): end that input's
// playback run, reset the channel's status bytes and mark its record invalid. Other ids are ignored.
void qb_audio_aplay_info_change_set(int channel_id);

// Status dumps of the engine records (nothing is written for a null file).
void dump_aplay_param(FILE* file);
void dump_capture_param(FILE* file);
void dump_playback_param(FILE* file);

// The module's singleton (read-only use: tests and dumps).
qb_audio_aplay_main_ctrl_t* qb_audio_aplay_ctrl_get();
