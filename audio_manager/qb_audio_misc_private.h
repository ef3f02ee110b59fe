// Inside the routing module only: the singleton, the locks that guard its records, and atomic
// access to its single words.
#pragma once

#include <mutex>

#include "qb_audio_misc.h"
#include "qb_types.h"

// The routing singleton.
qb_audio_misc_main_ctrl_t& qb_audio_misc_ctrl();

// Guards the thirteen channel records with their status flags, and spdif_mreg.ainfo: every copy
// of a whole record in or out of them is made under this lock.
std::mutex& qb_audio_misc_channel_lock();
// Guards the address and device-id texts (ipaddr).
std::mutex& qb_audio_misc_ipaddr_lock();

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

// Clears the routing singleton and sets its defaults; qb_audio_misc_init adds the S/PDIF
// receiver's mapping.
void qb_audio_misc_state_reset(void);

// S/PDIF receiver mapping, made by qb_audio_misc_init and released by qb_audio_misc_uninit.
void qb_misc_nxp_spdif_register_map_init();
void qb_misc_nxp_spdif_register_map_uninit();
