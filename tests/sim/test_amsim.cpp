// The virtual sound card (sim/alsa) as the daemon tests rely on it: real-time pace, and an xrun
// after a stall that the card recovers from (its crystal error is measured by the steering test).
#include <alsa/asoundlib.h>
#include "am_test_sys.h"
#include <ctime>

namespace {

constexpr unsigned kRate = 48000;
constexpr size_t kFrameBytes = 8;  // S24_LE stereo
constexpr int kAttempts = 5;
constexpr double kOneSecondMax = 1.05;

int64_t now_ns() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

class Amsim : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(root_.ok());
    setenv("HOME", root_.path().c_str(), 1);
    setenv("ALSA_CONFIG_PATH", (std::string("/usr/share/alsa/alsa.conf:") + am_test::kLibDir + "/asound.conf").c_str(), 1);
  }
  am_test::TempRoot root_{{"tmp/amsim", "dev"}};
};

snd_pcm_t* open_pcm(const char* name, snd_pcm_stream_t stream, unsigned buffer_us) {
  snd_pcm_t* pcm = nullptr;
  if (snd_pcm_open(&pcm, name, stream, 0) < 0) return nullptr;
  if (snd_pcm_set_params(pcm, SND_PCM_FORMAT_S24_LE, SND_PCM_ACCESS_RW_INTERLEAVED, 2, kRate, 0, buffer_us) < 0) {
    snd_pcm_close(pcm);
    return nullptr;
  }
  return pcm;
}

// Blocking 5 ms transfers until an error or timeout_s; the error or 0.
long transfer(snd_pcm_t* pcm, double timeout_s, long frames_max = -1) {
  std::vector<uint8_t> buf(240 * kFrameBytes);
  const bool play = snd_pcm_stream(pcm) == SND_PCM_STREAM_PLAYBACK;
  const int64_t end = now_ns() + static_cast<int64_t>(timeout_s * 1e9);
  for (long done = 0; now_ns() < end && (frames_max < 0 || done < frames_max); done += 240) {
    const long n = play ? snd_pcm_writei(pcm, buf.data(), 240) : snd_pcm_readi(pcm, buf.data(), 240);
    if (n < 0) return n;
  }
  return 0;
}

TEST_F(Amsim, OneSecondOfAudioTakesOneSecondToPlayAndToCapture) {
  for (snd_pcm_stream_t stream : {SND_PCM_STREAM_PLAYBACK, SND_PCM_STREAM_CAPTURE}) {
    // A late wake-up lengthens one attempt, a slow card all of them; a fast card fails every one.
    double secs = 0.0;
    for (int attempt = 0; attempt < kAttempts && (attempt == 0 || secs > kOneSecondMax); attempt++) {
      snd_pcm_t* pcm = open_pcm("hw:1,0", stream, 200000);
      ASSERT_NE(pcm, nullptr);
      const int64_t t0 = now_ns();
      EXPECT_EQ(transfer(pcm, 10.0, kRate), 0);
      EXPECT_EQ(stream == SND_PCM_STREAM_PLAYBACK ? snd_pcm_drain(pcm) : 0, 0);
      secs = static_cast<double>(now_ns() - t0) / 1e9;
      snd_pcm_close(pcm);
      ASSERT_GE(secs, 0.98) << snd_pcm_stream_name(stream);
    }
    EXPECT_LE(secs, kOneSecondMax) << snd_pcm_stream_name(stream);
  }
}

TEST_F(Amsim, StallLongerThanTheBufferGivesEpipeAndTheCardRecovers) {
  struct Row {
    const char* device;
    snd_pcm_stream_t stream;
    const char* stall_file;
  };
  for (const Row& row : {Row{"hw:1,0", SND_PCM_STREAM_PLAYBACK, "/tmp/amsim/play1.stall"},
                         Row{"hw:2,0", SND_PCM_STREAM_CAPTURE, "/tmp/amsim/cap2.stall"}}) {
    SCOPED_TRACE(row.device);
    snd_pcm_t* pcm = open_pcm(row.device, row.stream, 400000);  // 400 ms of slack; the stall is 1 s
    ASSERT_NE(pcm, nullptr);
    EXPECT_EQ(transfer(pcm, 0.3), 0);
    ASSERT_TRUE(am_test::write_file(root_.at(row.stall_file), "1000"));
    EXPECT_EQ(transfer(pcm, 5.0), -EPIPE);
    EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_XRUN);
    EXPECT_NE(access(root_.at(row.stall_file).c_str(), F_OK), 0) << "removed when the stall ends";
    ASSERT_EQ(snd_pcm_recover(pcm, -EPIPE, 1), 0);
    EXPECT_EQ(transfer(pcm, 0.5), 0);
    EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_RUNNING);
    snd_pcm_close(pcm);
  }
}

// fail_after 4 periods in stall mode: capture (1 s buffer, 4 periods) moves exactly 4 periods, then
// nothing, without an overrun. Unplugged cards are played and captured by the stream boards test.
TEST_F(Amsim, FailAfterPeriodsInStallModeMovesExactlyThatMuchThenNothing) {
  setenv("AMSIM_FAIL_AFTER_CAP2", "4", 1);
  setenv("AMSIM_FAIL_MODE_CAP2", "stall", 1);
  snd_pcm_t* cap = open_pcm("hw:2,0", SND_PCM_STREAM_CAPTURE, 1000000);
  snd_pcm_uframes_t buffer = 0, period = 0;
  ASSERT_TRUE(cap != nullptr && snd_pcm_get_params(cap, &buffer, &period) == 0);
  EXPECT_EQ(transfer(cap, 5.0, static_cast<long>(2 * period)), 0);
  usleep(1500 * 1000);
  EXPECT_EQ(snd_pcm_avail(cap), static_cast<snd_pcm_sframes_t>(2 * period)) << "nothing after the 4th period";
  EXPECT_EQ(snd_pcm_state(cap), SND_PCM_STATE_RUNNING);
  snd_pcm_close(cap);
}

}  // namespace
