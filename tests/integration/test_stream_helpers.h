// Shared pieces of the stream tests: the virtual sound card's configuration and a log recorder.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "am_log.h"
#include "am_test_env.h"
#include "am_test_paths.h"

namespace stream_test {

// Answers every request on 127.0.0.1:11000, as the genlock service does.
inline void fake_genlock(std::atomic<bool>* stop) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  struct sockaddr_in addr;
  std::memset(&addr, 0, sizeof(addr));
  addr.sin_family = AF_INET;
  addr.sin_port = htons(11000);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  struct timeval tv = {0, 100000};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
  while (!stop->load()) {
    char buf[64];
    struct sockaddr_in from;
    socklen_t len = sizeof(from);
    const ssize_t n = recvfrom(fd, buf, sizeof(buf), 0, reinterpret_cast<sockaddr*>(&from), &len);
    if (n > 0) sendto(fd, buf, static_cast<size_t>(n), 0, reinterpret_cast<sockaddr*>(&from), len);
  }
  close(fd);
}


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

// Two simulated boards running the real programs (sim/board): TX-A captures its analog input into
// network stream 0, RX plays it on its analog output; eth0 of both joined by one veth pair. The
// receiver's card records what it plays in /tmp/bench/played.raw. Everything is torn down on
// destruction.
class Bench {
 public:
  static constexpr const char* kTxMacText = "02000000a001";

  Bench() {
    char tmpl[] = "/tmp/am-bench-XXXXXX";
    if (mkdtemp(tmpl) != nullptr) work_ = tmpl;
    env_ = "AM_SIM_STATE=" + work_ + "/state AM_SIM_PREFIX=amb" + std::to_string(getpid()) +
           "- AM_BIN_DIR=" + std::string(am_test::kBinDir) + " AM_LIB_DIR=" + std::string(am_test::kLibDir);
  }
  ~Bench() {
    board("teardown");
    if (!work_.empty()) std::system(("rm -rf " + work_).c_str());
  }
  Bench(const Bench&) = delete;
  Bench& operator=(const Bench&) = delete;

  static bool available() {
    const std::string bin(am_test::kBinDir);
    return access((bin + "/audio_manager").c_str(), X_OK) == 0 && access((bin + "/qb_genlock").c_str(), X_OK) == 0 &&
           access((bin + "/amctl").c_str(), X_OK) == 0 && have_card();
  }
  const std::string& work() const { return work_; }
  std::string tx_root() const { return work_ + "/tx"; }
  std::string rx_root() const { return work_ + "/rx"; }
  std::string rx_log() const { return am_test::read_file(rx_root() + "/tmp/audio_manager.log"); }
  std::string tx_log() const { return am_test::read_file(tx_root() + "/tmp/audio_manager.log"); }
  std::string played_path() const { return rx_root() + "/tmp/bench/played.raw"; }

  // sim/board COMMAND; its exit status (output appended to work/board.out).
  int board(const std::string& args) const {
    const std::string cmd = "env " + env_ + " bash " + std::string(am_test::kSourceDir) + "/sim/board " + args +
                            " >>" + work_ + "/board.out 2>&1";
    const int rc = std::system(cmd.c_str());
    return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
  }
  // Standard output of sim/board COMMAND.
  std::string board_output(const std::string& args) const {
    const std::string cmd = "env " + env_ + " bash " + std::string(am_test::kSourceDir) + "/sim/board " + args +
                            " 2>>" + work_ + "/board.out";
    std::string out;
    FILE* f = popen(cmd.c_str(), "r");
    if (f == nullptr) return out;
    char buf[512];
    for (size_t n; (n = fread(buf, 1, sizeof(buf), f)) > 0;) out.append(buf, n);
    pclose(f);
    return out;
  }
  int amctl(const std::string& name, const std::string& args) const {
    return board("exec " + name + " -- " + std::string(am_test::kBinDir) + "/amctl " + args);
  }

  // Both boards up and streaming; `rx_env` are extra "--env KEY=VALUE" options of the receiver.
  // Empty on success, else what failed.
  std::string start(const std::string& rx_env = "") {
    if (work_.empty()) return "no work directory";
    if (board("create " + tx_root() + " --model TX-A") != 0 || board("create " + rx_root() + " --model RX") != 0)
      return "create";
    if (board("up tx " + tx_root() + " --mac 02:00:00:00:a0:01") != 0 ||
        board("up rx " + rx_root() + " --mac 02:00:00:00:a0:02") != 0 || board("link tx rx") != 0)
      return "network";
    if (board("start tx") != 0 ||
        board("start rx --env AMSIM_OUTFILE_PLAY1=/tmp/bench/played.raw " + rx_env) != 0)
      return "start";
    if (board("wait-log tx 'audio manager init done' --timeout 30") != 0 ||
        board("wait-log rx 'audio manager init done' --timeout 30") != 0)
      return "init";
    if (amctl("tx", "channel-info analog --rate 48000 --channels 2 --size 24") != 0 ||
        amctl("tx", std::string("to-net 0 analog ") + kTxMacText) != 0 ||
        amctl("rx", std::string("from-net ") + kTxMacText + " 0") != 0 || amctl("rx", "stream-in analog 0") != 0 ||
        amctl("rx", "output-src analog stream") != 0)
      return "amctl";
    if (!am_test::wait_for([&] { return played_bytes() > 48000 * 8; }, 30000, 100)) return "the stream never started";
    return "";
  }
  long played_bytes() const {
    struct stat st;
    return stat(played_path().c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
  }
  // The daemon's pid on a board (-1 unknown).
  int daemon_pid(const std::string& name) const {
    const std::string text = am_test::read_file(work_ + "/" + name + "/run/audio_manager.pid");
    return text.empty() ? -1 : std::atoi(text.c_str());
  }
  // Every thread of both boards' daemons at real-time priority, so that a loaded host does not
  // starve the 30 ms the receiver queues. False when the host does not allow it.
  bool realtime() const {
    bool ok = true;
    for (const char* name : {"tx", "rx"}) {
      const int pid = daemon_pid(name);
      ok = ok && pid > 0 &&
           std::system(("chrt -f -a -p 20 " + std::to_string(pid) + " >/dev/null 2>&1").c_str()) == 0;
    }
    return ok;
  }
  // The daemon's exit status recorded by the board's watcher ("" while it runs).
  std::string daemon_status(const std::string& name) const {
    std::string text = am_test::read_file(work_ + "/" + name + "/run/audio_manager.status");
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    return text;
  }

 private:
  std::string work_;
  std::string env_;
};

// Occurrences of `text` in `log`.
inline int occurrences(const std::string& log, const std::string& text) {
  int n = 0;
  for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + text.size())) ++n;
  return n;
}

}  // namespace stream_test
