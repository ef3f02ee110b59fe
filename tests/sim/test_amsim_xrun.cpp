// The virtual sound card's xruns, recovery, non-blocking mode and descriptor hygiene.
#include <unistd.h>

#include "test_amsim_support.h"

namespace amsim_test {
namespace {

class AmsimXrun : public AmsimEnv {};

// Keeps writing (blocking) until an error or timeout_s; returns the error or 0.
long play_until_error(snd_pcm_t* pcm, size_t fb, double timeout_s) {
  int64_t end = now_ns() + static_cast<int64_t>(timeout_s * 1e9);
  while (now_ns() < end) {
    long n = write_all(pcm, nullptr, 240, fb);
    if (n < 0) return n;
  }
  return 0;
}

long capture_until_error(snd_pcm_t* pcm, size_t fb, double timeout_s) {
  std::vector<uint8_t> buf(240 * fb);
  int64_t end = now_ns() + static_cast<int64_t>(timeout_s * 1e9);
  while (now_ns() < end) {
    snd_pcm_sframes_t n = snd_pcm_readi(pcm, buf.data(), 240);
    if (n < 0) return n;
  }
  return 0;
}

TEST_F(AmsimXrun, StallFileGivesUnderrunAndPrepareRecovers) {
  PcmSetup s;
  snd_pcm_t* pcm = open_pcm("hw:1,0", SND_PCM_STREAM_PLAYBACK, s);
  ASSERT_NE(pcm, nullptr);
  const size_t fb = frame_bytes(s);
  EXPECT_EQ(play_until_error(pcm, fb, 0.3), 0);
  const std::string stall = board("/tmp/amsim/play1.stall");
  ASSERT_TRUE(write_file(stall, "400", 3));
  EXPECT_EQ(play_until_error(pcm, fb, 3.0), -EPIPE);
  EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_XRUN);
  EXPECT_NE(access(stall.c_str(), F_OK), 0) << "the stall file is removed when the stall ends";
  ASSERT_EQ(snd_pcm_prepare(pcm), 0);
  EXPECT_EQ(play_until_error(pcm, fb, 0.5), 0);
  EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_RUNNING);
  snd_pcm_close(pcm);
}

TEST_F(AmsimXrun, StallFileGivesOverrunAndRecoverRestarts) {
  PcmSetup s;
  snd_pcm_t* pcm = open_pcm("hw:2,0", SND_PCM_STREAM_CAPTURE, s);
  ASSERT_NE(pcm, nullptr);
  const size_t fb = frame_bytes(s);
  EXPECT_EQ(capture_until_error(pcm, fb, 0.3), 0);
  ASSERT_TRUE(write_file(board("/tmp/amsim/cap2.stall"), "400", 3));
  EXPECT_EQ(capture_until_error(pcm, fb, 3.0), -EPIPE);
  ASSERT_EQ(snd_pcm_recover(pcm, -EPIPE, 1), 0);
  EXPECT_EQ(capture_until_error(pcm, fb, 0.5), 0);
  snd_pcm_close(pcm);
}

TEST_F(AmsimXrun, LateWriterUnderrunsAndDrainEndsEarlyStream) {
  PcmSetup s;
  snd_pcm_t* pcm = open_pcm("hw:3,0", SND_PCM_STREAM_PLAYBACK, s);
  ASSERT_NE(pcm, nullptr);
  const size_t fb = frame_bytes(s);
  ASSERT_EQ(write_all(pcm, nullptr, 2400, fb), 2400);  // 50 ms
  usleep(150000);
  snd_pcm_sframes_t avail = snd_pcm_avail_update(pcm);
  EXPECT_EQ(avail, -EPIPE);
  EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_XRUN);
  EXPECT_EQ(snd_pcm_writei(pcm, std::vector<uint8_t>(240 * fb).data(), 240), -EPIPE);
  ASSERT_EQ(snd_pcm_prepare(pcm), 0);
  ASSERT_EQ(write_all(pcm, nullptr, 4800, fb), 4800);  // 100 ms, then drain
  int64_t t0 = now_ns();
  EXPECT_EQ(snd_pcm_drain(pcm), 0);
  double ms = static_cast<double>(now_ns() - t0) / 1e6;
  EXPECT_GT(ms, 60.0);
  EXPECT_LT(ms, 400.0);
  EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_SETUP);
  snd_pcm_close(pcm);
}

TEST_F(AmsimXrun, NonBlockingModeReturnsEagain) {
  PcmSetup s;
  s.nonblock = true;
  s.start_threshold = 1u << 30;  // never starts by itself
  snd_pcm_t* play = open_pcm("hw:1,0", SND_PCM_STREAM_PLAYBACK, s);
  ASSERT_NE(play, nullptr);
  const size_t fb = frame_bytes(s);
  std::vector<uint8_t> buf(9600 * fb);
  EXPECT_EQ(snd_pcm_writei(play, buf.data(), 9600), 9600);
  ASSERT_EQ(snd_pcm_start(play), 0);
  EXPECT_EQ(snd_pcm_writei(play, buf.data(), 240), -EAGAIN);  // full: less than a period free
  usleep(30000);
  snd_pcm_sframes_t n = snd_pcm_writei(play, buf.data(), 9600);
  EXPECT_GT(n, 240);
  EXPECT_LT(n, 9600);
  snd_pcm_close(play);

  s.start_threshold = 1;
  snd_pcm_t* cap = open_pcm("hw:1,0", SND_PCM_STREAM_CAPTURE, s);
  ASSERT_NE(cap, nullptr);
  ASSERT_EQ(snd_pcm_start(cap), 0);
  EXPECT_EQ(snd_pcm_readi(cap, buf.data(), 240), -EAGAIN);
  EXPECT_EQ(snd_pcm_wait(cap, 1000), 1);
  EXPECT_EQ(snd_pcm_readi(cap, buf.data(), 240), 240);
  snd_pcm_close(cap);
}

TEST_F(AmsimXrun, ThreeHundredOpenCloseCyclesLeakNoDescriptor) {
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
  int before = open_fd_count();
  for (int i = 0; i < 300; i++) ASSERT_TRUE(cycle(i)) << "cycle " << i;
  EXPECT_EQ(open_fd_count(), before);
}

}  // namespace
}  // namespace amsim_test
