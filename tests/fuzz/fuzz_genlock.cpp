// Request datagrams to the genlock service, each served as its thread serves a received one, with
// the synthesiser on the emulated I2C bus; replies go out on a loopback socket to a client.
// Input: datagrams, each after a prefix byte whose low 7 bits are its length (the service reads at
// most 64 bytes) and whose top bit runs the idle step (return-to-nominal) after it. At most 24
// datagrams a run: enough to walk a channel across its whole range of 8 steps each way and back.
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>

#include "fuzz_board.h"
#include "qb_si5351.h"

namespace {
constexpr int kNominalRate = 48000;
constexpr uint8_t kIdleTurnBit = 0x80, kLengthMask = 0x7F;
constexpr int kMaxDatagrams = 24;
int g_client = -1;
sockaddr_in g_client_address{};
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz_board::setup();
  qb_si5351_init();
  g_client = si5351_svr_open(SI5351_SVR_ADDR, 0);  // a bound socket of its own receives the replies
  socklen_t len = sizeof g_client_address;
  if (g_client < 0 || getsockname(g_client, reinterpret_cast<sockaddr*>(&g_client_address), &len) != 0) std::abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  for (int ch = 1; ch <= SI5351_CHANNEL_NUM; ++ch) {  // every run starts from nominal channels
    qb_si5351_set_conf(ch, kNominalRate);
    set_chn_stat(ch, QB_SI5351_SET_PARAM);
    set_fifo_stat(ch, 0, 0);
  }
  const int fd = si5351_svr_open(SI5351_SVR_ADDR, 0);  // zeroed buffer, a port of its own
  if (fd < 0) std::abort();
  for (int served = 0; size > 0 && served < kMaxDatagrams; ++served) {
    const size_t n = std::min<size_t>(data[0] & kLengthMask, size - 1);
    si5351_svr_serve(fd, data + 1, n, g_client_address);
    if ((data[0] & kIdleTurnBit) != 0) handle_reset_stat();  // what a turn without a datagram does
    data += 1 + n;
    size -= 1 + n;
  }
  uint8_t reply[SI5351_SVR_BUF_LEN];
  while (recv(g_client, reply, sizeof reply, MSG_DONTWAIT) >= 0) continue;
  close(fd);
  return 0;
}
