// Request datagrams to the genlock service, served one turn of its loop each (as its thread does)
// on a loopback socket of a private namespace, with the synthesiser on the emulated I2C bus.
// Input: datagrams, each after a prefix byte whose low 7 bits are its length (the service reads at
// most 64 bytes) and whose top bit runs the idle step (return-to-nominal) after it.
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>

#include "fuzz_board.h"
#include "qb_si5351.h"

namespace {
constexpr int kServeWaitMs = 100, kNominalRate = 48000;  // the wait is generous: a loopback datagram is there at once
constexpr uint8_t kIdleTurnBit = 0x80, kLengthMask = 0x7F;
int g_client = -1;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz_board::setup();
  qb_si5351_init();
  g_client = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  for (int ch = 1; ch <= SI5351_CHANNEL_NUM; ++ch) {  // every run starts from nominal channels
    qb_si5351_set_conf(ch, kNominalRate);
    set_chn_stat(ch, QB_SI5351_SET_PARAM);
    set_fifo_stat(ch, 0, 0);
  }
  const int fd = si5351_svr_open(SI5351_SVR_ADDR, 0);  // zeroed buffer, a port of its own
  sockaddr_in service{};
  socklen_t len = sizeof service;
  if (fd < 0 || getsockname(fd, reinterpret_cast<sockaddr*>(&service), &len) != 0) std::abort();
  while (size > 0) {
    const size_t n = std::min<size_t>(data[0] & kLengthMask, size - 1);
    const bool idle = (data[0] & kIdleTurnBit) != 0;
    (void)sendto(g_client, data + 1, n, 0, reinterpret_cast<const sockaddr*>(&service), sizeof service);
    si5351_svr_poll(fd, kServeWaitMs);
    if (idle) handle_reset_stat();  // what a turn without a datagram does
    uint8_t reply[SI5351_SVR_BUF_LEN];
    while (recv(g_client, reply, sizeof reply, 0) >= 0) continue;
    data += 1 + n;
    size -= 1 + n;
  }
  close(fd);
  return 0;
}
