// End to end on two simulated boards: SIGTERM stops the real daemon while it streams (the
// transmitter captures and sends, the receiver plays) within two seconds, with exit status 0 and
// the stop sequence in the log: the termination line, every audio worker's exit, then the misc
// module's uninit.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "test_stream_helpers.h"

namespace {

constexpr int kStopLimitMs = 2000;

// Position of `text` in `log` after `from`; npos when absent.
size_t after(const std::string& log, const std::string& text, size_t from) {
  return from == std::string::npos ? std::string::npos : log.find(text, from);
}

// SIGTERM to the board's daemon; the time until it is gone, or -1 when it outlives 10 s.
long stop_ms(const stream_test::Bench& bench, const std::string& name) {
  const int pid = bench.daemon_pid(name);
  if (pid <= 0 || kill(pid, SIGTERM) != 0) return -1;
  const auto t0 = std::chrono::steady_clock::now();
  // The board's watcher reaps the daemon; until then the pid answers signal 0.
  if (!am_test::wait_for([&] { return kill(pid, 0) != 0 && !bench.daemon_status(name).empty(); }, 10000, 5))
    return -1;
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count());
}

void expect_stop_sequence(const std::string& log, const std::vector<std::string>& workers) {
  const size_t term = log.find("Terminating Exit...");
  ASSERT_NE(std::string::npos, term) << log;
  size_t last_worker = term;
  for (const std::string& w : workers) {
    const size_t at = after(log, w, term);
    EXPECT_NE(std::string::npos, at) << "after the termination line: " << w;
    if (at != std::string::npos && at > last_worker) last_worker = at;
  }
  EXPECT_NE(std::string::npos, after(log, "audio aplay ctrl thread exit", term));
  EXPECT_NE(std::string::npos, after(log, "spdif register map uninit", last_worker))
      << "the misc module stops after every audio thread";
}

TEST(StreamSigterm, DaemonStopsWithinTwoSecondsWhileStreaming) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  if (!stream_test::Bench::available()) GTEST_SKIP() << "the daemon, qb_genlock, amctl or the virtual card is not built";
  stream_test::Bench bench;
  const std::string failed = bench.start();
  ASSERT_EQ("", failed) << am_test::read_file(bench.work() + "/board.out");
  ASSERT_NE(std::string::npos, bench.tx_log().find("tx net init ok")) << "the transmitter sends";
  usleep(500 * 1000);

  const long rx_ms = stop_ms(bench, "rx");
  const long tx_ms = stop_ms(bench, "tx");
  std::printf("SIGTERM to exit: receiver %ld ms, transmitter %ld ms\n", rx_ms, tx_ms);
  ASSERT_GE(rx_ms, 0) << "the receiver's daemon did not stop";
  ASSERT_GE(tx_ms, 0) << "the transmitter's daemon did not stop";
  EXPECT_LT(rx_ms, kStopLimitMs);
  EXPECT_LT(tx_ms, kStopLimitMs);
  EXPECT_EQ("0", bench.daemon_status("rx"));
  EXPECT_EQ("0", bench.daemon_status("tx"));

  const std::vector<std::string> workers = {"playback thread hw:1,0:0 exit", "playback thread hw:2,0:1 exit",
                                            "playback thread hw:3,0:2 exit", "audio capture idx[0]",
                                            "audio capture idx[1]",          "audio capture idx[2]"};
  SCOPED_TRACE("receiver");
  expect_stop_sequence(bench.rx_log(), workers);
  SCOPED_TRACE("transmitter");
  expect_stop_sequence(bench.tx_log(), workers);
}

}  // namespace
