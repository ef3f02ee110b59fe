// The packet ring of a playback engine.
#include "qb_audio_buf.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "am_log.h"

namespace {

// Frees the storage and the record of every allocated slot of a ring array, and the array.
void free_slots(AUD_BUF_T** slots, size_t count) {
  for (size_t i = 0; slots != nullptr && i < count; ++i) {
    if (slots[i] != nullptr) {
      free(slots[i]->buf);
      free(slots[i]);
    }
  }
  free(slots);
}

}  // namespace

CAudioBuf::CAudioBuf(int size, int count) {
  pthread_mutex_init(&m_muxRead, nullptr);
  if (size <= 0 || count <= 0) {
    return;
  }
  m_arrBuf = static_cast<AUD_BUF_T**>(calloc(static_cast<size_t>(count), sizeof(AUD_BUF_T*)));
  for (int i = 0; m_arrBuf != nullptr && i < count; ++i) {
    m_arrBuf[i] = static_cast<AUD_BUF_T*>(calloc(1, sizeof(AUD_BUF_T)));
    char* storage = static_cast<char*>(calloc(1, static_cast<size_t>(size)));
    if (m_arrBuf[i] == nullptr || storage == nullptr) {
      free(storage);
      free_slots(m_arrBuf, static_cast<size_t>(i) + 1);  // a ring without all its storage is none
      m_arrBuf = nullptr;
      return;
    }
    m_arrBuf[i]->buf = storage;
    m_arrBuf[i]->buf_size = size;
  }
  if (m_arrBuf != nullptr) {
    m_s32Size = static_cast<size_t>(size);
    m_s32Count = static_cast<size_t>(count);
  }
}

CAudioBuf::~CAudioBuf() {
  free_slots(m_arrBuf, m_s32Count);
  m_arrBuf = nullptr;
  m_s32RIdx = 0;
  m_s32WIdx = 0;
  m_s32Size = 0;
  m_s32Count = 0;
  pthread_mutex_destroy(&m_muxRead);
}

int CAudioBuf::get_buf_size() const {
  const int used = m_s32WIdx - m_s32RIdx;
  return used >= 0 ? used : static_cast<int>(m_s32Count) + used;
}

int CAudioBuf::buf_is_full() const {
  if (m_s32Count == 0) {
    return 1;
  }
  return (static_cast<size_t>(m_s32WIdx) + 1) % m_s32Count == static_cast<size_t>(m_s32RIdx) ? 1 : 0;
}

int CAudioBuf::push_data(const char* data, int size) {
  if (data == nullptr || size <= 0) {
    return 0;
  }
  if (buf_is_full()) {
    AM_LOG_ERROR("buff is full, widx:%d ridx:%d", m_s32WIdx, m_s32RIdx);
    return -1;
  }
  AUD_BUF_T* slot = m_arrBuf[m_s32WIdx];
  if (size > slot->buf_size) {
    AM_LOG_ERROR("push data size=%d > buf_size:%d", size, slot->buf_size);
    return -1;
  }
  memcpy(slot->buf, data, static_cast<size_t>(size));
  slot->data_size = size;
  slot->ref = 0;
  m_s32WIdx = static_cast<int>((static_cast<size_t>(m_s32WIdx) + 1) % m_s32Count);
  return 0;
}

AUD_BUF_T* CAudioBuf::get_buf_data() {
  if (m_s32RIdx == m_s32WIdx) {
    AM_LOG_ERROR("buf is empty, ridx=%d widx=%d", m_s32RIdx, m_s32WIdx);
    return nullptr;
  }
  const int ret = pthread_mutex_trylock(&m_muxRead);
  if (ret != 0) {
    AM_LOG_ERROR("trylock mux err, ret:%d", ret);
    return nullptr;
  }
  AUD_BUF_T* slot = m_arrBuf[m_s32RIdx];
  if (slot->ref != 0) {
    AM_LOG_ERROR("ridx:%d ref :%d is not zero", m_s32RIdx, slot->ref);
    pthread_mutex_unlock(&m_muxRead);
    return nullptr;
  }
  slot->ref = 1;
  pthread_mutex_unlock(&m_muxRead);
  return slot;
}

int CAudioBuf::push_buf_free(AUD_BUF_T* slot) {
  if (slot == nullptr || m_arrBuf == nullptr) {
    return -1;
  }
  AUD_BUF_T* head = m_arrBuf[m_s32RIdx];
  if (slot->ref == head->ref && slot->buf == head->buf) {
    head->ref = 0;
    m_s32RIdx = static_cast<int>((static_cast<size_t>(m_s32RIdx) + 1) % m_s32Count);
    return 0;
  }
  AM_LOG_ERROR("buf ref:%d buf:%p not eqal ref:%d buf:%p, ridx=%d", slot->ref,
               static_cast<void*>(slot->buf), head->ref, static_cast<void*>(head->buf), m_s32RIdx);
  return -1;
}

int CAudioBuf::reset_buf_status(AUD_BUF_T* slot) {
  if (slot == nullptr) {
    return -1;
  }
  slot->ref = 0;
  return 0;
}
