// The command socket: receiving one datagram (oversized and empty datagrams, draining), and the
// command thread's life (serving 9994, leaving on the exit flag, pacing without a socket).
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "am_test_env.h"
#include "qb_audio_main.h"
#include "qb_audio_parse.h"
#include "test_frame_log_capture.h"

namespace {

using am_test_frame::LogCapture;

// A message whose outer type is 3: always logged as "invalid cmd", whatever the handlers do.
std::vector<uint8_t> invalid_cmd_message() {
  return {0x03, 0, 0, 0, 0x0C, 0, 0, 0, 0x02, 0, 0x02, 0, 0x04, 0, 0, 0, 1, 2, 3, 4};
}

struct sockaddr_in loopback(uint16_t port) {
  struct sockaddr_in addr;
  std::memset(&addr, 0, sizeof(addr));
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return addr;
}

bool send_to(int fd, const struct sockaddr_in& to, const std::vector<uint8_t>& bytes) {
  const ssize_t n = sendto(fd, bytes.data(), bytes.size(), 0,
                           reinterpret_cast<const struct sockaddr*>(&to), sizeof(to));
  return n == static_cast<ssize_t>(bytes.size());
}

// The command socket stand-in: a UDP socket on an ephemeral loopback port, installed as the
// daemon's command socket for the test.
class EphemeralCmdSocket {
 public:
  EphemeralCmdSocket() {
    fd_ = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in addr = loopback(0);
    if (fd_ >= 0 && bind(fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0) {
      socklen_t len = sizeof(addr_);
      getsockname(fd_, reinterpret_cast<struct sockaddr*>(&addr_), &len);
      audio_cmd_fd_set(fd_);
    }
  }
  ~EphemeralCmdSocket() {
    audio_cmd_fd_set(0);
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  bool ok() const { return fd_ >= 0 && addr_.sin_port != 0; }
  const struct sockaddr_in& addr() const { return addr_; }

 private:
  int fd_ = -1;
  struct sockaddr_in addr_ {};
};

TEST(ParseReceive, OversizedAndEmptyDatagramsAreErrorsAndTheNextOneIsServed) {
  EphemeralCmdSocket cmd_sock;
  ASSERT_TRUE(cmd_sock.ok());
  const int tx = socket(AF_INET, SOCK_DGRAM, 0);
  ASSERT_GE(tx, 0);
  LogCapture log;
  std::vector<uint8_t> full = invalid_cmd_message();
  full.resize(QB_AUDIO_CMD_BUF_SIZE, 0);
  for (const std::vector<uint8_t>& d : {std::vector<uint8_t>(1500, 0x02), invalid_cmd_message(),
                                        std::vector<uint8_t>{}, full}) {
    ASSERT_TRUE(send_to(tx, cmd_sock.addr(), d));
  }
  EXPECT_EQ(audio_proc(), 1);  // 1500 bytes: refused and drained
  EXPECT_EQ(log.count("audio recv err:"), 1);
  EXPECT_EQ(log.count("drop cmd datagram of 1500 bytes"), 1);
  EXPECT_EQ(audio_proc(), 1);
  EXPECT_EQ(log.count("invalid cmd"), 1);
  EXPECT_EQ(audio_proc(), 1);  // empty: an error, nothing drained
  EXPECT_EQ(log.count("audio recv err:"), 2);
  EXPECT_EQ(log.count("drop cmd datagram"), 1);
  EXPECT_EQ(audio_proc(), 1);  // exactly the buffer size is served
  EXPECT_EQ(log.count("invalid cmd"), 2);
  EXPECT_EQ(log.count("audio recv err:"), 2);
  close(tx);
}

// Runs fn in a forked child and returns its exit status, or -1 when it crashed or ran past
// timeout_ms (then it is killed).
int run_in_child(const std::function<int()>& fn, int timeout_ms) {
  const pid_t pid = fork();
  if (pid == 0) {
    std::_Exit(fn());
  }
  if (pid < 0) {
    return -1;
  }
  int status = 0;
  if (!am_test::wait_for([&] { return waitpid(pid, &status, WNOHANG) == pid; }, timeout_ms)) {
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Runs the command thread until `exit` is set; returns false when it did not end in time.
bool stop_cmd_thread(std::thread& thread, std::atomic<bool>& ended) {
  audio_exit_set(1);
  const bool stopped = am_test::wait_for([&] { return ended.load(); }, 5000);
  if (stopped) {
    thread.join();
  } else {
    thread.detach();
  }
  return stopped;
}

// Needs root and network namespaces: the thread binds the daemon's port 9994.
TEST(ParseCmdThread, ServesPort9994AndLeavesOnTheExitFlag) {
  if (!am_test::have_netns()) {
    GTEST_SKIP() << "needs root and network namespaces (binds 127.0.0.1:9994 in its own namespace)";
  }
  am_test::NetNs ns;
  ASSERT_TRUE(ns.ok());
  const int rc = ns.run([] {
    LogCapture log;
    audio_exit_set(0);
    std::atomic<bool> ended{false};
    std::thread thread([&] {
      qb_cmd_audio_task1(nullptr);
      ended = true;
    });
    if (!am_test::wait_for([&] { return log.count("audio task thread id") == 1; }, 5000)) {
      return 10;
    }
    if (audio_cmd_fd_get() <= 0 || log.count("socket err") != 0) {
      return 11;
    }
    const int tx = socket(AF_INET, SOCK_DGRAM, 0);
    for (const size_t size : {2000, 0, 65507}) {  // refused, then drained, one after the other
      if (!send_to(tx, loopback(QB_AUDIO_CMD_PORT), std::vector<uint8_t>(size, 0x55))) {
        return 12;
      }
    }
    if (!send_to(tx, loopback(QB_AUDIO_CMD_PORT), invalid_cmd_message())) {
      return 12;
    }
    if (!am_test::wait_for([&] { return log.count("invalid cmd") == 1; }, 5000)) {
      return 13;
    }
    if (log.count("drop cmd datagram of 2000 bytes") != 1 ||
        log.count("drop cmd datagram of 65507 bytes") != 1) {
      return 14;
    }
    if (!stop_cmd_thread(thread, ended)) {
      return 15;
    }
    return audio_cmd_fd_get() == 0 ? 0 : 16;
  });
  EXPECT_EQ(rc, 0) << "10 no start log, 11 socket, 12 send, 13 no dispatch, 14 no drain, "
                      "15 did not stop, 16 socket not closed";
}

double process_cpu_seconds() {
  struct timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

TEST(ParseCmdThread, WithoutASocketTheLoopPausesInsteadOfSpinning) {
  const int rc = run_in_child(
      [] {
        // Use up every descriptor so that the thread cannot create its socket. The thread itself
        // is created first and the descriptors are given back before it is stopped, so that
        // thread creation and the run-time never miss one. One message is logged first: the
        // sanitizer's type check of the log category needs a descriptor the first time only.
        AM_LOG_INFO("command thread test: descriptors used up next");
        struct rlimit lim {64, 64};
        if (setrlimit(RLIMIT_NOFILE, &lim) != 0) {
          return 20;
        }
        LogCapture log;
        audio_exit_set(0);
        std::atomic<bool> go{false};
        std::atomic<bool> ended{false};
        std::thread thread([&] {
          while (!go) {
            usleep(1000);
          }
          qb_cmd_audio_task1(nullptr);
          ended = true;
        });
        std::vector<int> held;
        held.reserve(64);
        for (int fd = open("/dev/null", O_RDONLY); fd >= 0; fd = open("/dev/null", O_RDONLY)) {
          held.push_back(fd);
        }
        const double cpu_before = process_cpu_seconds();
        go = true;
        sleep(3);
        const double cpu_used = process_cpu_seconds() - cpu_before;
        for (const int fd : held) {
          close(fd);
        }
        if (log.count("create socket err") != 1 || log.count("bind socket err") != 1) {
          return 21;
        }
        if (cpu_used > 1.0) {  // a spinning loop burns the whole 3 s
          return 22;
        }
        return stop_cmd_thread(thread, ended) ? 0 : 23;
      },
      20000);
  EXPECT_EQ(rc, 0) << "20 setrlimit, 21 missing socket error logs, 22 loop spins, 23 did not stop";
}

}  // namespace
