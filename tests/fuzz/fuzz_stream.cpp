// Network audio datagrams through the receiver's path, as its thread runs it between two device
// writes: header and length checks, format-change detection (the daemon's new-format handler),
// loss bridging, realignment on channel 0 and chunking into the device or the packet ring.
// Input: the 20-byte channel record the run starts with, one byte whose bits say which device
// writes would block (bit k for the write calls k, k+8, ...), then datagrams, each after a 2-byte
// little-endian prefix: bits 0-11 its length (cut to a receive slot), bit 15 "the socket is empty
// now" (the thread moves on to the device writes).
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_board.h"
#include "qb_audio_buf.h"
#include "qb_audio_misc.h"
#include "qb_audio_oper.h"
#include "qb_audio_oper_playback.h"

namespace {

constexpr unsigned kPeriodsPerSecond = 200;  // the device's 5 ms period: one chunk
constexpr int kRingSlots = 60;
constexpr uint16_t kLengthMask = 0x0FFF, kSocketEmptyBit = 0x8000;
constexpr size_t kMaxRxMessages = 128;

uint8_t g_block_pattern = 0;
unsigned g_write_calls = 0;

// The device: takes every chunk, except when the pattern says this write would block.
snd_pcm_sframes_t device_write(qb_audio_oper_ctrl_t*, qb_u8_t*, size_t frames) {
  const bool blocks = (g_block_pattern >> (g_write_calls++ % 8)) & 1;
  return blocks ? 0 : static_cast<snd_pcm_sframes_t>(frames);
}

void move_to_device(qb_audio_oper_ctrl_t* ctrl) {
  playback_realign(ctrl);
  playback_move_chunks(ctrl, device_write);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz_board::setup();
  qb_audio_misc_init();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qb_audio_info record;
  if (size < sizeof record + 1) return -1;
  std::memcpy(&record, data, sizeof record);
  g_block_pattern = data[sizeof record];
  g_write_calls = 0;
  data += sizeof record + 1;
  size -= sizeof record + 1;

  // The run's set-up: format from the channel record, geometry of the device's period.
  qb_audio_oper_ctrl_t ctrl;
  qb_audio_oper_default(&ctrl);
  ctrl.file_param_num = 1;
  _file_param_set(&ctrl, &record);
  ctrl.pcm.chunk_size = std::max(1u, ctrl.pcm.hwparams.rate / kPeriodsPerSecond);
  ctrl.pcm.bits_per_sample = static_cast<size_t>(snd_pcm_format_physical_width(ctrl.pcm.hwparams.format));
  ctrl.pcm.bits_per_frame = ctrl.pcm.bits_per_sample * ctrl.pcm.hwparams.channels;
  ctrl.pcm.chunk_bytes = ctrl.pcm.chunk_size * ctrl.pcm.bits_per_frame / 8;
  std::vector<qb_u8_t> staging(std::max(QB_AUDIO_BUF_DEFAULT_SIZE, 3 * ctrl.pcm.chunk_bytes));
  ctrl.audiobuf = staging.data();
  ctrl.audiobuf_capacity = staging.size();
  CAudioBuf ring(static_cast<int>(ctrl.pcm.chunk_bytes), kRingSlots);
  ctrl.pAudBuf = &ring;
  const size_t messages = std::min({ctrl.pcm.chunk_bytes / AUDIO_PKT_PAYLOAD_SIZE + 1,
                                    QB_AUDIO_BUF_DEFAULT_SIZE / QB_AUDIO_RX_SLOT_SIZE, kMaxRxMessages});
  const size_t room_needed = playback_rx_room_needed(messages);

  size_t batch = 0;
  while (size >= 2 && !qb_audio_oper_is_aborting(&ctrl)) {
    const uint16_t prefix = static_cast<uint16_t>(data[0] | (data[1] << 8));
    const size_t len = std::min<size_t>(prefix & kLengthMask, size - 2);
    // A receive call takes at most `messages` datagrams, and none while the room runs short.
    if (batch == messages || ctrl.audiobuf_capacity - ctrl.audiobuf_datalen < room_needed) {
      move_to_device(&ctrl);
      batch = 0;
      continue;
    }
    std::vector<qb_u8_t> slot(data + 2, data + 2 + std::min(len, QB_AUDIO_RX_SLOT_SIZE));
    if (playback_handle_datagram(&ctrl, slot.data(), slot.size()) == PLAYBACK_RX_ABORT) break;
    ++batch;
    data += 2 + len;
    size -= 2 + len;
    if (prefix & kSocketEmptyBit) {
      move_to_device(&ctrl);
      batch = 0;
    }
  }
  if (!qb_audio_oper_is_aborting(&ctrl)) move_to_device(&ctrl);
  ctrl.pAudBuf = nullptr, ctrl.audiobuf = nullptr;
  return 0;
}
