// The thread manager stops promptly while streams run: every engine run sees the stop within a
// bounded time, so the whole stop takes well under two seconds.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "qb_audio_aplay.h"
#include "qb_audio_main.h"
#include "qb_audio_misc.h"
#include "qb_audio_misc_stream.h"
#include "test_stream_helpers.h"

namespace {

// Inside the namespace: start the manager with one input and one output stream, wait until both
// runs stream, stop. Exit status: 0 when the stop took under 2 s, 1 when runs never started, 2
// when the stop was slow.
int start_stream_stop() {
  stream_test::Log log;
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
  qb_audio_channel_state_set(QB_AUDIO_CHN_NSO1, &r);
  qb_audio_channel_state_set(QB_AUDIO_CHN_NSI1, &r);
  qb_misc_net_stream_in1_ipaddr_set("239.77.0.5");
  qb_misc_net_stream_out1_ipaddr_set("239.77.0.6", "dev1");
  std::atomic<bool> stop{false};
  std::thread genlock(stream_test::fake_genlock, &stop);
  qb_audio_aplay_init();
  const bool streaming = am_test::wait_for(
      [&] { return log.count_prefix("playback_new,") > 0 && log.count_prefix("tx net init ok") > 0; }, 10000);
  usleep(500 * 1000);
  const auto t0 = std::chrono::steady_clock::now();
  qb_audio_aplay_uninit();
  const auto ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
  stop = true;
  genlock.join();
  if (!streaming) return 1;
  return ms < 2000 ? 0 : 2;
}

TEST(StreamStop, ManagerStopsWithinTwoSecondsWhileStreaming) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  if (!stream_test::have_card()) GTEST_SKIP() << "the virtual sound card is not built";
  am_test::TempRoot root({"dev", "tmp", "home", "misc"});
  am_test::NetNs ns;
  ASSERT_TRUE(ns.ok());
  ASSERT_EQ(0, std::system(("ip -n " + ns.name() + " route add 224.0.0.0/4 dev lo >/dev/null 2>&1").c_str()));
  stream_test::use_card(root);
  EXPECT_EQ(0, ns.run(start_stream_stop, 30000));
}

}  // namespace
