// Shared pieces of the stream tests: the virtual sound card's configuration and a log recorder.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "am_log.h"
#include "am_test_env.h"
#include "am_test_paths.h"

namespace stream_test {

inline std::string amsim_conf() { return std::string(am_test::kLibDir) + "/asound.conf"; }
inline bool have_card() { return access(amsim_conf().c_str(), R_OK) == 0; }

// ALSA through the virtual card, with a private HOME under the board root.
inline void use_card(const am_test::TempRoot& root) {
  setenv("ALSA_CONFIG_PATH", ("/usr/share/alsa/alsa.conf:" + amsim_conf()).c_str(), 1);
  setenv("HOME", root.at("/home").c_str(), 1);
}

// Every log line without its " --[file:line]" ending.
class Log {
 public:
  Log() { am_log_set_observer(&Log::observe, this); }
  ~Log() { am_log_set_observer(nullptr, nullptr); }
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;
  int count(const std::string& text, bool prefix = false) const {
    std::lock_guard<std::mutex> lock(mutex_);
    int n = 0;
    for (const std::string& l : lines_) n += (prefix ? l.compare(0, text.size(), text) == 0 : l == text) ? 1 : 0;
    return n;
  }
  int count_prefix(const std::string& text) const { return count(text, true); }

 private:
  static void observe(int, const char* message, void* ctx) {
    auto* self = static_cast<Log*>(ctx);
    std::string text(message);
    const size_t end = text.rfind(" --[");
    if (end != std::string::npos) text.resize(end);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.push_back(text);
  }
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace stream_test
