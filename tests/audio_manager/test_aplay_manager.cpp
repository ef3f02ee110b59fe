// The thread manager: stop flags of the entry points, the input-change entry, start and stop of
// all threads, and the record dumps.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "qb_audio_aplay.h"
#include "test_oper_helpers.h"

namespace {

class Aplay : public engine_test::RoutingEnv {
 protected:
  void TearDown() override {
    qb_audio_aplay_uninit();
    RoutingEnv::TearDown();
  }
  qb_audio_aplay_main_ctrl_t* m = qb_audio_aplay_ctrl_get();
};

int aborting(const qb_audio_oper_ctrl_t& c) { return c.in_aborting.load(); }

void clear_flags(qb_audio_aplay_main_ctrl_t* m) {
  for (int i = 0; i < 3; ++i) {
    m->pctrl[i].in_aborting.store(0);
    m->cctrl[i].in_aborting.store(0);
  }
}

TEST_F(Aplay, AbortEntriesReachOnlyTheirEngine) {
  clear_flags(m);
  qb_audio_aplay_in_abort_capture5();
  EXPECT_EQ(1, aborting(m->cctrl[2]));
  EXPECT_EQ(0, aborting(m->cctrl[0]) + aborting(m->cctrl[1]) + aborting(m->pctrl[2]));
  clear_flags(m);
  qb_audio_aplay_in_abort_capture1();
  qb_audio_aplay_in_abort_playback3();
  EXPECT_EQ(1, aborting(m->cctrl[0]));
  EXPECT_EQ(1, aborting(m->pctrl[1]));
  EXPECT_EQ(0, aborting(m->pctrl[0]) + aborting(m->pctrl[2]) + aborting(m->cctrl[1]));
  clear_flags(m);
}

TEST_F(Aplay, InputChangeEndsOneRunAndInvalidatesTheChannel) {
  clear_flags(m);
  qb_audio_info r = engine_test::record(2, 2, 0x80);
  r.ChStat[0] = 4;
  ASSERT_EQ(1, qb_audio_channel_state_set(7, &r));
  ASSERT_EQ(1, qb_misc_audio_status_valid_get(7));
  qb_audio_aplay_info_change_set(7);
  EXPECT_EQ(1, aborting(m->pctrl[1]));
  EXPECT_EQ(0, aborting(m->pctrl[0]) + aborting(m->pctrl[2]));
  qb_audio_info after;
  ASSERT_EQ(1, qb_audio_channel_state_copy(7, &after));
  EXPECT_EQ(0, after.ChStat[0]);
  EXPECT_EQ(0, qb_misc_audio_status_valid_get(7));
  clear_flags(m);
  qb_audio_aplay_info_change_set(9);
  qb_audio_aplay_info_change_set(5);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(0, aborting(m->pctrl[i]));
}

TEST_F(Aplay, IdleWorkersStartAndStopQuicklyAndUninitTwiceIsHarmless) {
  const auto t0 = std::chrono::steady_clock::now();
  ASSERT_EQ(1, qb_audio_aplay_init());
  EXPECT_EQ(1, m->init.load());
  // Empty addresses: every worker waits; none opens a device.
  EXPECT_TRUE(am_test::wait_for([&] { return m->ptid[2].load() != 0 && m->ctid[2].load() != 0 && m->tid.load() != 0; },
                                3000));
  const auto t1 = std::chrono::steady_clock::now();
  EXPECT_EQ(1, qb_audio_aplay_uninit());
  const auto stop_ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t1).count();
  EXPECT_LT(stop_ms, 1500) << "the stop must not wait for a full idle second per worker";
  EXPECT_EQ(0, m->init.load());
  EXPECT_EQ(0, qb_audio_aplay_uninit());
  EXPECT_EQ(1, log.count("audio aplay ctrl thread exit"));
  EXPECT_EQ(1, log.count("playback thread hw:2,0:1 exit"));
  EXPECT_EQ(0, log.count_prefix("qb_audio_oper_playback,"));
  EXPECT_EQ(0, qb_audio_oper_shutdown_get());
  (void)t0;
}

TEST_F(Aplay, DumpsListEveryEngine) {
  char* text = nullptr;
  size_t size = 0;
  FILE* f = open_memstream(&text, &size);
  ASSERT_NE(nullptr, f);
  dump_aplay_param(f);
  dump_capture_param(f);
  dump_playback_param(nullptr);
  fclose(f);
  const std::string out(text, size);
  free(text);
  EXPECT_EQ(0u, out.find("dump aplay param begin\n"));
  EXPECT_NE(std::string::npos, out.find("dump capture param begin\n"));
  size_t blocks = 0;
  for (size_t at = out.find("pid:"); at != std::string::npos; at = out.find("pid:", at + 1)) ++blocks;
  EXPECT_EQ(9u, blocks);
  EXPECT_NE(std::string::npos, out.find("command=(null),pcm_name=(null),handle=(nil),hwparams format="));
  EXPECT_NE(std::string::npos, out.find("Rolling_Sample_Data_Size_Total="));
  EXPECT_NE(std::string::npos, out.find("chunkCountPlay="));
}

}  // namespace
