// Shared fixture of the routing tests: a temporary board root (so "/dev/mem" and the sysfs
// attributes never reach the host's own), an in-process I2C bus, a log recorder, and a freshly
// started routing module on a chosen board.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "am_i2c_fake.h"
#include "am_log.h"
#include "am_test_env.h"
#include "qb_audio_main.h"
#include "qb_audio_misc.h"
#include "qb_audio_misc_fpga.h"

namespace routing_test {

inline constexpr const char* kBus = "/dev/i2c-2";
inline constexpr uint16_t kFpga = 0x48;

// Every log line, without its " --[file:line]" ending.
class LogRecorder {
 public:
  struct Line {
    int level;
    std::string text;
  };

  LogRecorder() { am_log_set_observer(&LogRecorder::observe, this); }
  ~LogRecorder() { am_log_set_observer(nullptr, nullptr); }
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;

  std::vector<Line> lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }
  // Lines equal to text.
  int count(const std::string& text) const {
    int n = 0;
    for (const Line& l : lines()) n += (l.text == text) ? 1 : 0;
    return n;
  }
  // Lines starting with prefix.
  int count_prefix(const std::string& prefix) const {
    int n = 0;
    for (const Line& l : lines()) n += (l.text.compare(0, prefix.size(), prefix) == 0) ? 1 : 0;
    return n;
  }
  bool has(const std::string& text, int level) const {
    for (const Line& l : lines()) {
      if (l.text == text && l.level == level) return true;
    }
    return false;
  }

 private:
  static void observe(int level, const char* message, void* ctx) {
    auto* self = static_cast<LogRecorder*>(ctx);
    std::string text(message);
    const size_t end = text.rfind(" --[");
    if (end != std::string::npos) text.resize(end);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.push_back({level, text});
  }

  mutable std::mutex mutex_;
  std::vector<Line> lines_;
};

// One bus transfer, compactly: "R 52" (read of 0x52) or "W 52=bf".
inline std::string transfer_text(const am_test::I2cRecord& r) {
  char buf[32];
  if (r.is_read) {
    std::snprintf(buf, sizeof buf, "R %02x", r.reg);
  } else {
    std::snprintf(buf, sizeof buf, "W %02x=%02x", r.reg, r.bytes.empty() ? 0 : r.bytes[0]);
  }
  return buf;
}

inline std::vector<std::string> transfers(const am_test::I2cFake& bus) {
  std::vector<std::string> out;
  for (const am_test::I2cRecord& r : bus.records()) out.push_back(transfer_text(r));
  return out;
}

// A record with the given format fields; the rest as the daemon builds them.
inline qb_audio_info make_record(int sf, int ch, int type, int bspdif = 0) {
  qb_audio_info r;
  std::memset(&r, 0, sizeof r);
  r.Audio_On = 1;
  r.SampleFrequency = static_cast<qb_s8_t>(sf);
  r.ValidCh = static_cast<qb_s8_t>(ch);
  r.SampleSize = 24;
  r.io_in_use = 2;
  r.Audio_Type = static_cast<qb_s8_t>(type);
  r.bSPDIF = static_cast<qb_s8_t>(bspdif);
  return r;
}

class RoutingTest : public ::testing::Test {
 protected:
  void SetUp() override { start(1); }
  void TearDown() override { qb_audio_misc_uninit(); }

  // Restarts the module on a board; the bus records and log lines start empty.
  void start(int board) {
    audio_board_id_set(board);
    qb_audio_misc_init();
    bus.clear_records();
    log.clear();
  }

  am_test::TempRoot root{{"dev", "tmp"}};
  am_test::I2cFake bus;
  LogRecorder log;
};

}  // namespace routing_test
