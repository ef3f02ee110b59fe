// The virtual sound card keeps real time: play and capture durations, delay, trigger time stamps,
// crystal error and the genlock synthesiser's frequency. Positions are read with the clock on
// both sides (Stamped), so a preempted test thread does not spoil a measurement.
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <thread>

#include "test_amsim_support.h"

namespace amsim_test {
namespace {

class AmsimTiming : public AmsimEnv {};

// Seconds from the first transfer to the end of 1 s of audio, played or captured.
double one_second(snd_pcm_stream_t stream) {
  PcmSetup s;
  snd_pcm_t* pcm = open_pcm("hw:1,0", stream, s);
  if (pcm == nullptr) return -1.0;
  std::vector<uint8_t> buf(48000 * s.frame_bytes());
  const int64_t t0 = now_ns();
  long n = stream == SND_PCM_STREAM_PLAYBACK ? write_all(pcm, nullptr, 48000, s.frame_bytes())
                                             : read_all(pcm, buf.data(), 48000, s.frame_bytes());
  EXPECT_EQ(n, 48000);
  if (stream == SND_PCM_STREAM_PLAYBACK) {
    EXPECT_EQ(snd_pcm_drain(pcm), 0);
  }
  const double secs = static_cast<double>(now_ns() - t0) / 1e9;
  snd_pcm_close(pcm);
  return secs;
}

TEST_F(AmsimTiming, OneSecondOfAudioTakesOneSecondToPlayAndToCapture) {
  for (snd_pcm_stream_t stream : {SND_PCM_STREAM_PLAYBACK, SND_PCM_STREAM_CAPTURE}) {
    // A late wake-up only lengthens a run: the card being too fast fails every attempt, a late
    // wake-up spoils one of them.
    double secs = 0.0;
    for (int attempt = 0; attempt < 4; attempt++) {
      secs = one_second(stream);
      ASSERT_GE(secs, 0.98) << snd_pcm_stream_name(stream);
      if (secs <= 1.02) break;
    }
    EXPECT_LE(secs, 1.02) << snd_pcm_stream_name(stream);
  }
}

TEST_F(AmsimTiming, DelayFallsAtRealTimePaceAndTriggerIsStamped) {
  PcmSetup s;
  s.buffer_us = 1000000;  // 1 s queued: the test thread may be late by most of it
  s.start_threshold = 48000;
  snd_pcm_t* pcm = open_pcm("hw:2,0", SND_PCM_STREAM_PLAYBACK, s);
  ASSERT_NE(pcm, nullptr);
  const int64_t before = now_ns();
  ASSERT_EQ(write_all(pcm, nullptr, 48000, s.frame_bytes()), 48000);  // full buffer: starts
  const int64_t after = now_ns();
  snd_pcm_status_t* st;
  snd_pcm_status_alloca(&st);
  ASSERT_EQ(snd_pcm_status(pcm, st), 0);
  EXPECT_EQ(snd_pcm_status_get_state(st), SND_PCM_STATE_RUNNING);
  snd_htimestamp_t trigger;
  snd_pcm_status_get_trigger_htstamp(st, &trigger);
  EXPECT_GE(to_ns(trigger), before);
  EXPECT_LE(to_ns(trigger), after);

  auto delay = [&] {
    snd_pcm_sframes_t d = -1;
    return snd_pcm_delay(pcm, &d) == 0 ? static_cast<long>(d) : -1L;
  };
  const Stamped a = stamped(delay);
  usleep(300000);
  const Stamped b = stamped(delay);
  ASSERT_GT(b.value, 0);
  EXPECT_NEAR(static_cast<double>(a.value - b.value) / ((b.ns - a.ns) / 1e6), 48.0, 0.5);
  snd_pcm_close(pcm);
}

// Keeps a playback card's 1 s buffer full and measures its pace (played frames per nominal
// frame) over windows in seconds after the start; at switch_at, runs on_switch.
struct PaceRun {
  const char* device;
  unsigned int rate;
  std::vector<std::pair<double, double>> windows;
  std::vector<double> expected_ppm;
  double switch_at;
  std::function<void()> on_switch;
  std::vector<double> ppm;
};

void run_pace(PaceRun* run) {
  PcmSetup s;
  s.rate = run->rate;
  s.period_us = 50000;
  s.buffer_us = 1000000;
  snd_pcm_t* pcm = open_pcm(run->device, SND_PCM_STREAM_PLAYBACK, s);
  if (pcm == nullptr) return;
  long written = write_all(pcm, nullptr, run->rate / 2, s.frame_bytes());
  auto played = [&] {
    snd_pcm_sframes_t d = 0;
    return snd_pcm_delay(pcm, &d) == 0 ? written - static_cast<long>(d) : -1L;
  };
  const int64_t t0 = now_ns();
  std::vector<Stamped> marks;
  for (;;) {
    const double t = static_cast<double>(now_ns() - t0) / 1e9;
    if (run->switch_at >= 0 && t >= run->switch_at) {
      run->on_switch();
      run->switch_at = -1.0;
    }
    const size_t w = marks.size() / 2;
    if (w == run->windows.size()) break;
    if (t >= (marks.size() % 2 == 0 ? run->windows[w].first : run->windows[w].second))
      marks.push_back(stamped(played));
    snd_pcm_wait(pcm, 20);
    const snd_pcm_sframes_t avail = snd_pcm_avail_update(pcm);
    const long n = avail < 0 ? avail : write_all(pcm, nullptr, avail, s.frame_bytes());
    if (n < 0) {
      ADD_FAILURE() << run->device << ": " << snd_strerror(static_cast<int>(n));
      break;
    }
    written += n;
  }
  for (size_t i = 0; i + 1 < marks.size(); i += 2) {
    const double nominal = (marks[i + 1].ns - marks[i].ns) / 1e9 * run->rate;
    run->ppm.push_back(((marks[i + 1].value - marks[i].value) / nominal - 1.0) * 1e6);
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
  ASSERT_TRUE(write_file(bus, kMs48kNominal, 8, kSi5351Base + 58));    // channel 3, MS2
  ASSERT_TRUE(write_file(bus, kMs44k1Plus9600, 8, kSi5351Base + 50));  // channel 2, MS1
  set_env("AMSIM_RATE_PPM_PLAY1", "1000");
  set_env("AMSIM_RATE_PPM_2", "-1000");
  set_env("AMSIM_SI5351_CHANNEL_PLAY0", "2");  // hw:0,0 follows channel 2
  set_env("AMSIM_TIMELOG_PLAY3", "/tmp/amsim/play3.log");

  const double slowed_ppm = (24566400.0 / 24576000.0 - 1.0) * 1e6;
  PaceRun runs[] = {
      {"hw:1,0", 48000, {{0.5, 10.5}}, {1000.0}, -1.0, nullptr, {}},
      {"hw:2,0", 48000, {{0.5, 10.5}}, {-1000.0}, -1.0, nullptr, {}},
      {"hw:3,0", 48000, {{0.2, 4.0}, {4.4, 10.4}}, {0.0, slowed_ppm}, 4.2,
       [&] { write_file(bus, kMs48kMinus2400, 8, kSi5351Base + 58); }, {}},
      {"hw:0,0", 44100, {{0.5, 10.5}}, {(22588600.0 / 22579000.0 - 1.0) * 1e6}, -1.0, nullptr, {}},
  };
  std::vector<std::thread> threads;
  for (PaceRun& run : runs) threads.emplace_back(run_pace, &run);
  for (std::thread& t : threads) t.join();
  for (const PaceRun& run : runs) {
    ASSERT_EQ(run.ppm.size(), run.expected_ppm.size()) << run.device;
    for (size_t i = 0; i < run.ppm.size(); i++) {
      EXPECT_NEAR(run.ppm[i], run.expected_ppm[i], 100.0) << run.device << " window " << i;
      std::printf("%s window %zu: %+.1f ppm\n", run.device, i, run.ppm[i]);
    }
  }

  // The position stays continuous across the change: every 100 ms of audio in the time log
  // took between the nominal and the slowed duration, and the last ones the slowed duration.
  const auto lines = read_timelog(board("/tmp/amsim/play3.log"));
  ASSERT_GT(lines.size(), 90u);
  const double slowed = 1e8 * 24576000.0 / 24566400.0;
  for (size_t i = 2; i + 1 < lines.size(); i++) {
    ASSERT_EQ(lines[i].first - lines[i - 1].first, 4800) << "line " << i;
    const double dt = static_cast<double>(lines[i].second - lines[i - 1].second);
    EXPECT_GE(dt, 1e8 - 2.0) << "line " << i;
    EXPECT_LE(dt, slowed + 2.0) << "line " << i;
  }
  const size_t n = lines.size();
  EXPECT_NEAR(static_cast<double>(lines[n - 2].second - lines[n - 3].second), slowed, 2.0);
}

}  // namespace
}  // namespace amsim_test
