// The virtual sound card's xruns, recovery, non-blocking mode and descriptor hygiene.
#include <unistd.h>

#include "test_amsim_support.h"

namespace amsim_test {
namespace {

class AmsimXrun : public AmsimEnv {};

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

TEST_F(AmsimXrun, StallLongerThanTheBufferGivesEpipeAndTheCardRecovers) {
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

TEST_F(AmsimXrun, LateWriterUnderrunsAndDrainWaitsForTheQueuedAudio) {
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
  EXPECT_GE(ms, 99.0);
  EXPECT_LT(ms, 400.0);
  EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_SETUP);
  snd_pcm_close(pcm);
}

// Periods of 500 ms: a transfer asking for a period is refused until the card has moved that
// much, however late the test thread runs.
TEST_F(AmsimXrun, NonBlockingModeReturnsEagain) {
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
  EXPECT_GE(n, 28800);  // the 600 ms played
  EXPECT_LT(n, 48000);
  snd_pcm_close(play);

  snd_pcm_t* cap = open_pcm("hw:1,0", SND_PCM_STREAM_CAPTURE, s);
  ASSERT_NE(cap, nullptr);
  ASSERT_EQ(snd_pcm_start(cap), 0);
  EXPECT_EQ(snd_pcm_readi(cap, buf.data(), 24000), -EAGAIN);
  EXPECT_EQ(snd_pcm_wait(cap, 2000), 1);
  EXPECT_EQ(snd_pcm_readi(cap, buf.data(), 24000), 24000);
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
  const int before = open_fd_count();
  for (int i = 0; i < 300; i++) ASSERT_TRUE(cycle(i)) << "cycle " << i;
  EXPECT_EQ(open_fd_count(), before);
}

}  // namespace
}  // namespace amsim_test
