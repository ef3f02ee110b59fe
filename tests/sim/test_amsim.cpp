// The virtual sound card (sim/alsa): what it moves (the capture test pattern, the looped input
// file, the recorded output, the time log), the negotiation the audio engine runs, real time (play
// and capture durations, delay, trigger time stamps, crystal error and the genlock synthesiser's
// frequency), xruns and recovery, non-blocking mode and descriptor hygiene. Positions are read with
// the clock on both sides (Stamped), so a preempted test thread does not spoil a measurement.
#include <alsa/asoundlib.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "am_test_env.h"
#include "am_test_paths.h"

namespace {

// A private HOME and board root and the built card configuration; the environment restored after.
class Amsim : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(root_.ok());
    set_env("HOME", root_.path());
    set_env("ALSA_CONFIG_PATH", std::string("/usr/share/alsa/alsa.conf:") + am_test::kLibDir + "/asound.conf");
  }
  void TearDown() override {
    for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) {
      if (it->second) setenv(it->first.c_str(), it->second->c_str(), 1);
      else unsetenv(it->first.c_str());
    }
  }
  std::string board(const std::string& path) const { return root_.at(path); }
  void set_env(const std::string& name, const std::string& value) {
    const char* old = getenv(name.c_str());
    saved_.emplace_back(name, old != nullptr ? std::make_unique<std::string>(old) : nullptr);
    setenv(name.c_str(), value.c_str(), 1);
  }

 private:
  am_test::TempRoot root_{{"tmp/amsim", "dev"}};
  std::vector<std::pair<std::string, std::unique_ptr<std::string>>> saved_;
};

struct PcmSetup {
  snd_pcm_format_t format = SND_PCM_FORMAT_S24_LE;
  unsigned int channels = 2;
  unsigned int rate = 48000;
  unsigned int period_us = 5000;
  unsigned int buffer_us = 200000;
  snd_pcm_uframes_t start_threshold = 1;
  bool nonblock = false;
  size_t frame_bytes() const { return channels * static_cast<size_t>(snd_pcm_format_physical_width(format)) / 8; }
};

// Opens and configures a PCM; nullptr (with a test failure) when that fails.
snd_pcm_t* open_pcm(const char* name, snd_pcm_stream_t stream, const PcmSetup& s) {
  snd_pcm_t* pcm = nullptr;
  const int err = snd_pcm_open(&pcm, name, stream, s.nonblock ? SND_PCM_NONBLOCK : 0);
  EXPECT_EQ(err, 0) << name << ": " << snd_strerror(err);
  if (err < 0) return nullptr;
  snd_pcm_hw_params_t* hw;
  snd_pcm_hw_params_alloca(&hw);
  unsigned int rate = s.rate, period = s.period_us, buffer = s.buffer_us;
  int dir = 0;
  snd_pcm_uframes_t buffer_frames = 0;
  bool ok = snd_pcm_hw_params_any(pcm, hw) >= 0 &&
            snd_pcm_hw_params_set_access(pcm, hw, SND_PCM_ACCESS_RW_INTERLEAVED) >= 0 &&
            snd_pcm_hw_params_set_format(pcm, hw, s.format) >= 0 &&
            snd_pcm_hw_params_set_channels(pcm, hw, s.channels) >= 0 &&
            snd_pcm_hw_params_set_rate_near(pcm, hw, &rate, &dir) >= 0 &&
            snd_pcm_hw_params_set_period_time_near(pcm, hw, &period, &(dir = 0)) >= 0 &&
            snd_pcm_hw_params_set_buffer_time_near(pcm, hw, &buffer, &(dir = 0)) >= 0 && snd_pcm_hw_params(pcm, hw) >= 0 &&
            snd_pcm_hw_params_get_buffer_size(hw, &buffer_frames) >= 0;
  snd_pcm_sw_params_t* sw;
  snd_pcm_sw_params_alloca(&sw);
  ok = ok && snd_pcm_sw_params_current(pcm, sw) >= 0 &&
       snd_pcm_sw_params_set_start_threshold(pcm, sw, s.start_threshold) >= 0 &&
       snd_pcm_sw_params_set_stop_threshold(pcm, sw, buffer_frames) >= 0 &&
       snd_pcm_sw_params_set_tstamp_mode(pcm, sw, SND_PCM_TSTAMP_ENABLE) >= 0 &&
       snd_pcm_sw_params_set_tstamp_type(pcm, sw, SND_PCM_TSTAMP_TYPE_MONOTONIC) >= 0 &&
       snd_pcm_sw_params(pcm, sw) >= 0 && snd_pcm_prepare(pcm) >= 0;
  EXPECT_TRUE(ok) << "set-up of " << name << " failed";
  if (!ok) {
    snd_pcm_close(pcm);
    return nullptr;
  }
  return pcm;
}

int64_t to_ns(const snd_htimestamp_t& ts) { return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec; }
int64_t now_ns() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return to_ns(ts);
}
int open_fd_count() {
  int n = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  while (dirent* e = readdir(dir)) n += e->d_name[0] != '.' ? 1 : 0;
  closedir(dir);
  return n - 1;  // the directory stream itself
}
bool write_file(const std::string& path, const void* data, size_t len, long offset = 0) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const bool ok = pwrite(fd, data, len, offset) == static_cast<ssize_t>(len);
  close(fd);
  return ok;
}
// "<frame> <ns>" lines of a card's time log.
std::vector<std::pair<long long, long long>> read_timelog(const std::string& path) {
  std::ifstream in(path);
  std::vector<std::pair<long long, long long>> lines;
  for (long long pos = 0, ns = 0; in >> pos >> ns;) lines.emplace_back(pos, ns);
  return lines;
}
// Writes frames from data (silence when null) / reads frames into data until all are moved;
// the first error or the number of frames moved.
long write_all(snd_pcm_t* pcm, const uint8_t* data, size_t frames, size_t frame_size) {
  static const std::vector<uint8_t> silence(65536, 0);
  size_t done = 0;
  while (done < frames) {
    size_t chunk = frames - done;
    if (data == nullptr && chunk * frame_size > silence.size()) chunk = silence.size() / frame_size;
    const snd_pcm_sframes_t n = snd_pcm_writei(pcm, data != nullptr ? data + done * frame_size : silence.data(), chunk);
    if (n < 0) return n;
    done += static_cast<size_t>(n);
  }
  return static_cast<long>(done);
}
long read_all(snd_pcm_t* pcm, uint8_t* data, size_t frames, size_t frame_size) {
  size_t done = 0;
  while (done < frames) {
    const snd_pcm_sframes_t n = snd_pcm_readi(pcm, data + done * frame_size, frames - done);
    if (n < 0) return n;
    done += static_cast<size_t>(n);
  }
  return static_cast<long>(done);
}

// A value read from the card with the monotonic time it was read at. A reading whose bracket of
// clock reads is wider than max_ns (the thread was preempted in between) is taken again.
struct Stamped {
  double ns;
  long value;
};
template <class Read>
Stamped stamped(Read read, int64_t max_ns = 100000) {
  for (int i = 0;; i++) {
    const int64_t before = now_ns();
    const long value = read();
    const int64_t after = now_ns();
    if (after - before <= max_ns || i == 1000) return {(before + after) / 2.0, value};
  }
}

// ---- data ----

std::vector<uint8_t> capture(const char* device, const PcmSetup& s, size_t frames) {
  std::vector<uint8_t> buf(frames * s.frame_bytes());
  snd_pcm_t* pcm = open_pcm(device, SND_PCM_STREAM_CAPTURE, s);
  if (pcm == nullptr) return {};
  const long n = read_all(pcm, buf.data(), frames, s.frame_bytes());
  EXPECT_EQ(n, static_cast<long>(frames)) << snd_strerror(static_cast<int>(n));
  snd_pcm_close(pcm);
  return buf;
}

TEST_F(Amsim, CapturePatternCarriesFrameAndChannelAndRoundTripsThroughOutfile) {
  set_env("AMSIM_OUTFILE_PLAY2", "/tmp/amsim/%d%c.raw");
  set_env("AMSIM_TIMELOG_PLAY2", "/tmp/amsim/%d%c.log");
  struct Row {
    snd_pcm_format_t format;
    unsigned channels;
    unsigned frame_bits;
  };
  for (const Row& c : {Row{SND_PCM_FORMAT_S24_LE, 2, 21}, Row{SND_PCM_FORMAT_S24_LE, 8, 21},
                       Row{SND_PCM_FORMAT_S16_LE, 6, 13}}) {
    SCOPED_TRACE(testing::Message() << c.channels << " ch " << snd_pcm_format_name(c.format));
    PcmSetup s;
    s.format = c.format;
    s.channels = c.channels;
    const size_t frames = 12000;  // more than one buffer, wraps the 16-bit frame field
    const size_t width = static_cast<size_t>(snd_pcm_format_physical_width(s.format)) / 8;
    std::vector<uint8_t> got = capture("hw:1,0", s, frames);
    ASSERT_EQ(got.size(), frames * s.frame_bytes());
    int bad = 0;
    for (size_t f = 0; f < frames; f++) {
      for (unsigned ch = 0; ch < c.channels; ch++) {
        const uint8_t* p = got.data() + f * s.frame_bytes() + ch * width;
        uint32_t v = 0;
        for (size_t i = 0; i < width; i++) v |= static_cast<uint32_t>(p[i]) << (8 * i);
        const uint32_t want = (ch << c.frame_bits) | (f & ((1u << c.frame_bits) - 1));
        if (v != want && bad++ < 5) ADD_FAILURE() << "frame " << f << " ch " << ch << ": " << v;
      }
    }
    EXPECT_EQ(bad, 0);

    snd_pcm_t* play = open_pcm("hw:2,0", SND_PCM_STREAM_PLAYBACK, s);
    ASSERT_NE(play, nullptr);
    const int64_t t0 = now_ns();
    ASSERT_EQ(write_all(play, got.data(), frames, s.frame_bytes()), static_cast<long>(frames));
    EXPECT_EQ(snd_pcm_drain(play), 0);
    const int64_t t1 = now_ns();
    snd_pcm_close(play);
    EXPECT_EQ(am_test::read_file(board("/tmp/amsim/play2.raw")),
              std::string(got.begin(), got.end()));
    // Time log: a start line, one line per 4800 frames exactly 100 ms apart, a stop line.
    const auto lines = read_timelog(board("/tmp/amsim/play2.log"));
    const std::vector<long long> positions = {0, 4800, 9600, 12000};
    ASSERT_EQ(lines.size(), positions.size());
    for (size_t i = 0; i < lines.size(); i++) EXPECT_EQ(lines[i].first, positions[i]);
    EXPECT_GE(lines.front().second, t0);
    EXPECT_NEAR(static_cast<double>(lines[2].second - lines[1].second), 1e8, 2.0);
    EXPECT_LE(lines.back().second, t1);
  }
}

TEST_F(Amsim, InfileIsCapturedInALoopAndAMissingOneRefusesTheOpen) {
  PcmSetup s;
  s.format = SND_PCM_FORMAT_S16_LE;
  std::vector<uint8_t> pattern(100 * s.frame_bytes());
  for (size_t i = 0; i < pattern.size(); i++) pattern[i] = static_cast<uint8_t>(i * 7 + 3);
  ASSERT_TRUE(write_file(board("/tmp/in3.raw"), pattern.data(), pattern.size()));
  set_env("AMSIM_INFILE_CAP3", "${AUDIO_MANAGER_ROOT}/tmp/in3.raw");
  std::vector<uint8_t> got = capture("hw:3,0", s, 250);
  ASSERT_EQ(got.size(), 250 * s.frame_bytes());
  for (size_t i = 0; i < got.size(); i++) ASSERT_EQ(got[i], pattern[i % pattern.size()]) << i;
  set_env("AMSIM_INFILE_CAP3", "/tmp/missing.raw");
  snd_pcm_t* pcm = nullptr;
  EXPECT_LT(snd_pcm_open(&pcm, "hw:3,0", SND_PCM_STREAM_CAPTURE, 0), 0);
}

// ---- real time ----

constexpr int kAttempts = 5;
constexpr double kOneSecondMax = 1.05;

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

TEST_F(Amsim, OneSecondOfAudioTakesOneSecondToPlayAndToCapture) {
  for (snd_pcm_stream_t stream : {SND_PCM_STREAM_PLAYBACK, SND_PCM_STREAM_CAPTURE}) {
    // The card's clock starts at the first transfer, so a run never takes less than the audio
    // (a fast card fails every attempt); a late wake-up on a loaded host only lengthens one
    // attempt, while a card running slow lengthens all of them.
    double secs = 0.0;
    for (int attempt = 0; attempt < kAttempts; attempt++) {
      secs = one_second(stream);
      ASSERT_GE(secs, 0.98) << snd_pcm_stream_name(stream);
      if (secs <= kOneSecondMax) break;
    }
    EXPECT_LE(secs, kOneSecondMax) << snd_pcm_stream_name(stream);
  }
}

TEST_F(Amsim, DelayFallsAtRealTimePaceAndTriggerIsStamped) {
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

// Multisynth registers (8 bytes from the first parameter register) of the synthesiser.
constexpr uint8_t kMs48kNominal[8] = {0x01, 0x00, 0x20, 0x10, 0x4F, 0x00, 0x00, 0x80};
// 24,566,400 Hz: 48000 Hz stepped down by 2400 Hz (P1 4177, P2 283, P3 853, R 4).
constexpr uint8_t kMs48kMinus2400[8] = {0x03, 0x55, 0x20, 0x10, 0x51, 0x00, 0x01, 0x1B};
// 22,588,600 Hz: the 44.1 kHz family's +9600 Hz row (P1 4587, P2 103643, P3 112943, R 4).
constexpr uint8_t kMs44k1Plus9600[8] = {0xB9, 0x2F, 0x20, 0x11, 0xEB, 0x11, 0x94, 0xDB};
constexpr long kSi5351Base = 0x60 * 256;

// The pace is read from the cards' time logs, whose stamps come from the card's own clock, not
// from when the test thread ran: a line per 1/10 s of audio, so a line's spacing is that tenth of
// a second on the card's clock. 1 ppm of it is 100 ns; the stamps are exact to a few ns.
constexpr double kPaceTolerancePpm = 1.0;

TEST_F(Amsim, CrystalErrorAndSynthesiserFrequencySetThePace) {
  const std::string bus = board("/dev/i2c-1");
  ASSERT_TRUE(write_file(bus, kMs48kNominal, 8, kSi5351Base + 58));    // channel 3, MS2
  ASSERT_TRUE(write_file(bus, kMs44k1Plus9600, 8, kSi5351Base + 50));  // channel 2, MS1
  set_env("AMSIM_RATE_PPM_PLAY1", "1000");
  set_env("AMSIM_RATE_PPM_2", "-1000");
  set_env("AMSIM_SI5351_CHANNEL_PLAY0", "2");  // hw:0,0 follows channel 2
  set_env("AMSIM_TIMELOG", "/tmp/amsim/%d%c.log");
  struct Card {
    const char* device;
    const char* timelog;
    unsigned rate;
    double ppm_before, ppm_after;  // before and after the synthesiser change at 1 s
  };
  const double slowed = (24566400.0 / 24576000.0 - 1.0) * 1e6;
  const Card cards[] = {{"hw:1,0", "/tmp/amsim/play1.log", 48000, 1000.0, 1000.0},
                        {"hw:2,0", "/tmp/amsim/play2.log", 48000, -1000.0, -1000.0},
                        {"hw:3,0", "/tmp/amsim/play3.log", 48000, 0.0, slowed},
                        {"hw:0,0", "/tmp/amsim/play0.log", 44100, (22588600.0 / 22579000.0 - 1.0) * 1e6,
                         (22588600.0 / 22579000.0 - 1.0) * 1e6}};
  std::vector<std::thread> players;
  for (const Card& c : cards) {
    players.emplace_back([&c] {  // 2 s of audio through a 1 s buffer, then drained
      PcmSetup s;
      s.rate = c.rate;
      s.buffer_us = 1000000;
      snd_pcm_t* pcm = open_pcm(c.device, SND_PCM_STREAM_PLAYBACK, s);
      if (pcm == nullptr) return;
      EXPECT_EQ(write_all(pcm, nullptr, 2 * c.rate, s.frame_bytes()), static_cast<long>(2 * c.rate)) << c.device;
      EXPECT_EQ(snd_pcm_drain(pcm), 0) << c.device;
      snd_pcm_close(pcm);
    });
  }
  usleep(1000 * 1000);
  ASSERT_TRUE(write_file(bus, kMs48kMinus2400, 8, kSi5351Base + 58));
  for (std::thread& t : players) t.join();
  for (const Card& c : cards) {
    SCOPED_TRACE(c.device);
    // Consecutive regular lines (an underrun's stop and start lines, where the counter stands
    // still, left out); the position stays continuous across the change: every line lies between
    // the two paces, the first at the one before, the last at the one after.
    std::vector<double> ppm;
    const auto lines = read_timelog(board(c.timelog));
    for (size_t i = 1; i < lines.size(); i++)
      if (lines[i].first - lines[i - 1].first == c.rate / 10)
        ppm.push_back((1e8 / static_cast<double>(lines[i].second - lines[i - 1].second) - 1.0) * 1e6);
    ASSERT_GE(ppm.size(), 15u);
    EXPECT_NEAR(ppm.front(), c.ppm_before, kPaceTolerancePpm);
    EXPECT_NEAR(ppm.back(), c.ppm_after, kPaceTolerancePpm);
    // The card re-anchors its clock at whole frames when the pace changes: the one line that
    // spans the change may be off by up to one frame; every other line is at one of the paces.
    const double frame_ppm = 1e6 / (c.rate / 10.0);
    int between = 0;
    for (double p : ppm) {
      EXPECT_GE(p, std::min(c.ppm_before, c.ppm_after) - frame_ppm);
      EXPECT_LE(p, std::max(c.ppm_before, c.ppm_after) + frame_ppm);
      between += std::fabs(p - c.ppm_before) > kPaceTolerancePpm && std::fabs(p - c.ppm_after) > kPaceTolerancePpm;
    }
    EXPECT_LE(between, c.ppm_before == c.ppm_after ? 0 : 1);
    std::printf("%s: %+.1f ppm, then %+.1f ppm\n", c.device, ppm.front(), ppm.back());
  }
}

// ---- xruns ----

// Keeps transferring 5 ms pieces (blocking) until an error or timeout_s; returns the error or 0.
long transfer_until_error(snd_pcm_t* pcm, size_t frame_bytes, double timeout_s) {
  std::vector<uint8_t> buf(240 * frame_bytes);
  const bool playback = snd_pcm_stream(pcm) == SND_PCM_STREAM_PLAYBACK;
  const int64_t end = now_ns() + static_cast<int64_t>(timeout_s * 1e9);
  while (now_ns() < end) {
    const long n =
        playback ? snd_pcm_writei(pcm, buf.data(), 240) : snd_pcm_readi(pcm, buf.data(), 240);
    if (n < 0) return n;
  }
  return 0;
}

TEST_F(Amsim, StallLongerThanTheBufferGivesEpipeAndTheCardRecovers) {
  struct Row {
    const char* device;
    snd_pcm_stream_t stream;
    const char* stall_file;
    bool use_recover;  // snd_pcm_recover instead of snd_pcm_prepare
  };
  for (const Row& row : {Row{"hw:1,0", SND_PCM_STREAM_PLAYBACK, "/tmp/amsim/play1.stall", false},
                         Row{"hw:2,0", SND_PCM_STREAM_CAPTURE, "/tmp/amsim/cap2.stall", true}}) {
    SCOPED_TRACE(row.device);
    PcmSetup s;
    s.buffer_us = 400000;  // 400 ms of slack for a late test thread; the stall is 1000 ms
    snd_pcm_t* pcm = open_pcm(row.device, row.stream, s);
    ASSERT_NE(pcm, nullptr);
    EXPECT_EQ(transfer_until_error(pcm, s.frame_bytes(), 0.3), 0);
    ASSERT_TRUE(write_file(board(row.stall_file), "1000", 4));
    EXPECT_EQ(transfer_until_error(pcm, s.frame_bytes(), 5.0), -EPIPE);
    EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_XRUN);
    EXPECT_NE(access(board(row.stall_file).c_str(), F_OK), 0) << "removed when the stall ends";
    ASSERT_EQ(row.use_recover ? snd_pcm_recover(pcm, -EPIPE, 1) : snd_pcm_prepare(pcm), 0);
    EXPECT_EQ(transfer_until_error(pcm, s.frame_bytes(), 0.5), 0);
    EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_RUNNING);
    snd_pcm_close(pcm);
  }
}

TEST_F(Amsim, LateWriterUnderrunsAndDrainWaitsForTheQueuedAudio) {
  PcmSetup s;
  snd_pcm_t* pcm = open_pcm("hw:3,0", SND_PCM_STREAM_PLAYBACK, s);
  ASSERT_NE(pcm, nullptr);
  ASSERT_EQ(write_all(pcm, nullptr, 2400, s.frame_bytes()), 2400);  // 50 ms
  usleep(150000);
  EXPECT_EQ(snd_pcm_avail_update(pcm), -EPIPE);
  EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_XRUN);
  EXPECT_EQ(write_all(pcm, nullptr, 240, s.frame_bytes()), -EPIPE);
  ASSERT_EQ(snd_pcm_prepare(pcm), 0);
  const int64_t t0 = now_ns();
  ASSERT_EQ(write_all(pcm, nullptr, 4800, s.frame_bytes()), 4800);  // 100 ms, then drain
  EXPECT_EQ(snd_pcm_drain(pcm), 0);
  const double ms = static_cast<double>(now_ns() - t0) / 1e6;
  EXPECT_GE(ms, 99.0);  // the card starts at the first write: never less than the audio
  EXPECT_LT(ms, 1000.0);  // a late wake-up on a loaded host only adds to it
  EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_SETUP);
  snd_pcm_close(pcm);
}

// Periods of 500 ms: a transfer asking for a period is refused until the card has moved that
// much, however late the test thread runs.
TEST_F(Amsim, NonBlockingModeReturnsEagain) {
  PcmSetup s;
  s.nonblock = true;
  s.period_us = 500000;
  s.buffer_us = 1000000;
  s.start_threshold = 1u << 30;  // started by snd_pcm_start only
  std::vector<uint8_t> buf(48000 * s.frame_bytes());
  snd_pcm_t* play = open_pcm("hw:1,0", SND_PCM_STREAM_PLAYBACK, s);
  ASSERT_NE(play, nullptr);
  EXPECT_EQ(snd_pcm_writei(play, buf.data(), 48000), 48000);
  ASSERT_EQ(snd_pcm_start(play), 0);
  EXPECT_EQ(snd_pcm_writei(play, buf.data(), 240), -EAGAIN);
  usleep(600000);
  const snd_pcm_sframes_t n = snd_pcm_writei(play, buf.data(), 48000);
  EXPECT_GE(n, 28800);  // at least the 600 ms slept have played (a later wake-up only adds)
  snd_pcm_close(play);

  snd_pcm_t* cap = open_pcm("hw:1,0", SND_PCM_STREAM_CAPTURE, s);
  ASSERT_NE(cap, nullptr);
  ASSERT_EQ(snd_pcm_start(cap), 0);
  EXPECT_EQ(snd_pcm_readi(cap, buf.data(), 24000), -EAGAIN);
  EXPECT_EQ(snd_pcm_wait(cap, 2000), 1);
  EXPECT_EQ(snd_pcm_readi(cap, buf.data(), 24000), 24000);
  snd_pcm_close(cap);
}

TEST_F(Amsim, ThreeHundredOpenCloseCyclesLeakNoDescriptor) {
  PcmSetup s;
  set_env("AMSIM_TIMELOG", "/tmp/amsim/%d%c.log");
  set_env("AMSIM_OUTFILE", "/tmp/amsim/%d%c.raw");
  auto cycle = [&](int i) {
    snd_pcm_stream_t dir = i % 2 == 0 ? SND_PCM_STREAM_PLAYBACK : SND_PCM_STREAM_CAPTURE;
    snd_pcm_t* pcm = open_pcm(i % 3 == 0 ? "hw:1,0" : "hw:2,0", dir, s);
    if (pcm == nullptr) return false;
    snd_pcm_start(pcm);
    snd_pcm_drop(pcm);
    return snd_pcm_close(pcm) == 0;
  };
  ASSERT_TRUE(cycle(0));  // loads the configuration and the module once
  const int before = open_fd_count();
  for (int i = 0; i < 300; i++) ASSERT_TRUE(cycle(i)) << "cycle " << i;
  EXPECT_EQ(open_fd_count(), before);
}

}  // namespace
