// One request word on the debug pipe, as one read of "/tmp/request" returns it: the word's parse
// and the dumps it asks for (routing, engines, the FPGA matrix on the emulated bus, genlock).
#include <cstdint>
#include <cstring>

#include "fuzz_board.h"
#include "qb_audio_debug.h"
#include "qb_audio_misc.h"

static constexpr size_t kPipeReadMax = 1024;  // one read of the pipe; the buffer keeps a NUL after it

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz_board::setup();
  qb_audio_misc_init();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kPipeReadMax) return -1;  // the rest would arrive as the next request
  char request[kPipeReadMax + 1] = {};
  std::memcpy(request, data, size);
  qb_debug_serve_request(request);
  return 0;
}
