// Inside the command handlers only: bounded reads of a command payload into its record, the port
// names of the command logs, and the eARC-input ARC-only flag shared by the output control and
// stream selection commands.
#pragma once

#include <cstring>
#include <type_traits>

#include "qb_types.h"

// Copies the payload into rec when it is exactly the record's size. False otherwise (rec
// untouched).
template <typename T>
bool qb_payload_read_exact(const void* buf, int len, T* rec) {
  static_assert(std::is_trivially_copyable<T>::value, "payload records are plain bytes");
  if (buf == nullptr || len != static_cast<int>(sizeof(T))) {
    return false;
  }
  std::memcpy(rec, buf, sizeof(T));
  return true;
}

// Copies the first sizeof(T) payload bytes into rec when the payload holds at least that many.
template <typename T>
bool qb_payload_read_prefix(const void* buf, int len, T* rec) {
  static_assert(std::is_trivially_copyable<T>::value, "payload records are plain bytes");
  if (buf == nullptr || len < static_cast<int>(sizeof(T))) {
    return false;
  }
  std::memcpy(rec, buf, sizeof(T));
  return true;
}

// Copies as many payload bytes as the record holds, or fewer when the payload is shorter; the rest
// of rec is zero. True when the payload is exactly the record's size.
template <typename T>
bool qb_payload_read_partial(const void* buf, int len, T* rec) {
  static_assert(std::is_trivially_copyable<T>::value, "payload records are plain bytes");
  std::memset(rec, 0, sizeof(T));
  if (buf == nullptr || len <= 0) {
    return false;
  }
  const size_t n = static_cast<size_t>(len) < sizeof(T) ? static_cast<size_t>(len) : sizeof(T);
  std::memcpy(rec, buf, n);
  return len == static_cast<int>(sizeof(T));
}

// Name of an output port or source number in command logs: "analog", "hdmi", "spdif", "earc",
// "stream", "dsp" for 0-5, "unknown" for anything else.
const char* qb_audio_output_port_name(qb_u32_t ch);

// The last onlyArc of the eARC-input ARC-only command (0 at start).
void qb_audio_input_earc_onlyarc_store(qb_s32_t only_arc);
qb_s32_t qb_audio_input_earc_onlyarc_get(void);
