// Collects every formatted log message of the daemon while alive (one at a time).
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "am_log.h"

namespace am_test_frame {

class LogCapture {
 public:
  LogCapture() { am_log_set_observer(&LogCapture::observe, this); }
  ~LogCapture() { am_log_set_observer(nullptr, nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Number of messages that contain text.
  int count(const std::string& text) const {
    std::lock_guard<std::mutex> lock(mutex_);
    int n = 0;
    for (const std::string& line : lines_) {
      n += line.find(text) != std::string::npos ? 1 : 0;
    }
    return n;
  }
  bool contains(const std::string& text) const { return count(text) > 0; }
  size_t size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_.size();
  }

 private:
  static void observe(int, const char* message, void* ctx) {
    auto* self = static_cast<LogCapture*>(ctx);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.emplace_back(message);
  }
  mutable std::mutex mutex_;  // guards lines_ (workers may log while a test reads)
  std::vector<std::string> lines_;
};

}  // namespace am_test_frame
