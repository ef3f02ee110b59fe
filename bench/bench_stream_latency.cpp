// Capture-to-playout latency: a capture engine and a playback engine in two network namespaces
// on the virtual sound card (root needed); the playback card's outfile tells which capture frame
// each played frame carries, and the two cards' timelogs tell when each was captured and played.
// Prints the latency distribution; asserts nothing.
#include <arpa/inet.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "am_log.h"
#include "am_platform.h"
#include "qb_audio_main.h"
#include "qb_audio_misc.h"
#include "qb_audio_oper.h"

namespace {

constexpr const char* kGroup = "239.77.0.9";
constexpr int kSeconds = 6;
constexpr uint32_t kFrameMask = 0x1FFFFF;

int sh(const std::string& cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()); }

std::string exe_dir() {
  char buf[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
  if (n <= 0) return ".";
  buf[n] = '\0';
  std::string p(buf);
  return p.substr(0, p.rfind('/'));
}

void fake_genlock(std::atomic<bool>* stop) {
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

// Forks a child in namespace ns that runs one engine for `ms` milliseconds.
pid_t start_engine(const std::string& ns, bool capture, int ms) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  const int nsfd = open(("/var/run/netns/" + ns).c_str(), O_RDONLY);
  if (nsfd < 0 || setns(nsfd, CLONE_NEWNET) != 0) _exit(2);
  audio_board_id_set(1);
  qb_audio_misc_init();
  qb_audio_info r;
  std::memset(&r, 0, sizeof(r));
  r.Audio_On = 1;
  r.SampleFrequency = 2;
  r.ValidCh = 2;
  r.SampleSize = 24;
  r.io_in_use = 2;
  r.Audio_Type = static_cast<qb_s8_t>(0x80);
  r.ChStat[2] = 2;
  qb_audio_channel_state_set(capture ? QB_AUDIO_CHN_NSO1 : QB_AUDIO_CHN_NSI1, &r);
  static qb_audio_oper_ctrl_t ctrl;
  std::atomic<bool> stop{false};
  std::thread genlock(fake_genlock, &stop);
  std::thread engine([&] {
    if (capture) {
      qb_audio_oper_capture(&ctrl, "hw:1,0", kGroup);
    } else {
      qb_audio_oper_playback(&ctrl, "hw:1,0", kGroup);
    }
  });
  usleep(static_cast<useconds_t>(ms) * 1000);
  qb_audio_oper_abort(&ctrl);
  engine.join();
  stop = true;
  genlock.join();
  _exit(0);
}

struct TimeLine {
  std::vector<std::pair<double, double>> points;  // frame, monotonic ns
  bool load(const std::string& path) {
    std::ifstream in(path);
    double f, t;
    while (in >> f >> t) points.emplace_back(f, t);
    return points.size() >= 2;
  }
  // Time of a frame, interpolated between the lines around it (-1 outside the log).
  double time_of(double frame) const {
    for (size_t i = 1; i < points.size(); ++i) {
      const auto& a = points[i - 1];
      const auto& b = points[i];
      if (frame >= a.first && frame <= b.first && b.first > a.first) {
        return a.second + (b.second - a.second) * (frame - a.first) / (b.first - a.first);
      }
    }
    return -1;
  }
};

void quiet(int, const char*, void*) {}

}  // namespace

int main() {
  if (geteuid() != 0) {
    std::printf("bench_stream_latency: needs root (network namespaces); skipped\n");
    return 0;
  }
  const std::string conf = exe_dir() + "/../lib/asound.conf";
  if (access(conf.c_str(), R_OK) != 0) {
    std::printf("bench_stream_latency: no virtual sound card at %s; skipped\n", conf.c_str());
    return 0;
  }
  char root_tpl[] = "/tmp/am_latency_XXXXXX";
  const std::string root = mkdtemp(root_tpl);
  sh("mkdir -p " + root + "/tmp " + root + "/home " + root + "/dev");
  setenv("AUDIO_MANAGER_ROOT", root.c_str(), 1);
  am_platform_reload();
  setenv("ALSA_CONFIG_PATH", ("/usr/share/alsa/alsa.conf:" + conf).c_str(), 1);
  setenv("HOME", (root + "/home").c_str(), 1);
  setenv("AMSIM_OUTFILE_PLAY1", "/tmp/play1.raw", 1);
  setenv("AMSIM_TIMELOG_PLAY1", "/tmp/play1.log", 1);
  setenv("AMSIM_TIMELOG_CAP1", "/tmp/cap1.log", 1);
  am_log_set_observer(quiet, nullptr);

  const std::string tx = "amlat-tx-" + std::to_string(getpid());
  const std::string rx = "amlat-rx-" + std::to_string(getpid());
  sh("ip netns add " + tx);
  sh("ip netns add " + rx);
  sh("ip -n " + tx + " link add eth0 type veth peer name eth0 netns " + rx);
  for (const std::string& ns : {tx, rx}) {
    sh("ip -n " + ns + " link set lo up");
    sh("ip -n " + ns + " addr add 10.79.0." + std::string(ns == tx ? "1" : "2") + "/24 dev eth0");
    sh("ip -n " + ns + " link set eth0 up");
    sh("ip -n " + ns + " route add 224.0.0.0/4 dev eth0");
  }
  const pid_t receiver = start_engine(rx, false, (kSeconds + 3) * 1000);
  usleep(1500 * 1000);
  const pid_t sender = start_engine(tx, true, kSeconds * 1000);
  waitpid(sender, nullptr, 0);
  waitpid(receiver, nullptr, 0);
  sh("ip netns del " + tx);
  sh("ip netns del " + rx);

  TimeLine play, cap;
  std::ifstream raw(root + "/tmp/play1.raw", std::ios::binary);
  const std::string played((std::istreambuf_iterator<char>(raw)), std::istreambuf_iterator<char>());
  if (!play.load(root + "/tmp/play1.log") || !cap.load(root + "/tmp/cap1.log") || played.size() < 8) {
    std::printf("bench_stream_latency: no timelogs or no audio played\n");
    sh("rm -rf " + root);
    return 1;
  }
  std::vector<double> ms;
  const size_t frames = played.size() / 8;
  for (size_t g = 0; g < frames; g += 480) {
    uint32_t c0, c1;
    std::memcpy(&c0, played.data() + g * 8, 4);
    std::memcpy(&c1, played.data() + g * 8 + 4, 4);
    if (c0 == 0 && c1 == 0) continue;  // silence
    const double tp = play.time_of(static_cast<double>(g));
    const double tc = cap.time_of(static_cast<double>(c0 & kFrameMask));
    if (tp > 0 && tc > 0) ms.push_back((tp - tc) / 1e6);
  }
  sh("rm -rf " + root);
  if (ms.empty()) {
    std::printf("bench_stream_latency: no frame could be matched\n");
    return 1;
  }
  std::sort(ms.begin(), ms.end());
  double sum = 0;
  for (double v : ms) sum += v;
  std::printf("capture-to-playout latency, 2ch/48k/24-bit, %zu points: min %.2f ms  median %.2f ms  mean %.2f ms  "
              "p95 %.2f ms  max %.2f ms\n",
              ms.size(), ms.front(), ms[ms.size() / 2], sum / static_cast<double>(ms.size()), ms[ms.size() * 95 / 100],
              ms.back());
  return 0;
}
