// Clock synthesiser test helpers: the multisynth encoding from first principles, the channel
// registers on the fake bus, log capture and the genlock datagrams.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "am_i2c_fake.h"
#include "am_log.h"
#include "qb_si5351.h"

namespace si5351_test {

constexpr const char* kBus = "/dev/i2c-1";
constexpr uint16_t kAddr = 0x60;
using Regs = std::array<uint8_t, 8>;
using Bytes = std::vector<uint8_t>;

// 900 MHz / f = a + b/c in lowest terms; P1 = 128a + floor(128b/c) - 512, P2 = 128b - c floor(128b/c),
// P3 = c; laid out over the eight multisynth registers with the R divider code.
inline Regs encode(uint64_t f, uint32_t div) {
  const uint64_t a = 900000000ULL / f;
  uint64_t b = 900000000ULL % f, c = f, g = b, h = c;
  while (h != 0) {
    const uint64_t t = g % h;
    g = h;
    h = t;
  }
  b = b == 0 ? 0 : b / g;
  c = b == 0 ? 1 : c / g;
  const uint64_t fl = 128 * b / c;
  const uint64_t p1 = 128 * a + fl - 512, p2 = 128 * b - c * fl, p3 = c;
  return {uint8_t(p3 >> 8), uint8_t(p3), uint8_t((div & 7) << 4 | ((p1 >> 16) & 3)), uint8_t(p1 >> 8),
          uint8_t(p1), uint8_t(((p3 >> 16) & 0xF) << 4 | ((p2 >> 16) & 0xF)), uint8_t(p2 >> 8), uint8_t(p2)};
}

inline Regs regs_of(const am_test::I2cFake& bus, int ch) {
  Regs out{};
  for (int i = 0; i < 8; ++i) out[i] = bus.reg(kBus, kAddr, static_cast<uint16_t>(34 + 8 * ch + i));
  return out;
}

// Collects every log line while alive (the service may log from another thread).
class LogCapture {
 public:
  LogCapture() { am_log_set_observer(&LogCapture::observe, this); }
  ~LogCapture() { am_log_set_observer(nullptr, nullptr); }
  int count(const std::string& text) const {
    std::lock_guard<std::mutex> lock(mutex_);
    int n = 0;
    for (const std::string& line : lines_) n += line.find(text) != std::string::npos ? 1 : 0;
    return n;
  }

 private:
  static void observe(int, const char* message, void* ctx) {
    auto* self = static_cast<LogCapture*>(ctx);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.emplace_back(message);
  }
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

// Puts channel ch back to (rate, value 0, state set-param, no fifo figures).
inline void reset_channel(int ch, int rate) {
  qb_si5351_set_param(ch, rate);
  set_chn_stat(ch, QB_SI5351_SET_PARAM);
  set_fifo_stat(ch, 0, 0);
}

inline SI5351_CONF_T conf(int ch) {
  SI5351_CONF_T c{};
  qb_si5351_conf_get(ch, &c);
  return c;
}

// A genlock request: command, channel, arg1 (and arg2 for a fifo report), little-endian words.
inline Bytes request(uint32_t command, int32_t ch, int32_t arg1, const int32_t* arg2 = nullptr) {
  Bytes out(arg2 != nullptr ? 16 : 12);
  std::memcpy(out.data(), &command, 4);
  std::memcpy(out.data() + 4, &ch, 4);
  std::memcpy(out.data() + 8, &arg1, 4);
  if (arg2 != nullptr) std::memcpy(out.data() + 12, arg2, 4);
  return out;
}

inline sockaddr_in loopback(int port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return a;
}

inline int local_port(int fd) {
  sockaddr_in addr{};
  socklen_t len = sizeof addr;
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  return ntohs(addr.sin_port);
}

}  // namespace si5351_test
