// The receiver's latency sampling cadence and the clock-steering decisions built on it.
#pragma once

#include "qb_audio_oper.h"

// A latency sample is taken once more than this many chunks were written since the last one.
inline constexpr unsigned kSteerSampleChunks = 201;
// The clock state is evaluated once this many samples exist.
inline constexpr qb_u64_t kSteerEvaluateSamples = 10;
// The one-time return to nominal is considered once more than this many samples exist.
inline constexpr qb_u64_t kSteerResetSamples = 4;

// Counters of one playback run.
struct playback_steer_t {
  unsigned recv_calls;      // receive calls since the last latency sample
  unsigned written_chunks;  // chunks written since the last latency sample
  bool reset_sent;          // the one-time reset was considered since the last evaluation
};

// Adds one latency sample (device delay plus the chunks parked in the ring).
void playback_latency_add_sample(qb_audio_oper_ctrl_t* ctrl, snd_pcm_sframes_t delay, int ring_chunks);
// The steering step at the end of each loop pass: sample, evaluate, or the one-time reset.
void playback_steer_pass(qb_audio_oper_ctrl_t* ctrl, playback_steer_t* steer);
