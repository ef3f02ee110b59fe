// End to end on two simulated boards: a stall of the receiver's playback card underruns it; the
// engine recovers the device in place (same run), logs how long the underrun lasted on the
// monotonic clock and how long the stream had run, and playback goes on.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "test_stream_helpers.h"

namespace {

constexpr int kStallMs = 300;  // longer than the 200 ms device buffer can bridge

// The number that follows `key` in `log` (first occurrence); -1 when absent.
double number_after(const std::string& log, const std::string& key) {
  const size_t at = log.find(key);
  return at == std::string::npos ? -1.0 : std::atof(log.c_str() + at + key.size());
}

TEST(StreamXrun, StalledPlaybackCardIsRecoveredInPlaceWithItsTiming) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  if (!stream_test::Bench::available()) GTEST_SKIP() << "the daemon, qb_genlock, amctl or the virtual card is not built";
  stream_test::Bench bench;
  const std::string failed = bench.start();
  ASSERT_EQ("", failed) << am_test::read_file(bench.work() + "/board.out");
  const int runs_before = stream_test::occurrences(bench.rx_log(), "playback_new,");
  ASSERT_GE(runs_before, 1);
  usleep(1000 * 1000);  // the stream has run for a while before the stall

  ASSERT_TRUE(am_test::make_dirs(bench.rx_root() + "/tmp/amsim"));
  ASSERT_TRUE(am_test::write_file(bench.rx_root() + "/tmp/amsim/play1.stall", std::to_string(kStallMs) + "\n"));
  ASSERT_TRUE(am_test::wait_for(
      [&] { return bench.rx_log().find("prepare ok after xrun, continue") != std::string::npos; }, 10000, 50))
      << bench.rx_log();
  const long played_at_recovery = bench.played_bytes();

  const std::string log = bench.rx_log();
  // The device's trigger time stamp is on the monotonic clock: the "uNderrun" form, never the
  // time-of-day form, with the time from the stop of the card to the engine's status read.
  EXPECT_EQ(std::string::npos, log.find("undErrun")) << log;
  const double underrun_ms = number_after(log, "hw:1,0 -- uNderrun!!! (at least ");
  ASSERT_GE(underrun_ms, 0.0) << log;
  EXPECT_LT(underrun_ms, 5000.0);
  // The trigger time stamp is that of the xrun, not of the start: the stream had run for at least
  // the second waited above plus the stall.
  const size_t past = log.find(" millseconds past from start to xrun trigger, chunk counts:");
  ASSERT_NE(std::string::npos, past) << log;
  size_t digits = past;
  while (digits > 0 && log[digits - 1] >= '0' && log[digits - 1] <= '9') --digits;
  const double ms_from_start = std::atof(log.c_str() + digits);
  EXPECT_GT(ms_from_start, 1000.0 + kStallMs - 200.0) << log;
  EXPECT_LT(ms_from_start, 60000.0) << log;
  std::printf("underrun at least %.3f ms long, %.0f ms after the start of the stream\n", underrun_ms, ms_from_start);

  // Playback goes on in the same run: the recording keeps growing and no new run was started.
  EXPECT_TRUE(am_test::wait_for([&] { return bench.played_bytes() > played_at_recovery + 48000 * 8; }, 10000, 100))
      << "a further second of audio played after the recovery";
  EXPECT_EQ(runs_before, stream_test::occurrences(bench.rx_log(), "playback_new,")) << bench.rx_log();
  EXPECT_EQ(std::string::npos, bench.rx_log().find("EPIPE aborting"));
}

}  // namespace
