// Inside the command module only: bounded reads of a command payload into its record, the port
// names of the command logs, and the command module's state.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstring>
#include <type_traits>

#include "qb_audio_protocol.h"
#include "qb_types.h"

// How a payload must fit its record: exactly its size; at least its size (read for the first
// sizeof(T) bytes); or any length, copied as far as it goes with the rest of the record zero.
enum qb_payload_fit_e { QB_PAYLOAD_EXACT, QB_PAYLOAD_PREFIX, QB_PAYLOAD_PARTIAL };

// Copies the payload into rec as `fit` allows. True when it fits (for QB_PAYLOAD_PARTIAL: when it
// is exactly the record's size); otherwise rec is untouched, except that QB_PAYLOAD_PARTIAL
// always fills it.
template <typename T>
bool qb_payload_read(const void* buf, int len, T* rec, qb_payload_fit_e fit = QB_PAYLOAD_EXACT) {
  static_assert(std::is_trivially_copyable<T>::value, "payload records are plain bytes");
  const int size = static_cast<int>(sizeof(T));
  const bool fits = fit == QB_PAYLOAD_PREFIX ? len >= size : len == size;
  if (fit == QB_PAYLOAD_PARTIAL) {
    std::memset(rec, 0, sizeof(T));
  }
  if (buf == nullptr || len <= 0 || (!fits && fit != QB_PAYLOAD_PARTIAL)) {
    return false;
  }
  std::memcpy(rec, buf, static_cast<size_t>(std::min(len, size)));
  return fits;
}

// Name of an output port or source number in command logs: "analog", "hdmi", "spdif", "earc",
// "stream", "dsp" for 0-5, "unknown" for anything else.
const char* qb_audio_output_port_name(qb_u32_t ch);

// Number of network output streams (streamID 0-2).
inline constexpr int QB_AUDIO_NET_OUTPUTS = 3;

// The command module's state. The handlers run on the command thread; the analog volume is also
// read by the playback workers.
struct qb_audio_cmd_module_t {
  std::atomic<qb_s32_t> g_stAnalogVolume{0};  // last passed to the codec program
  qb_s32_t g_stAudInputEarcOnlyarc = 0;       // the last onlyArc of the eARC-input ARC-only command
  // The last output-stream request applied for each network output, indexed by streamID.
  qb_audio_output_stream_t g_stAudStream[QB_AUDIO_NET_OUTPUTS] = {};
};
qb_audio_cmd_module_t& qb_audio_cmd_module();
