// Capture-to-playout latency: a capture engine and a playback engine in two network namespaces
// on the virtual sound card (root needed), at 48 kHz stereo and at 192 kHz with 8 channels; the
// playback card's outfile tells which capture frame each played frame carries, and the two cards'
// timelogs tell when each was captured and played. Prints the latency distribution next to the
// receiver's start level (the part of it the system prescribes); asserts nothing. The engines' logs
// go to the bench output folder.
#include <fcntl.h>
#include <sched.h>
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
#include "bench_util.h"
#include "multicast_route.h"
#include "qb_audio_main.h"
#include "qb_audio_misc.h"
#include "qb_audio_oper.h"

namespace {

constexpr const char* kGroup = "239.77.0.9";
constexpr int kSeconds = 6;
constexpr uint32_t kFrameMask = 0x1FFFFF;  // the capture pattern's frame counter (S24_LE)
constexpr int kPointsPerSecond = 100;      // latency samples per second of played audio
constexpr unsigned kPlayBufferTime = 200000;

struct Format {
  const char* name;
  unsigned rate, channels;
  qb_u8_t rate_code;  // the transport header's sample-frequency code (also IEC 60958 byte 3)
};

// Forks a child in namespace ns that runs one engine for `ms` milliseconds, its log in `log`.
pid_t start_engine(const Format& f, const std::string& ns, bool capture, int ms, const std::string& log) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  bench::stderr_to(log);
  const int nsfd = open(("/var/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
  if (nsfd < 0 || setns(nsfd, CLONE_NEWNET) != 0) _exit(2);
  audio_board_id_set(1);
  qb_audio_misc_init();
  qb_audio_info r;
  std::memset(&r, 0, sizeof(r));
  r.Audio_On = 1;
  r.SampleFrequency = static_cast<qb_s8_t>(f.rate_code);
  r.ValidCh = static_cast<qb_s8_t>(f.channels);
  r.SampleSize = 24;
  r.io_in_use = 2;
  r.Audio_Type = static_cast<qb_s8_t>(0x80);
  r.ChStat[2] = static_cast<qb_s8_t>(f.rate_code);
  qb_audio_channel_state_set(capture ? QB_AUDIO_CHN_NSO1 : QB_AUDIO_CHN_NSI1, &r);
  static qb_audio_oper_ctrl_t ctrl;
  std::atomic<bool> stop{false};
  std::thread genlock(bench::fake_genlock, &stop);
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

// A card's timelog: when it reached which frame.
struct TimeLine {
  static constexpr double kPaceSlack = 1.1;  // a segment longer than its frames need spans a stall
  double rate;
  std::vector<std::pair<double, double>> points;  // frame, monotonic ns
  bool load(const std::string& path) {
    std::ifstream in(path);
    double f, t;
    while (in >> f >> t) points.emplace_back(f, t);
    return points.size() >= 2;
  }
  // Time of a frame, interpolated between the lines around it (-1 outside the log, or when the
  // card stood still in between: the last frames before an underrun or a stop).
  double time_of(double frame) const {
    for (size_t i = 1; i < points.size(); ++i) {
      const auto& a = points[i - 1];
      const auto& b = points[i];
      if (frame >= a.first && frame <= b.first && b.first > a.first) {
        if ((b.second - a.second) / 1e9 > kPaceSlack * (b.first - a.first) / rate) return -1;
        return a.second + (b.second - a.second) * (frame - a.first) / (b.first - a.first);
      }
    }
    return -1;
  }
};

// The receiver's start level in ms: the chunks it queues before playout starts, as the daemon
// computes them for the format (period from the play geometry, chunks from the start table).
double start_level_ms(const Format& f, int* chunks) {
  qb_audio_oper_ctrl_t ctrl;
  qb_audio_oper_default(&ctrl);
  ctrl.pcm.hwparams = {SND_PCM_FORMAT_S24_LE, f.channels, f.rate};
  ctrl.pcm.rhwparams = ctrl.pcm.hwparams;
  ctrl.pcm.buffer_time = kPlayBufferTime;
  ctrl.pcm.chunk_size = static_cast<snd_pcm_uframes_t>(f.rate) * get_period_time_play(&ctrl) / 1000000;
  ctrl.pcm.buffer_frames = static_cast<snd_pcm_uframes_t>(f.rate) * kPlayBufferTime / 1000000;
  *chunks = get_start_chunks(&ctrl);
  return 1000.0 * static_cast<double>(get_start_threshold_play(&ctrl)) / f.rate;
}

// One run of the format: the latencies in ms of the matched frames ("" or what failed).
std::string measure(const Format& f, const std::string& out, std::vector<double>* ms) {
  char root_tpl[] = "/tmp/am_latency_XXXXXX";
  const std::string root = mkdtemp(root_tpl);
  bench::sh("mkdir -p " + root + "/tmp " + root + "/home " + root + "/dev '" + root + MCAST_ROUTE_SYSFS_DIR + "'");
  setenv("AUDIO_MANAGER_ROOT", root.c_str(), 1);
  am_platform_reload();
  setenv("HOME", (root + "/home").c_str(), 1);
  const std::string tag = std::to_string(getpid());
  const std::string tx = "amlat-tx-" + tag, rx = "amlat-rx-" + tag;
  bench::sh("ip netns add " + tx);
  bench::sh("ip netns add " + rx);
  bench::sh("ip -n " + tx + " link add eth0 type veth peer name eth0 netns " + rx);
  for (const std::string& ns : {tx, rx}) {
    bench::sh("ip -n " + ns + " link set lo up");
    bench::sh("ip -n " + ns + " addr add 10.79.0." + std::string(ns == tx ? "1" : "2") + "/24 dev eth0");
    bench::sh("ip -n " + ns + " link set eth0 up");
    bench::sh("ip -n " + ns + " route add 224.0.0.0/4 dev eth0");
  }
  const std::string logs = out + "/latency-" + std::to_string(f.rate);
  std::fflush(stdout);
  const pid_t receiver = start_engine(f, rx, false, (kSeconds + 3) * 1000, logs + "-receiver.log");
  usleep(1500 * 1000);
  std::fflush(stdout);
  const pid_t sender = start_engine(f, tx, true, kSeconds * 1000, logs + "-sender.log");
  waitpid(sender, nullptr, 0);
  waitpid(receiver, nullptr, 0);
  bench::sh("ip netns del " + tx);
  bench::sh("ip netns del " + rx);

  TimeLine play{static_cast<double>(f.rate), {}}, cap{static_cast<double>(f.rate), {}};
  std::ifstream raw(root + "/tmp/play1.raw", std::ios::binary);
  const std::string played((std::istreambuf_iterator<char>(raw)), std::istreambuf_iterator<char>());
  const size_t frame_bytes = f.channels * 4;
  const bool have = play.load(root + "/tmp/play1.log") && cap.load(root + "/tmp/cap1.log");
  bench::sh("rm -rf " + root);
  if (!have || played.size() < frame_bytes) return "no timelogs or no audio played";
  const size_t frames = played.size() / frame_bytes;
  std::ofstream points(logs + "-points.txt");  // played second, latency ms
  for (size_t g = 0; g < frames; g += f.rate / kPointsPerSecond) {
    uint32_t c0, c1;
    std::memcpy(&c0, played.data() + g * frame_bytes, 4);
    std::memcpy(&c1, played.data() + g * frame_bytes + 4, 4);
    if (c0 == 0 && c1 == 0) continue;  // silence
    const double tp = play.time_of(static_cast<double>(g));
    const double tc = cap.time_of(static_cast<double>(c0 & kFrameMask));
    if (tp > 0 && tc > 0) {
      ms->push_back((tp - tc) / 1e6);
      points << static_cast<double>(g) / f.rate << ' ' << ms->back() << '\n';
    }
  }
  return ms->empty() ? "no frame could be matched" : "";
}

}  // namespace

int main() {
  if (geteuid() != 0) {
    std::printf("bench_stream_latency: needs root (network namespaces); skipped\n");
    return 0;
  }
  const std::string conf = bench::exe_dir() + "/../lib/asound.conf";
  if (access(conf.c_str(), R_OK) != 0) {
    std::printf("bench_stream_latency: no virtual sound card at %s; skipped\n", conf.c_str());
    return 0;
  }
  const std::string out = bench::out_dir();
  bench::stderr_to(out + "/bench_stream_latency.log");
  setenv("ALSA_CONFIG_PATH", ("/usr/share/alsa/alsa.conf:" + conf).c_str(), 1);
  setenv("AMSIM_OUTFILE_PLAY1", "/tmp/play1.raw", 1);
  setenv("AMSIM_TIMELOG_PLAY1", "/tmp/play1.log", 1);
  setenv("AMSIM_TIMELOG_CAP1", "/tmp/cap1.log", 1);

  const Format formats[] = {{"2ch/48k/24-bit", 48000, 2, 2}, {"8ch/192k/24-bit", 192000, 8, 14}};
  int status = 0;
  for (const Format& f : formats) {
    std::vector<double> ms;
    const std::string failed = measure(f, out, &ms);
    if (!failed.empty()) {
      std::printf("%-16s %s\n", f.name, failed.c_str());
      status = 1;
      continue;
    }
    std::sort(ms.begin(), ms.end());
    int chunks = 0;
    const double start = start_level_ms(f, &chunks);
    const double median = bench::quantile(ms, 0.5);
    std::printf("%-16s %4zu points  latency median %6.2f ms  p99 %6.2f ms  (min %.2f, max %.2f)   "
                "start level %d chunks = %.2f ms, beyond it (median) %.2f ms\n",
                f.name, ms.size(), median, bench::quantile(ms, 0.99), ms.front(), ms.back(), chunks, start,
                median - start);
  }
  return status;
}
