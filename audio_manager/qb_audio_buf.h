// The packet ring of a playback engine: a fixed ring of equally sized byte slots, each holding one
// PCM chunk that the device could not take at once. One thread writes and reads a ring; only the
// hand-out of a slot to the reader takes the read mutex, and only by try-lock. All storage is
// allocated at construction: pushes and pops never allocate.
#pragma once

#include <pthread.h>

#include <cstddef>

typedef struct AUD_BUF_T {
  char* buf;      // slot storage, buf_size bytes
  int buf_size;   // capacity in bytes
  int data_size;  // bytes stored by the last push
  int ref;        // 1 while handed out to the reader and not yet released
} AUD_BUF_T;

class CAudioBuf {
 public:
  CAudioBuf(int size, int count);
  ~CAudioBuf();
  CAudioBuf(const CAudioBuf&) = delete;
  CAudioBuf& operator=(const CAudioBuf&) = delete;

  // Number of stored chunks.
  int get_buf_size() const;
  // 1 when one more push would overwrite the oldest chunk.
  int buf_is_full() const;
  // Stores one chunk; 0 (also for null data or size <= 0, which store nothing), -1 when full or
  // when the chunk is larger than a slot.
  int push_data(const char* data, int size);
  // Hands out the oldest chunk for reading (the read index does not move), or null.
  AUD_BUF_T* get_buf_data();
  // Releases the slot at the read index after it was consumed and advances the read index.
  int push_buf_free(AUD_BUF_T* slot);
  // Gives a handed-out slot back unconsumed.
  int reset_buf_status(AUD_BUF_T* slot);

  // Whether construction got all its storage.
  bool is_valid() const { return m_arrBuf != nullptr; }
  size_t slot_count() const { return m_s32Count; }

 private:
  pthread_mutex_t m_muxRead;  // held only while a slot is handed to the reader
  AUD_BUF_T** m_arrBuf = nullptr;
  int m_s32RIdx = 0;
  int m_s32WIdx = 0;
  size_t m_s32Size = 0;
  size_t m_s32Count = 0;
};
