// Shared pieces of the engine tests: a log recorder, channel records, and a routing environment
// (temporary board root, in-process I2C bus, routing module started on board 1).
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "am_i2c_fake.h"
#include "am_log.h"
#include "am_test_env.h"
#include "qb_audio_main.h"
#include "qb_audio_misc.h"

namespace engine_test {

// Every log line, without its " --[file:line]" ending.
class Log {
 public:
  struct Line {
    int level;
    std::string text;
  };
  Log() { am_log_set_observer(&Log::observe, this); }
  ~Log() { am_log_set_observer(nullptr, nullptr); }
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  std::vector<Line> lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }
  int count(const std::string& text) const {
    int n = 0;
    for (const Line& l : lines()) n += l.text == text ? 1 : 0;
    return n;
  }
  int count_prefix(const std::string& prefix) const {
    int n = 0;
    for (const Line& l : lines()) n += l.text.compare(0, prefix.size(), prefix) == 0 ? 1 : 0;
    return n;
  }
  int level_of(const std::string& text) const {
    for (const Line& l : lines()) {
      if (l.text == text) return l.level;
    }
    return -1;
  }

 private:
  static void observe(int level, const char* message, void* ctx) {
    auto* self = static_cast<Log*>(ctx);
    std::string text(message);
    const size_t end = text.rfind(" --[");
    if (end != std::string::npos) text.resize(end);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.push_back({level, text});
  }
  mutable std::mutex mutex_;
  std::vector<Line> lines_;
};

// A record with the given format fields, the rest as the daemon builds them.
inline qb_audio_info record(int sf, int ch, int type, int size = 24) {
  qb_audio_info r;
  std::memset(&r, 0, sizeof r);
  r.Audio_On = 1;
  r.SampleFrequency = static_cast<qb_s8_t>(sf);
  r.ValidCh = static_cast<qb_s8_t>(ch);
  r.SampleSize = static_cast<qb_s8_t>(size);
  r.io_in_use = 2;
  r.Audio_Type = static_cast<qb_s8_t>(type);
  r.ChStat[2] = 2;
  return r;
}

// Routing module started on a board root of its own.
class RoutingEnv : public ::testing::Test {
 protected:
  void SetUp() override {
    audio_board_id_set(1);
    qb_audio_misc_init();
    log.clear();
  }
  void TearDown() override { qb_audio_misc_uninit(); }

  am_test::TempRoot root{{"dev", "tmp", "customer/bin"}};
  am_test::I2cFake bus;
  Log log;
};

}  // namespace engine_test
