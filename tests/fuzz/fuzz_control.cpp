// One command datagram as the command thread receives it on 127.0.0.1:9994: the TLV checks and the
// whole dispatch to every handler, on a TR-A board whose routing module has just started.
#include <cstdint>
#include <vector>

#include "fuzz_board.h"
#include "qb_audio_main.h"
#include "qb_audio_misc.h"
#include "qb_audio_misc_bridge.h"
#include "qb_audio_parse.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz_board::setup();
  audio_board_id_set(GetModeFromJsonFile2());
  qb_bridge_edid_wait_ms_set(0);
  audio_unmute_all();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > static_cast<size_t>(QB_AUDIO_CMD_BUF_SIZE)) return -1;  // dropped before it is parsed
  qb_audio_misc_init();
  std::vector<qb_u8_t> dgram(data, data + size);  // exactly the bytes received: an over-read shows
  audio_recv_data_proc(dgram.empty() ? nullptr : dgram.data(), static_cast<int>(dgram.size()));
  return 0;
}
