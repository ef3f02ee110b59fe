// Xrun recovery and the buffer-level clock steering of a playback engine.
#include <sys/time.h>

#include <cstring>
#include <ctime>

#include "am_log.h"
#include "qb_audio_buf.h"
#include "qb_audio_oper.h"
#include "qb_audio_oper_playback.h"
#include "qb_si5351.h"

namespace {

// A latency sample is taken once more than this many chunks were written since the last one.
constexpr unsigned kSteerSampleChunks = 201;
// The clock state is evaluated once this many samples exist.
constexpr qb_u64_t kSteerEvaluateSamples = 10;
// The one-time return to nominal is considered once more than this many samples exist.
constexpr qb_u64_t kSteerResetSamples = 4;

constexpr const char* kMclkStateNames[] = {"check", "decrease", "increase", "reset"};

double timespec_diff_ms(const struct timespec& later, const struct timespec& earlier) {
  return static_cast<double>(later.tv_sec - earlier.tv_sec) * 1000.0 +
         static_cast<double>(later.tv_nsec - earlier.tv_nsec) / 1000000.0;
}

bool is_playback(const qb_audio_oper_ctrl_t* ctrl) { return ctrl->pcm.stream == SND_PCM_STREAM_PLAYBACK; }

void status_dump(qb_audio_oper_ctrl_t* ctrl, snd_pcm_status_t* status, const char* title) {
  if (!ctrl->pcm.verbose) {
    return;
  }
  fputs(title, stderr);
  if (ctrl->pcm.log != nullptr) {
    snd_pcm_status_dump(status, ctrl->pcm.log);
  }
}

void log_xrun_duration(qb_audio_oper_ctrl_t* ctrl, snd_pcm_status_t* status) {
  const bool play = is_playback(ctrl);
  if (ctrl->pcm.monotonic) {
    struct timespec now;
    snd_htimestamp_t trigger;  // a timespec
    clock_gettime(CLOCK_MONOTONIC, &now);
    snd_pcm_status_get_trigger_htstamp(status, &trigger);
    AM_LOG_ERROR("%s -- %s!!! (at least %.3f ms long)", ctrl->pcm_name, play ? "uNderrun" : "oVerrun",
                 timespec_diff_ms(now, trigger));
    const struct timespec& start = play ? ctrl->loss.tsStartPlay : ctrl->loss.tsStartCapture;
    const unsigned chunks = play ? ctrl->loss.chunkCountPlay : ctrl->loss.chunkCountCapture;
    const double since_start = timespec_diff_ms(trigger, start);
    AM_LOG_ERROR("%lu millseconds past from start to xrun trigger, chunk counts:%u, latencyCnt:%lu",
                 static_cast<unsigned long>(since_start < 0 ? 0 : since_start), chunks,
                 static_cast<unsigned long>(ctrl->steer.latencyCnt));
    return;
  }
  struct timeval now;
  struct timeval trigger;
  gettimeofday(&now, nullptr);
  snd_pcm_status_get_trigger_tstamp(status, &trigger);
  const double ms = static_cast<double>(now.tv_sec - trigger.tv_sec) * 1000.0 +
                    static_cast<double>(now.tv_usec - trigger.tv_usec) / 1000.0;
  AM_LOG_ERROR("%s!!! (at least %.3f ms long)", play ? "undErrun" : "ovErrun", ms);
}

int prepare_after(qb_audio_oper_ctrl_t* ctrl, const char* fail_fmt) {
  const int err = snd_pcm_prepare(ctrl->pcm.handle);
  if (err < 0) {
    am_log_write(AM_LOG_LEVEL_ERROR, fail_fmt, snd_strerror(err), AM_LOG_FILE, static_cast<unsigned>(__LINE__));
    return -1;
  }
  return 0;
}

}  // namespace

const char* get_mclk_status(MCLK_STATE_E state) {
  const int i = static_cast<int>(state);
  if (i < 0 || i > static_cast<int>(MCLK_STATE_RESET)) {
    return "unknown";
  }
  return kMclkStateNames[i];
}

void printf_status_xrun(qb_audio_oper_ctrl_t* ctrl) {
  if (ctrl == nullptr || ctrl->pcm.handle == nullptr) {
    return;
  }
  const snd_pcm_sframes_t update = snd_pcm_avail_update(ctrl->pcm.handle);
  const snd_pcm_sframes_t avail = snd_pcm_avail(ctrl->pcm.handle);
  snd_pcm_sframes_t dev_avail = 0;
  snd_pcm_sframes_t dev_delay = 0;
  if (snd_pcm_avail_delay(ctrl->pcm.handle, &dev_avail, &dev_delay) < 0) {
    dev_avail = 0;
    dev_delay = 0;
  }
  AM_LOG_INFO("xrun audio status Update=<%ld> Avail=<%ld>, <%ld>frames in ring buffer, total io latency<%ld>frames",
              update, avail, dev_avail, dev_delay);
}

int xrun(qb_audio_oper_ctrl_t* ctrl) {
  snd_pcm_status_t* status = nullptr;
  snd_pcm_status_alloca(&status);
  int err = snd_pcm_status(ctrl->pcm.handle, status);
  if (err < 0) {
    AM_LOG_ERROR("status error: %s", snd_strerror(err));
    return -1;
  }
  printf_status_xrun(ctrl);
  const snd_pcm_state_t state = snd_pcm_status_get_state(status);
  if (state == SND_PCM_STATE_XRUN) {
    if (ctrl->pcm.fatal_errors) {
      AM_LOG_ERROR("fatal %s: %s", is_playback(ctrl) ? "Underrun" : "Overrun", snd_strerror(-EPIPE));
      return -1;
    }
    log_xrun_duration(ctrl, status);
    status_dump(ctrl, status, "Status:\n");
    if (prepare_after(ctrl, "xrun: prepare error: %s --[%s:%u]") < 0) {
      return -1;
    }
    AM_LOG_INFO("after xrun, alsa status : %d", static_cast<int>(snd_pcm_state(ctrl->pcm.handle)));
    return 0;
  }
  if (state == SND_PCM_STATE_DRAINING) {
    status_dump(ctrl, status, "Status(DRAINING):\n");
    if (!is_playback(ctrl)) {
      AM_LOG_INFO("capture stream format change? attempting recover...");
      return prepare_after(ctrl, "xrun(DRAINING): prepare error: %s --[%s:%u]");
    }
  }
  status_dump(ctrl, status, "Status(R/W):\n");
  AM_LOG_ERROR("read/write error, state = %s", snd_pcm_state_name(state));
  return -1;
}

void check_alsa_buffer_status(qb_audio_oper_ctrl_t* ctrl) {
  if (ctrl->steer.latencyCnt == 0) {
    return;
  }
  const qb_u64_t avg = ctrl->steer.sumLatency / ctrl->steer.latencyCnt;
  ctrl->steer.lastAdjustAvg = avg;
  MCLK_STATE_E next = MCLK_STATE_RESET;
  if (avg >= static_cast<qb_u64_t>(ctrl->steer.incStopNum)) {
    next = MCLK_STATE_INC;
  } else if (avg <= static_cast<qb_u64_t>(ctrl->steer.decStopNum)) {
    next = MCLK_STATE_DEC;
  }
  if (next != ctrl->steer.mclkState) {
    AM_LOG_INFO("mclk ch:%d status switch %s to %s, avgVal:%lu", ctrl->file_param_num,
                get_mclk_status(ctrl->steer.mclkState), get_mclk_status(next), static_cast<unsigned long>(avg));
    ctrl->steer.mclkState = next;
  }
}

void check_5351_status(qb_audio_oper_ctrl_t* ctrl) {
  switch (ctrl->steer.mclkState) {
    case MCLK_STATE_INC:
      set_increase(ctrl->steer.clifd, ctrl->file_param_num);
      break;
    case MCLK_STATE_RESET:
      set_reset(ctrl->steer.clifd, ctrl->file_param_num);
      break;
    case MCLK_STATE_DEC:
      set_decrease(ctrl->steer.clifd, ctrl->file_param_num);
      break;
    case MCLK_STATE_CHECK:
    default:
      break;
  }
}

// ---------------------------------------------------------------------------------------------
// Sampling cadence of the receiver
// ---------------------------------------------------------------------------------------------

void playback_latency_add_sample(qb_audio_oper_ctrl_t* ctrl, snd_pcm_sframes_t delay, int ring_chunks) {
  const snd_pcm_sframes_t parked =
      static_cast<snd_pcm_sframes_t>(ring_chunks) * static_cast<snd_pcm_sframes_t>(ctrl->pcm.chunk_size);
  const qb_u64_t sample = static_cast<qb_u64_t>((delay < 0 ? 0 : delay) + parked);
  ctrl->steer.sumLatency += sample;
  if (ctrl->steer.arrChunkNum != nullptr) {
    ctrl->steer.arrChunkNum[ctrl->steer.latencyCnt % QB_AUDIO_LATENCY_HISTORY] = static_cast<size_t>(sample);
  }
  ctrl->steer.latencyCnt += 1;
  if (delay < static_cast<snd_pcm_sframes_t>(4 * ctrl->pcm.chunk_size)) {
    AM_LOG_WARN("ch:%d, sndDelay=%ld bufSize=%d", ctrl->file_param_num, delay, ring_chunks);
  }
}

namespace {

// Samples the device (or logs why not) and restarts both counters.
void playback_steer_sample(qb_audio_oper_ctrl_t* ctrl, playback_steer_t* steer) {
  snd_pcm_sframes_t avail = 0;
  snd_pcm_sframes_t delay = 0;
  if (ctrl->pcm.handle == nullptr || snd_pcm_avail_delay(ctrl->pcm.handle, &avail, &delay) < 0) {
    AM_LOG_ERROR("snd_pcm_avail_delay err");
  } else {
    const int ring = ctrl->pAudBuf != nullptr ? ctrl->pAudBuf->get_buf_size() : 0;
    playback_latency_add_sample(ctrl, delay, ring);
  }
  steer->recv_calls = 0;
  steer->written_chunks = 0;
}

}  // namespace

void playback_steer_pass(qb_audio_oper_ctrl_t* ctrl, playback_steer_t* steer) {
  bool evaluated = false;
  if (steer->written_chunks >= kSteerSampleChunks) {
    playback_steer_sample(ctrl, steer);
  } else if (steer->written_chunks > 0 && ctrl->steer.latencyCnt >= kSteerEvaluateSamples) {
    check_alsa_buffer_status(ctrl);
    check_5351_status(ctrl);
    ctrl->steer.sumLatency = 0;
    ctrl->steer.latencyCnt = 0;
    steer->reset_sent = false;
    evaluated = true;
  }
  if (!evaluated && !steer->reset_sent && ctrl->steer.latencyCnt > kSteerResetSamples) {
    steer->reset_sent = true;
    if (ctrl->steer.mclkState == MCLK_STATE_RESET) {
      set_reset(ctrl->steer.clifd, ctrl->file_param_num);
    }
  }
}
