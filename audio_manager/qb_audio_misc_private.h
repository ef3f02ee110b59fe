// Inside the routing module only: its record (the singleton, the locks that guard it and the
// module's other state) and atomic access to single words.
#pragma once

#include <atomic>
#include <mutex>

#include "qb_audio_misc.h"

// Streams with an input and an output address (stream ids 0-2).
inline constexpr int QB_NET_STREAM_COUNT = 3;
// Pause after each line of the status dump so a reader of the dump file keeps up.
inline constexpr unsigned QB_MISC_DUMP_PAUSE_US = 2000;
// Wait for an EDID file that is not there yet, unless a test set another.
inline constexpr int QB_EDID_WAIT_DEFAULT_MS = 200;

struct qb_audio_misc_module_t {
  qb_audio_misc_main_ctrl_t ctrl;
  // Guards the thirteen channel records with their status flags, and spdif_mreg.ainfo: every copy
  // of a whole record in or out of them is made under this lock.
  std::mutex channel_lock;
  // Guards the address and device-id texts (ctrl.ipaddr) and the address snapshots below.
  std::mutex ipaddr_lock;
  // Serialises the read-modify-writes of the FPGA output-enable registers.
  std::mutex enable_lock;
  // Whether spdif_mreg's fd and map_base are live; they keep their values after the stop (the
  // status dump shows them).
  std::atomic<bool> spdif_mapped{false};
  std::atomic<int> edid_wait_ms{QB_EDID_WAIT_DEFAULT_MS};
  // What the numbered address getters hand out, per stream id: written under ipaddr_lock by the
  // getter; each is read by one thread, the worker of its stream.
  char in_ipaddr_snapshot[QB_NET_STREAM_COUNT][QB_NET_IPADDR_SIZE];
  char out_ipaddr_snapshot[QB_NET_STREAM_COUNT][QB_NET_IPADDR_SIZE];
};

qb_audio_misc_module_t& qb_audio_misc_module();
inline qb_audio_misc_main_ctrl_t& qb_audio_misc_ctrl() { return qb_audio_misc_module().ctrl; }

// Single words of the singleton (selections, flags, stream ids) are read and written atomically.
template <typename T>
inline T misc_word_get(const T& word) {
  return __atomic_load_n(&word, __ATOMIC_RELAXED);
}
template <typename T>
inline void misc_word_set(T& word, T value) {
  __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}

// Copies channel src's record into channel dst (no status change, no log). 1, or 0 for an
// invalid id.
int qb_audio_channel_state_copy_chn(int dst, int src);
// Copies a record into a channel without touching its status flag or logging. 1, or 0.
int qb_audio_channel_state_store(int ch, const qb_audio_info* info);

// Hz of a sample-frequency code the PCM devices take (44.1 to 192 kHz); false for any other code,
// hz untouched.
bool misc_playable_hz(int code, int* hz);

// Clears the routing singleton and sets its defaults; qb_audio_misc_init adds the S/PDIF
// receiver's mapping.
void qb_audio_misc_state_reset(void);
