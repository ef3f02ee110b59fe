// Test helpers for the clock synthesiser tests: the chip's multisynth encoding computed from first
// principles, the register bytes it implies, and log capture.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "am_i2c_fake.h"
#include "am_log.h"
#include "qb_si5351.h"

namespace si5351_test {

constexpr const char* kBus = "/dev/i2c-1";
constexpr uint16_t kAddr = 0x60;

struct MsParams {
  uint32_t p1;
  uint32_t p2;
  uint32_t p3;
  bool operator==(const MsParams& o) const { return p1 == o.p1 && p2 == o.p2 && p3 == o.p3; }
};

inline std::ostream& operator<<(std::ostream& os, const MsParams& p) {
  return os << "{P1 " << p.p1 << ", P2 " << p.p2 << ", P3 " << p.p3 << "}";
}

inline uint64_t gcd64(uint64_t a, uint64_t b) {
  while (b != 0) {
    const uint64_t t = a % b;
    a = b;
    b = t;
  }
  return a;
}

// 900,000,000 / f = a + b/c in lowest terms; P1 = 128a + floor(128b/c) - 512,
// P2 = 128b - c floor(128b/c), P3 = c.
inline MsParams encode(uint64_t f) {
  const uint64_t pll = 900000000ULL;
  const uint64_t a = pll / f;
  uint64_t b = pll % f;
  uint64_t c = f;
  if (b == 0) {
    c = 1;
  } else {
    const uint64_t g = gcd64(b, c);
    b /= g;
    c /= g;
  }
  const uint64_t fl = (128 * b) / c;
  return MsParams{static_cast<uint32_t>(128 * a + fl - 512), static_cast<uint32_t>(128 * b - c * fl),
                  static_cast<uint32_t>(c)};
}

// The eight multisynth registers for (R divider code, P1, P2, P3), as the chip's register map
// lays them out.
inline std::array<uint8_t, 8> ms_bytes(uint32_t div, const MsParams& p) {
  return {static_cast<uint8_t>(p.p3 >> 8),
          static_cast<uint8_t>(p.p3),
          static_cast<uint8_t>((div & 7) << 4 | ((p.p1 >> 16) & 3)),
          static_cast<uint8_t>(p.p1 >> 8),
          static_cast<uint8_t>(p.p1),
          static_cast<uint8_t>(((p.p3 >> 16) & 0xF) << 4 | ((p.p2 >> 16) & 0xF)),
          static_cast<uint8_t>(p.p2 >> 8),
          static_cast<uint8_t>(p.p2)};
}

inline int first_reg(int ch) {
  return ch == 1 ? 42 : ch == 2 ? 50 : 58;
}

inline std::array<uint8_t, 8> regs_of(const am_test::I2cFake& bus, int ch) {
  std::array<uint8_t, 8> out{};
  for (int i = 0; i < 8; ++i) {
    out[i] = bus.reg(kBus, kAddr, static_cast<uint16_t>(first_reg(ch) + i));
  }
  return out;
}

// Frequency plan of one rate: R divider value and code, nominal multisynth frequency.
struct RatePlan {
  int rate;
  uint32_t r;
  uint32_t div;
  uint64_t nominal;
};

inline const std::vector<RatePlan>& rate_plans() {
  static const std::vector<RatePlan> plans = {
      {44100, 4, 2, 22579000}, {48000, 4, 2, 24576000},  {88200, 2, 1, 22579000},
      {96000, 2, 1, 24576000}, {176400, 1, 0, 22579000}, {192000, 1, 0, 24576000},
  };
  return plans;
}

// Collects every log line while alive.
class LogCapture {
 public:
  LogCapture() { am_log_set_observer(&LogCapture::observe, this); }
  ~LogCapture() { am_log_set_observer(nullptr, nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  // Number of lines that contain text.
  int count(const std::string& text) const {
    int n = 0;
    for (const std::string& line : lines()) {
      n += line.find(text) != std::string::npos ? 1 : 0;
    }
    return n;
  }

 private:
  static void observe(int /*level*/, const char* message, void* ctx) {
    auto* self = static_cast<LogCapture*>(ctx);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.emplace_back(message);
  }
  mutable std::mutex mutex_;  // guards lines_ (the service may log from another thread)
  std::vector<std::string> lines_;
};

// Puts channel ch back to (rate, value 0, state set-param) without caring about the chip.
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

}  // namespace si5351_test
