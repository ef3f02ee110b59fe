// Pieces of the network-to-playback receiver, exposed so that the header, continuity, realignment
// and parking logic can be driven without a network or a sound card.
#pragma once

#include <cstddef>

#include "qb_audio_oper.h"

// What became of one datagram.
enum playback_rx_e {
  PLAYBACK_RX_APPENDED = 0,  // payload (and any bridged silence) appended to audiobuf
  PLAYBACK_RX_DROPPED,       // malformed or no room: skipped, playback goes on
  PLAYBACK_RX_ABORT,         // the run must end (large gap, or the handler ended it)
};

// Clock-steering counters of one playback run.
struct playback_steer_t {
  unsigned recv_calls;      // receive calls since the last latency sample
  unsigned written_chunks;  // chunks written since the last latency sample
  bool reset_sent;          // the one-time reset was considered since the last evaluation
};
// Adds one latency sample (device delay plus the chunks parked in the ring).
void playback_latency_add_sample(qb_audio_oper_ctrl_t* ctrl, snd_pcm_sframes_t delay, int ring_chunks);
// The steering step at the end of each loop pass: sample, evaluate, or the one-time reset.
void playback_steer_pass(qb_audio_oper_ctrl_t* ctrl, playback_steer_t* steer);

// Writes frames to the device: frames written, 0 when it would block, -1 on a fatal error.
typedef snd_pcm_sframes_t (*playback_write_fn)(qb_audio_oper_ctrl_t* ctrl, qb_u8_t* data, size_t frames);

// One datagram of len bytes: length checks, change detection (running the handler), continuity
// with loss bridging, append to audiobuf.
playback_rx_e playback_handle_datagram(qb_audio_oper_ctrl_t* ctrl, const qb_u8_t* dgram, size_t len);
// Drops the bytes in front of the first channel-0 sample of 32-bit streams of more than two
// channels. Bytes dropped.
size_t playback_realign(qb_audio_oper_ctrl_t* ctrl);
// Bytes of room audiobuf must keep before another receive call: a full batch plus the largest
// bridged gap, so that a backlog is never appended past its end (the rest is read in the next pass).
inline size_t playback_rx_room_needed(size_t messages) {
  return messages * QB_AUDIO_RX_SLOT_SIZE + QB_AUDIO_MAX_BRIDGED_LOSS;
}
// Drains the ring into the device, then writes or parks the whole chunks of audiobuf. Returns the
// number of chunks written to the device; sets in_aborting when the ring overflows.
unsigned playback_move_chunks(qb_audio_oper_ctrl_t* ctrl, playback_write_fn write);
