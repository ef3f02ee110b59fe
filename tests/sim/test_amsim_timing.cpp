// The virtual sound card keeps real time: play and capture durations, delay, trigger time stamps,
// crystal error and the genlock synthesiser's frequency.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <functional>
#include <thread>

#include "test_amsim_support.h"

namespace amsim_test {
namespace {

class AmsimTiming : public AmsimEnv {};

constexpr int kAttempts = 3;  // a loaded machine may wake us late once; a wrong pace fails each time

// Runs measure() up to kAttempts times until the result lies within [lo, hi]; returns the last.
double measure_within(const std::function<double()>& measure, double lo, double hi) {
  double v = 0.0;
  for (int i = 0; i < kAttempts; i++) {
    v = measure();
    if (v >= lo && v <= hi) break;
  }
  return v;
}

double play_one_second() {
  PcmSetup s;
  snd_pcm_t* pcm = open_pcm("hw:1,0", SND_PCM_STREAM_PLAYBACK, s);
  if (pcm == nullptr) return -1.0;
  int64_t t0 = now_ns();
  long n = write_all(pcm, nullptr, 48000, frame_bytes(s));
  EXPECT_EQ(n, 48000);
  EXPECT_EQ(snd_pcm_drain(pcm), 0);
  double secs = static_cast<double>(now_ns() - t0) / 1e9;
  snd_pcm_close(pcm);
  return secs;
}

double capture_one_second() {
  PcmSetup s;
  snd_pcm_t* pcm = open_pcm("hw:1,0", SND_PCM_STREAM_CAPTURE, s);
  if (pcm == nullptr) return -1.0;
  std::vector<uint8_t> buf(48000 * frame_bytes(s));
  int64_t t0 = now_ns();
  size_t done = 0;
  while (done < 48000) {
    snd_pcm_sframes_t n = snd_pcm_readi(pcm, buf.data() + done * frame_bytes(s), 48000 - done);
    if (n < 0) {
      ADD_FAILURE() << snd_strerror(static_cast<int>(n));
      break;
    }
    done += static_cast<size_t>(n);
  }
  double secs = static_cast<double>(now_ns() - t0) / 1e9;
  snd_pcm_close(pcm);
  return secs;
}

TEST_F(AmsimTiming, OneSecondOfAudioTakesOneSecondToPlayAndToCapture) {
  EXPECT_NEAR(measure_within(play_one_second, 0.98, 1.02), 1.0, 0.02);
  EXPECT_NEAR(measure_within(capture_one_second, 0.98, 1.02), 1.0, 0.02);
}

TEST_F(AmsimTiming, DelayFallsAtRealTimePaceAndTriggerIsStamped) {
  PcmSetup s;
  s.start_threshold = 9600;
  snd_pcm_t* pcm = open_pcm("hw:2,0", SND_PCM_STREAM_PLAYBACK, s);
  ASSERT_NE(pcm, nullptr);
  snd_pcm_status_t* st;
  snd_pcm_status_alloca(&st);
  int64_t before = now_ns();
  ASSERT_EQ(write_all(pcm, nullptr, 9600, frame_bytes(s)), 9600);  // full buffer: starts
  int64_t after = now_ns();
  ASSERT_EQ(snd_pcm_status(pcm, st), 0);
  EXPECT_EQ(snd_pcm_status_get_state(st), SND_PCM_STATE_RUNNING);
  snd_htimestamp_t trig;
  snd_pcm_status_get_trigger_htstamp(st, &trig);
  EXPECT_GE(to_ns(trig), before);
  EXPECT_LE(to_ns(trig), after);
  // The I/O plugin layer samples the position again for the delay: a few frames may pass between.
  EXPECT_NEAR(snd_pcm_status_get_delay(st) + snd_pcm_status_get_avail(st), 9600, 48);

  auto rate_frames_per_ms = [&]() {
    snd_htimestamp_t t1, t2;
    snd_pcm_status(pcm, st);
    snd_pcm_status_get_htstamp(st, &t1);
    snd_pcm_sframes_t d1 = snd_pcm_status_get_delay(st);
    usleep(60000);
    snd_pcm_status(pcm, st);
    snd_pcm_status_get_htstamp(st, &t2);
    snd_pcm_sframes_t d2 = snd_pcm_status_get_delay(st);
    return static_cast<double>(d1 - d2) / (static_cast<double>(to_ns(t2) - to_ns(t1)) / 1e6);
  };
  double rate = rate_frames_per_ms();
  EXPECT_NEAR(rate, 48.0, 0.5);
  snd_pcm_sframes_t delay = 0;
  EXPECT_EQ(snd_pcm_delay(pcm, &delay), 0);
  EXPECT_GT(delay, 0);
  EXPECT_LT(delay, 9600 - 2880);  // more than 60 ms played
  snd_pcm_close(pcm);
}

// Keeps a playback card's buffer full and measures its pace (played frames per nominal frame)
// over the windows [start, end] in seconds after the start; at switch_at, runs on_switch.
struct PaceRun {
  const char* device;
  unsigned int rate;
  std::vector<std::pair<double, double>> windows;
  double switch_at = -1.0;
  std::function<void()> on_switch;
  std::vector<double> paces;
};

struct Sample {
  int64_t ns;
  double played;
};

Sample sample(snd_pcm_t* pcm, long written) {
  snd_pcm_status_t* st;
  snd_pcm_status_alloca(&st);
  snd_pcm_status(pcm, st);
  snd_htimestamp_t ts;
  snd_pcm_status_get_htstamp(st, &ts);
  return {to_ns(ts), static_cast<double>(written - snd_pcm_status_get_delay(st))};
}

void run_pace(PaceRun* run) {
  PcmSetup s;
  s.rate = run->rate;
  s.start_threshold = 1;
  snd_pcm_t* pcm = open_pcm(run->device, SND_PCM_STREAM_PLAYBACK, s);
  if (pcm == nullptr) return;
  const size_t fb = frame_bytes(s);
  long written = write_all(pcm, nullptr, 4096, fb);
  int64_t t0 = now_ns();
  std::vector<std::pair<Sample, Sample>> marks(run->windows.size());
  std::vector<int> taken(run->windows.size(), 0);
  bool switched = run->switch_at < 0;
  double end = run->windows.back().second;
  for (;;) {
    double t = static_cast<double>(now_ns() - t0) / 1e9;
    if (!switched && t >= run->switch_at) {
      run->on_switch();
      switched = true;
    }
    for (size_t i = 0; i < run->windows.size(); i++) {
      if (taken[i] == 0 && t >= run->windows[i].first) {
        marks[i].first = sample(pcm, written);
        taken[i] = 1;
      } else if (taken[i] == 1 && t >= run->windows[i].second) {
        marks[i].second = sample(pcm, written);
        taken[i] = 2;
      }
    }
    if (t >= end) break;
    snd_pcm_wait(pcm, 50);
    snd_pcm_sframes_t avail = snd_pcm_avail_update(pcm);
    if (avail < 0) {
      ADD_FAILURE() << run->device << ": " << snd_strerror(static_cast<int>(avail));
      break;
    }
    long n = write_all(pcm, nullptr, static_cast<size_t>(avail), fb);
    if (n < 0) {
      ADD_FAILURE() << run->device << ": " << snd_strerror(static_cast<int>(n));
      break;
    }
    written += n;
  }
  for (const auto& m : marks) {
    double secs = static_cast<double>(m.second.ns - m.first.ns) / 1e9;
    run->paces.push_back((m.second.played - m.first.played) / (secs * run->rate));
  }
  snd_pcm_close(pcm);
}

// Multisynth registers (8 bytes from the first parameter register) of the synthesiser.
constexpr uint8_t kMs48kNominal[8] = {0x01, 0x00, 0x20, 0x10, 0x4F, 0x00, 0x00, 0x80};
// 24,566,400 Hz: 48000 Hz stepped down by 2400 Hz (P1 4177, P2 283, P3 853, R 4).
constexpr uint8_t kMs48kMinus2400[8] = {0x03, 0x55, 0x20, 0x10, 0x51, 0x00, 0x01, 0x1B};
// 22,588,600 Hz: the 44.1 kHz family's +9600 Hz row (P1 4587, P2 103643, P3 112943, R 4).
constexpr uint8_t kMs44k1Plus9600[8] = {0xB9, 0x2F, 0x20, 0x11, 0xEB, 0x11, 0x94, 0xDB};
constexpr long kSi5351Base = 0x60 * 256;

TEST_F(AmsimTiming, CrystalErrorAndSynthesiserFrequencySetThePace) {
  const std::string bus = board("/dev/i2c-1");
  ASSERT_TRUE(write_file(bus, kMs48kNominal, 8, kSi5351Base + 58));     // channel 3, MS2
  ASSERT_TRUE(write_file(bus, kMs44k1Plus9600, 8, kSi5351Base + 50));   // channel 2, MS1
  set_env("AMSIM_RATE_PPM_PLAY1", "1000");
  set_env("AMSIM_RATE_PPM_2", "-1000");
  set_env("AMSIM_SI5351_CHANNEL_PLAY0", "2");  // hw:0,0 follows channel 2
  set_env("AMSIM_TIMELOG_PLAY3", "/tmp/amsim/play3.log");

  PaceRun fast{"hw:1,0", 48000, {{0.5, 10.5}}, -1.0, nullptr, {}};
  PaceRun slow{"hw:2,0", 48000, {{0.5, 10.5}}, -1.0, nullptr, {}};
  PaceRun genlock{"hw:3,0", 48000, {{0.3, 3.0}, {3.4, 10.4}}, 3.2,
                  [&] { write_file(bus, kMs48kMinus2400, 8, kSi5351Base + 58); }, {}};
  PaceRun family{"hw:0,0", 44100, {{0.5, 10.5}}, -1.0, nullptr, {}};
  std::thread t1(run_pace, &fast), t2(run_pace, &slow), t3(run_pace, &genlock),
      t4(run_pace, &family);
  t1.join();
  t2.join();
  t3.join();
  t4.join();

  auto ppm = [](double pace) { return (pace - 1.0) * 1e6; };
  ASSERT_EQ(fast.paces.size(), 1u);
  ASSERT_EQ(slow.paces.size(), 1u);
  ASSERT_EQ(genlock.paces.size(), 2u);
  ASSERT_EQ(family.paces.size(), 1u);
  EXPECT_NEAR(ppm(fast.paces[0]), 1000.0, 100.0);
  EXPECT_NEAR(ppm(slow.paces[0]), -1000.0, 100.0);
  EXPECT_NEAR(ppm(genlock.paces[0]), 0.0, 100.0);
  EXPECT_NEAR(ppm(genlock.paces[1]), (24566400.0 / 24576000.0 - 1.0) * 1e6, 100.0);
  EXPECT_NEAR(ppm(family.paces[0]), (22588600.0 / 22579000.0 - 1.0) * 1e6, 100.0);
  std::printf("pace in ppm: %+.1f %+.1f %+.1f/%+.1f %+.1f\n", ppm(fast.paces[0]),
              ppm(slow.paces[0]), ppm(genlock.paces[0]), ppm(genlock.paces[1]),
              ppm(family.paces[0]));

  // The position stays continuous across the change: every 100 ms of audio in the time log took
  // between the nominal and the slowed duration, no more, no less.
  std::ifstream in(board("/tmp/amsim/play3.log"));
  std::vector<std::pair<long long, long long>> lines;
  long long pos = 0, ns = 0;
  while (in >> pos >> ns) lines.emplace_back(pos, ns);
  ASSERT_GT(lines.size(), 90u);
  const double slowed = 1e8 * 24576000.0 / 24566400.0;
  for (size_t i = 2; i + 1 < lines.size(); i++) {
    ASSERT_EQ(lines[i].first - lines[i - 1].first, 4800) << "line " << i;
    double dt = static_cast<double>(lines[i].second - lines[i - 1].second);
    EXPECT_GE(dt, 1e8 - 2.0) << "line " << i;
    EXPECT_LE(dt, slowed + 2.0) << "line " << i;
  }
  double last = static_cast<double>(lines[lines.size() - 2].second - lines[lines.size() - 3].second);
  EXPECT_NEAR(last, slowed, 2.0);
}

}  // namespace
}  // namespace amsim_test
