// A fully loaded board pair: one transmitter daemon sends three network streams at 192 kHz, 24-bit
// captured on hw:1,0 .. hw:3,0, one receiver daemon plays all three on hw:1,0 .. hw:3,0; two
// simulated boards (sim/board) joined by a veth pair, configured with amctl. Streams 0 and 1 carry
// 8 channels (the analog input); stream 2 carries 2 (the hdmi input), because its capture worker
// (hw:2,0) stays idle while its source has more than two channels. After a warm-up, prints each daemon's CPU time as a percentage of one
// core over the measured interval, and the allocations per second of every daemon thread (the
// counting allocator preloaded into both daemons). Needs root; asserts nothing. The board roots
// (with the daemons' logs) stay in the bench output folder.
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "bench_util.h"

namespace {

constexpr int kStreams = 3;
constexpr int kWarmupS = 5;
constexpr int kMeasureS = 10;
constexpr int kStartTimeoutS = 40;
// The virtual sound card: its allocations (its timelog lines) are the bench's, not the daemon's.
constexpr const char* kCardModule = "libasound_module_pcm_amsim";
constexpr size_t kSitesShown = 6;  // call stacks shown per daemon, the most frequent first
// Each stream's device MAC, from which sender and receiver derive its multicast group.
constexpr const char* kStreamMacs[kStreams] = {"02000000b001", "02000000b002", "02000000b003"};
constexpr const char* kOutputPorts[kStreams] = {"analog", "hdmi", "spdif"};
constexpr const char* kSources[kStreams] = {"analog", "analog", "hdmi"};

std::string read_text(const std::string& path) {
  std::ifstream in(path);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

long lines_of(const std::string& path) {
  const std::string text = read_text(path);
  long n = 0;
  for (char c : text) n += c == '\n' ? 1 : 0;
  return n;
}

class Boards {
 public:
  explicit Boards(const std::string& work) : work_(work) {
    const std::string bin = bench::exe_dir();
    env_ = "AM_SIM_STATE=" + work + "/state AM_SIM_PREFIX=amfb" + std::to_string(getpid()) + "- AM_BIN_DIR=" + bin +
           " AM_LIB_DIR=" + bin + "/../lib";
  }
  ~Boards() { board("teardown"); }
  Boards(const Boards&) = delete;
  Boards& operator=(const Boards&) = delete;

  std::string root(const std::string& name) const { return work_ + "/" + name; }
  int board(const std::string& args) const {
    return std::system(("env " + env_ + " bash " AM_SOURCE_DIR "/sim/board " + args + " >>" + work_ +
                        "/board.out 2>&1")
                           .c_str());
  }
  int amctl(const std::string& name, const std::string& args) const {
    return board("exec " + name + " -- " + bench::exe_dir() + "/amctl " + args);
  }
  int daemon_pid(const std::string& name) const {
    return std::atoi(read_text(root(name) + "/run/audio_manager.pid").c_str());
  }

 private:
  std::string work_;
  std::string env_;
};

// The timelog a card of a board writes (under its root): "play" or "cap", card 1..3.
std::string timelog(const Boards& b, const std::string& name, const char* dir, int card) {
  return b.root(name) + "/tmp/bench/" + dir + std::to_string(card) + ".log";
}

// Brings both boards up and configures the streams; "" or what failed.
std::string bring_up(const Boards& b, const std::string& ctl) {
  if (b.board("create " + b.root("tx") + " --model TX-A") != 0 || b.board("create " + b.root("rx") + " --model RX") != 0)
    return "sim/board create failed";
  if (b.board("up tx " + b.root("tx") + " --mac 02:00:00:00:b0:01") != 0 ||
      b.board("up rx " + b.root("rx") + " --mac 02:00:00:00:b0:02") != 0 || b.board("link tx rx") != 0)
    return "the namespaces or the link failed";
  const std::string preload = " --env LD_PRELOAD=" + bench::exe_dir() + "/../lib/libam_alloc_count.so" +
                              " --env AM_ALLOC_COUNT_CTL=" + ctl + " --env AM_ALLOC_COUNT_IGNORE=" + kCardModule;
  std::string tx_env = preload, rx_env = preload;
  for (int card = 1; card <= kStreams; ++card) {
    tx_env += " --env AMSIM_TIMELOG_CAP" + std::to_string(card) + "=/tmp/bench/cap" + std::to_string(card) + ".log";
    rx_env += " --env AMSIM_TIMELOG_PLAY" + std::to_string(card) + "=/tmp/bench/play" + std::to_string(card) + ".log";
  }
  if (b.board("start tx" + tx_env) != 0 || b.board("start rx" + rx_env) != 0) return "sim/board start failed";
  if (b.board("wait-log tx 'audio manager init done' --timeout 30") != 0 ||
      b.board("wait-log rx 'audio manager init done' --timeout 30") != 0)
    return "a daemon did not finish its start-up";
  if (b.amctl("tx", "channel-info analog --rate 192000 --channels 8 --size 24") != 0 ||
      b.amctl("tx", "channel-info hdmi --rate 192000 --channels 2 --size 24") != 0)
    return "amctl channel-info failed";
  for (int sid = 0; sid < kStreams; ++sid) {
    const std::string s = std::to_string(sid);
    if (b.amctl("tx", "to-net " + s + " " + kSources[sid] + " " + kStreamMacs[sid]) != 0) return "amctl to-net " + s + " failed";
    if (b.amctl("rx", "from-net " + std::string(kStreamMacs[sid]) + " " + s) != 0)
      return "amctl from-net " + s + " failed";
    if (b.amctl("rx", "stream-in " + std::string(kOutputPorts[sid]) + " " + s) != 0)
      return "amctl stream-in " + s + " failed";
    if (b.amctl("rx", "output-src " + std::string(kOutputPorts[sid]) + " stream") != 0)
      return "amctl output-src failed";
  }
  // Every card running: each capture and each playback timelog growing.
  std::string missing;
  for (int waited = 0; waited <= kStartTimeoutS; ++waited) {
    missing.clear();
    for (int card = 1; card <= kStreams; ++card) {
      if (lines_of(timelog(b, "tx", "cap", card)) < 3) missing += " capture hw:" + std::to_string(card) + ",0";
      if (lines_of(timelog(b, "rx", "play", card)) < 3) missing += " playback hw:" + std::to_string(card) + ",0";
    }
    if (missing.empty()) return "";
    sleep(1);
  }
  return "not running after " + std::to_string(kStartTimeoutS) + " s:" + missing;
}

// One line of a command's standard output.
std::string first_line(const std::string& cmd) {
  std::string out;
  if (FILE* f = popen(cmd.c_str(), "r")) {
    char buf[512];
    if (fgets(buf, sizeof(buf), f) != nullptr) out = buf;
    pclose(f);
  }
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

// A frame resolved: "function file:line" (the function name without its template or arguments).
std::string resolve(const std::string& module, const std::string& offset) {
  const std::string where = first_line("addr2line -f -C -s -e " + module + " " + offset + " | paste -sd@ -");
  const size_t at = where.find('@');
  if (at == std::string::npos) return module + "+" + offset;
  const std::string fn = where.substr(0, at);
  return fn.substr(0, std::min(fn.find('<'), fn.find('('))) + " " + where.substr(at + 1);
}

bool ends_with(const std::string& s, const std::string& end) {
  return s.size() >= end.size() && s.compare(s.size() - end.size(), end.size(), end) == 0;
}

// The counting allocator's report: allocations per thread name (threads of one name summed), and
// per thread and place in the daemon (the innermost daemon frame outside the logging module and the
// standard library) with what allocated there (a log line, or the innermost frame).
struct AllocReport {
  unsigned long ignored = 0;  // those of the virtual sound card
  std::map<std::string, unsigned long> threads;
  std::vector<std::pair<unsigned long, std::string>> sites;

  explicit AllocReport(const std::string& path) {
    std::map<std::string, unsigned long> places;
    std::istringstream in(read_text(path));
    std::map<std::string, std::string> thread_names;  // tid -> name
    std::string line, inner, ours, tid;
    unsigned long count = 0;
    bool logging = false;
    auto flush = [&] {
      if (count > 0) {
        places[thread_names[tid] + ": " + (ours.empty() ? "?" : ours) + (logging ? "  (a log line)" : "  (" + inner + ")")] +=
            count;
      }
      count = 0;
      logging = false;
      inner.clear();
      ours.clear();
    };
    while (std::getline(in, line)) {
      std::istringstream words(line);
      std::string kind, a, b;
      words >> kind >> a >> b;
      if (kind == "ignored") ignored = std::strtoul(a.c_str(), nullptr, 10);
      if (kind == "thread") {
        flush();
        thread_names[a] = b;
        if (b != "alloc_count") threads[b] += std::strtoul(line.substr(line.rfind(' ') + 1).c_str(), nullptr, 10);
      } else if (kind == "site") {
        flush();
        count = std::strtoul(a.c_str(), nullptr, 10);
        tid = b;
      } else if (count > 0 && inner.empty()) {
        inner = resolve(kind, a);
      } else if (count > 0 && ours.empty() && ends_with(kind, "/audio_manager")) {
        const std::string where = resolve(kind, a);
        logging = logging || where.find(" am_log.cpp:") != std::string::npos;
        if (where.find(" am_log.cpp:") == std::string::npos && where.compare(0, 5, "std::") != 0) ours = where;
      }
    }
    flush();
    for (const auto& [place, n] : places) sites.emplace_back(n, place);
    std::sort(sites.rbegin(), sites.rend());
  }
};

}  // namespace

int main() {
  if (geteuid() != 0) {
    std::printf("bench_full_board: needs root (network namespaces); skipped\n");
    return 0;
  }
  char real[PATH_MAX];
  const std::string work = std::string(realpath(bench::out_dir().c_str(), real) != nullptr ? real : ".") + "/full-board";
  bench::sh("rm -rf '" + work + "' && mkdir -p '" + work + "'");
  const std::string ctl = work + "/alloc.ctl";
  Boards boards(work);
  const std::string failed = bring_up(boards, ctl);
  if (!failed.empty()) {
    std::printf("three streams each way at 8ch/192k/24-bit did not come up: %s (logs: %s/{tx,rx}/tmp)\n",
                failed.c_str(), work.c_str());
    return 1;
  }
  sleep(kWarmupS);
  const char* names[] = {"tx", "rx"};
  int pid[2];
  double cpu0[2];
  for (int i = 0; i < 2; ++i) {
    pid[i] = boards.daemon_pid(names[i]);
    cpu0[i] = bench::process_cpu_s(pid[i]);
  }
  std::ofstream(ctl) << "start\n";
  const double t0 = bench::monotonic_s();
  sleep(kMeasureS);
  const double elapsed = bench::monotonic_s() - t0;
  double cpu1[2];
  for (int i = 0; i < 2; ++i) cpu1[i] = bench::process_cpu_s(pid[i]);
  std::ofstream(ctl) << "stop\n";
  sleep(1);
  std::printf("streams 0, 1: 8ch/192k/24-bit (hw:1,0, hw:3,0); stream 2: 2ch/192k/24-bit (hw:2,0)\n");
  for (int i = 0; i < 2; ++i) {
    std::printf("%s daemon (%s): %5.1f %% of one core over %.1f s\n", names[i],
                i == 0 ? "3 senders" : "3 receivers",
                100.0 * (cpu1[i] - cpu0[i]) / elapsed, elapsed);
  }
  for (int i = 0; i < 2; ++i) {
    const AllocReport report(ctl + "." + std::to_string(pid[i]) + ".out");
    std::string line;
    unsigned long total = 0;
    for (const auto& [name, count] : report.threads) {
      total += count;
      char part[96];
      std::snprintf(part, sizeof(part), "  %s %.1f", name.c_str(), static_cast<double>(count) / elapsed);
      if (count > 0) line += part;
    }
    std::printf("%s daemon allocations: %.1f per s%s%s (virtual sound card's own, not counted: %.1f per s)\n", names[i],
                static_cast<double>(total) / elapsed, line.empty() ? "" : "; per s by thread:", line.c_str(),
                static_cast<double>(report.ignored) / elapsed);
    for (size_t k = 0; k < report.sites.size() && k < kSitesShown; ++k) {
      std::printf("    %6.1f per s  %s\n", static_cast<double>(report.sites[k].first) / elapsed,
                  report.sites[k].second.c_str());
    }
  }
  std::printf("(board roots and daemon logs: %s)\n", work.c_str());
  return 0;
}
