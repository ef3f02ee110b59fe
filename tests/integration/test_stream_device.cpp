// The engine on the virtual sound card: playback negotiation (worked example and the buffer-time
// limits), and recovery from an underrun caused by a stalled card.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "am_log.h"
#include "am_test_env.h"
#include "am_test_paths.h"
#include "qb_audio_buf.h"
#include "qb_audio_oper.h"
#include "qb_audio_oper_playback.h"
#include "test_stream_helpers.h"

namespace {

using stream_test::Log;

class Card : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!stream_test::have_card()) GTEST_SKIP() << "the virtual sound card is not built";
    stream_test::use_card(root);
    unsetenv("AMSIM_MAX_BUFFER_BYTES_PLAY1");
    qb_audio_oper_default(&ctrl);
    ctrl.pcm_name = "hw:1,0";
    ctrl.stream = SND_PCM_STREAM_PLAYBACK;
    ctrl.open_mode = SND_PCM_NONBLOCK;
    ctrl.file_param_num = 1;
  }
  void TearDown() override {
    if (ctrl.init || ctrl.handle != nullptr) qb_audio_oper_general_uninit(&ctrl);
    unsetenv("AMSIM_MAX_BUFFER_BYTES_PLAY1");
  }
  int open_and_set() {
    if (qb_audio_oper_general_init(&ctrl) != 0) return -100;
    return set_params_play(&ctrl);
  }

  am_test::TempRoot root{{"dev", "tmp", "home"}};
  qb_audio_oper_ctrl_t ctrl;
  Log log;
};

TEST_F(Card, WorkedExampleOnTheCard) {
  ASSERT_EQ(0, open_and_set());
  EXPECT_EQ(200000u, ctrl.buffer_time);
  EXPECT_EQ(5000u, ctrl.period_time);
  EXPECT_EQ(240u, ctrl.chunk_size);
  EXPECT_EQ(1920u, ctrl.chunk_bytes);
  EXPECT_EQ(1440, ctrl.start_delay);
  EXPECT_EQ(9600u, ctrl.buffer_frames);
  EXPECT_EQ(70u, ctrl.pAudBuf->slot_count());
  EXPECT_EQ(1920, ctrl.incStartNum);
  EXPECT_EQ(1200, ctrl.decStopNum);
  EXPECT_EQ(1, log.count("hw buffer size:9600, start threshold:1440, stop threshold:9600"));
}

TEST_F(Card, BufferBelowTenMillisecondsCannotPlay) {
  setenv("AMSIM_MAX_BUFFER_BYTES_PLAY1", "3832", 1);  // 479 frames: 9979 us at 48 kHz stereo
  EXPECT_EQ(-1, open_and_set());
  EXPECT_EQ(1, log.count_prefix("get buffer time:99"));
}

TEST_F(Card, BufferOf35MillisecondsPlaysWithLongerPeriods) {
  setenv("AMSIM_MAX_BUFFER_BYTES_PLAY1", "13440", 1);  // 1680 frames: 35000 us
  ASSERT_EQ(0, open_and_set());
  EXPECT_EQ(35000u, ctrl.max_buffer_time);
  EXPECT_EQ(1, log.count("buffer time:30000 less than 40000"));
  EXPECT_EQ(7500u, ctrl.period_time);
  EXPECT_EQ(360u, ctrl.chunk_size);
}

TEST_F(Card, StalledCardUnderrunsAndPlaybackRecovers) {
  ASSERT_EQ(0, open_and_set());
  clock_gettime(CLOCK_MONOTONIC, &ctrl.tsStartPlay);
  std::vector<uint8_t> chunk(ctrl.chunk_bytes, 0);
  const std::string stall = root.at("/tmp/amsim/play1.stall");
  bool stalled = false;
  const auto deadline = time(nullptr) + 5;
  while (time(nullptr) < deadline && log.count("prepare ok after xrun, continue") == 0) {
    const snd_pcm_sframes_t r = pcm_write(&ctrl, chunk.data(), ctrl.chunk_size);
    ASSERT_GE(r, 0);
    if (r == 0) usleep(2000);
    if (!stalled && ctrl.chunkCountPlay++ > 100) {
      ASSERT_TRUE(am_test::make_dirs(root.at("/tmp/amsim")));
      ASSERT_TRUE(am_test::write_file(stall, "400\n"));
      stalled = true;
    }
  }
  EXPECT_EQ(1, log.count("prepare ok after xrun, continue"));
  EXPECT_EQ(1, log.count_prefix("undErrun!!! (at least ") + log.count("hw:1,0 -- uNderrun!!!", true));
  EXPECT_EQ(0, ctrl.in_aborting.load());
  // Playback goes on after the recovery.
  int written = 0;
  for (int i = 0; i < 200 && written < 10; ++i) {
    const snd_pcm_sframes_t r = pcm_write(&ctrl, chunk.data(), ctrl.chunk_size);
    if (r > 0) ++written; else usleep(2000);
  }
  EXPECT_EQ(10, written);
}

TEST_F(Card, ShortWriteIsPaddedToAWholeChunk) {
  ASSERT_EQ(0, open_and_set());
  std::vector<uint8_t> chunk(ctrl.chunk_bytes, 0x11);
  EXPECT_EQ(static_cast<snd_pcm_sframes_t>(ctrl.chunk_size), pcm_write(&ctrl, chunk.data(), 100));
  EXPECT_EQ(1, log.count("cout=100 not equal chunk size=240, silence"));
  EXPECT_EQ(0x11, chunk[100 * 8 - 1]);
  EXPECT_EQ(0x00, chunk[100 * 8]);  // S24_LE silence is zero
  EXPECT_EQ(0, pcm_write(&ctrl, chunk.data(), 0));
}

}  // namespace
