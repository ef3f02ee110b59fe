// The built daemon as a process under a temporary board root, in a network namespace of its own:
// start-up writes on the FPGA bus, the command socket, bad board files and shutdown by signal.
//
// Every test here needs root and network namespaces (the daemon binds its loopback ports in a
// fresh namespace); without them the tests are skipped.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "am_test_env.h"
#include "am_test_paths.h"

namespace {

constexpr int kCmdPort = 9994;
constexpr int kStartTimeoutMs = 20000;
constexpr int kExitTimeoutMs = 20000;

const char* const kUnmuteAllLines[] = {"W 48 52 FF", "W 48 53 FF", "W 48 55 FF",
                                       "W 48 56 FF", "W 48 57 FF", "W 48 58 FF",
                                       "W 48 59 FF", "W 48 5A FF", "W 48 5B FF"};
const char* const kDspBoardLines[] = {"W 48 17 03", "W 48 11 08"};

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty()) {
      lines.push_back(line);
    }
  }
  return lines;
}

size_t count_of(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
    ++n;
  }
  return n;
}

// What the board root holds besides the daemon's own files.
struct RootSetup {
  const char* board_info = R"({"modelNumber":"VX-TX-A"})";  // nullptr: no file
  bool log_config = true;
  bool tmp = true;
};

// A board root for one daemon run.
class DaemonRoot {
 public:
  explicit DaemonRoot(const RootSetup& setup)
      : root_(setup.tmp ? std::vector<std::string>{"tmp", "dev", "misc"}
                        : std::vector<std::string>{"dev", "misc"}) {
    ok_ = root_.ok() && populate(setup);
  }
  bool ok() const { return ok_; }
  const am_test::TempRoot& root() const { return root_; }
  std::string log() const { return am_test::read_file(root_.at("/tmp/audio_manager.log")); }
  std::vector<std::string> bus() const { return lines_of(am_test::read_file(root_.at("/dev/i2c-2.log"))); }

 private:
  bool populate(const RootSetup& setup) {
    if (setup.board_info != nullptr && !root_.write("/misc/boardInfo.json", setup.board_info)) {
      return false;
    }
    if (setup.log_config) {
      // The board's own configuration: its log file "/tmp/audio_manager.log" lands under the root.
      const std::string conf =
          am_test::read_file(std::string(am_test::kSourceDir) + "/config/logconf/audio_manager.conf");
      if (conf.empty() || !root_.write("/config/logconf/audio_manager.conf", conf)) {
        return false;
      }
    }
    const std::string codec = root_.at("/customer/bin/audio_codec");
    return root_.write("/dev/i2c-2", "") && root_.write("/dev/i2c-2.log", "") &&
           root_.write("/customer/bin/audio_codec",
                       "#!/bin/sh\necho \"$@\" >> \"" + root_.path() + "/codec.args\"\nexit 0\n") &&
           chmod(codec.c_str(), 0755) == 0;
  }

  am_test::TempRoot root_;
  bool ok_ = false;
};

// The daemon running in its namespace.
class Daemon {
 public:
  Daemon(const DaemonRoot& root, const am_test::NetNs& ns)
      : output_path_(root.root().path() + "/daemon.out"),
        process_({std::string(am_test::kBinDir) + "/audio_manager"},
                 {"AUDIO_MANAGER_ROOT=" + root.root().path()}, ns.name(), output_path_) {}
  am_test::Process& process() { return process_; }
  std::string output() const { return am_test::read_file(output_path_); }
  // Waits until `text` appears in what `source` returns.
  template <typename Source>
  bool wait_text(Source source, const std::string& text, int timeout_ms = kStartTimeoutMs) {
    return am_test::wait_for([&] { return source().find(text) != std::string::npos; }, timeout_ms, 50);
  }
  // Sends the signal and waits for the exit; true with an exit status of 0.
  bool stop_with(int sig, int* status) {
    *status = -1;
    return process_.signal(sig) && process_.wait_exit(kExitTimeoutMs, status);
  }

 private:
  std::string output_path_;
  am_test::Process process_;
};

// Sends datagrams to the command port from inside the namespace; true when all went out.
bool send_cmds(const am_test::NetNs& ns, const std::vector<std::vector<uint8_t>>& datagrams) {
  return ns.run([&] {
           const int fd = socket(AF_INET, SOCK_DGRAM, 0);
           struct sockaddr_in to;
           std::memset(&to, 0, sizeof(to));
           to.sin_family = AF_INET;
           to.sin_port = htons(kCmdPort);
           to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
           int failures = 0;
           for (const std::vector<uint8_t>& d : datagrams) {
             const ssize_t n = sendto(fd, d.data(), d.size(), 0, reinterpret_cast<struct sockaddr*>(&to),
                                      sizeof(to));
             failures += n == static_cast<ssize_t>(d.size()) ? 0 : 1;
             usleep(2000);
           }
           close(fd);
           return failures == 0 ? 0 : 1;
         }) == 0;
}

// A command with outer type 3 (not a command message).
std::vector<uint8_t> outer_type3() {
  return {0x03, 0, 0, 0, 0x14, 0, 0, 0, 0x02, 0, 0x02, 0, 0x0C, 0, 0, 0,
          0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
}

class DaemonFrame : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!am_test::have_netns()) {
      GTEST_SKIP() << "needs root and network namespaces (the daemon runs in a namespace of its own)";
    }
    struct stat st;
    ASSERT_EQ(stat((std::string(am_test::kBinDir) + "/audio_manager").c_str(), &st), 0)
        << "build the audio_manager target first";
    ASSERT_TRUE(ns_.ok());
  }
  am_test::NetNs ns_;
};

TEST_F(DaemonFrame, TxABoardStartsServesCommandsAndStopsOnce) {
  DaemonRoot root(RootSetup{});
  ASSERT_TRUE(root.ok());
  Daemon daemon(root, ns_);
  ASSERT_TRUE(daemon.process().started());
  auto log = [&] { return root.log(); };
  ASSERT_TRUE(daemon.wait_text(log, "audio task thread id")) << daemon.output() << root.log();

  // Start-up: codec started, every gate opened, then the two DSP routes of this board.
  const std::string text = root.log();
  EXPECT_NE(text.find("program:" + std::string(am_test::kBinDir) + "/audio_manager startup --["),
            std::string::npos);
  EXPECT_NE(text.find("audio manager board id :1 --["), std::string::npos);
  EXPECT_NE(text.find("exec cmd [/customer/bin/audio_codec --start] --["), std::string::npos);
  EXPECT_NE(text.find("audio manager init done --["), std::string::npos);
  EXPECT_EQ(am_test::read_file(root.root().path() + "/codec.args"), "--start\n");
  const std::vector<std::string> bus = root.bus();
  ASSERT_GE(bus.size(), 11u);
  for (size_t i = 0; i < 9; ++i) {
    EXPECT_EQ(bus[i], kUnmuteAllLines[i]) << "bus line " << i;
  }
  EXPECT_NE(text.find("audio_unmute_all audio unmute all, fpga addr:0x48, reg:0x5b, value:0xff --["),
            std::string::npos);
  EXPECT_EQ(bus[9], kDspBoardLines[0]);
  EXPECT_EQ(bus[10], kDspBoardLines[1]);
  // The register file of the bus: byte A*256+R holds register R of address A.
  const std::string regs = am_test::read_file(root.root().at("/dev/i2c-2"));
  auto reg = [&](int r) { return static_cast<uint8_t>(regs.at(0x48 * 256 + r)); };
  ASSERT_GT(regs.size(), static_cast<size_t>(0x48 * 256 + 0x5B));
  for (int r : {0x52, 0x53, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5A, 0x5B}) {
    EXPECT_EQ(reg(r), 0xFF) << "register " << r;
  }
  EXPECT_EQ(reg(0x17), 0x03);
  EXPECT_EQ(reg(0x11), 0x08);

  // A datagram that is no command message.
  ASSERT_TRUE(send_cmds(ns_, {outer_type3()}));
  EXPECT_TRUE(daemon.wait_text(log, "invalid cmd --[", 5000)) << root.log();

  // SIGTERM and, right after it, SIGINT: one shutdown, modules stopped from aplay back.
  ASSERT_TRUE(daemon.process().signal(SIGTERM));
  daemon.process().signal(SIGINT);
  int status = -1;
  ASSERT_TRUE(daemon.process().wait_exit(kExitTimeoutMs, &status)) << root.log();
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
  const std::string final_log = root.log();
  EXPECT_EQ(count_of(final_log, "Terminating Exit...\n --["), 1u) << final_log;
  EXPECT_EQ(count_of(final_log, "spdif register map uninit"), 1u);
  const size_t terminating = final_log.find("Terminating Exit...");
  const size_t first_worker_exit = final_log.find("playback thread");
  const size_t last_worker_exit = final_log.rfind("playback thread");
  const size_t misc_stop = final_log.find("spdif register map uninit");
  ASSERT_NE(first_worker_exit, std::string::npos) << "aplay stopped no worker";
  ASSERT_NE(misc_stop, std::string::npos) << "misc was not stopped";
  EXPECT_LT(terminating, first_worker_exit);
  EXPECT_LT(last_worker_exit, misc_stop) << "misc stopped before aplay";
}

struct BoardCase {
  const char* name;
  const char* board_info;
  int board_id;
  bool dsp_routes;
  int stop_signal;
};

// Also: SIGTSTP ends the daemon for good (it does not suspend it).
TEST_F(DaemonFrame, OnlyBoardsOneAndThreeGetTheDspRoutes) {
  const BoardCase cases[] = {
      {"TR-A", R"({"modelNumber":"VX-TR-A"})", 3, true, SIGTERM},
      {"RX", R"({"modelNumber":"VX-RX"})", 2, false, SIGTSTP},
      {"TR", R"({"modelNumber":"VX-TR"})", 4, false, SIGINT},
      {"missing file", nullptr, -1, false, SIGTERM},
      {"number", R"({"modelNumber":7})", -1, false, SIGTERM},
  };
  for (const BoardCase& c : cases) {
    SCOPED_TRACE(c.name);
    RootSetup setup;
    setup.board_info = c.board_info;
    DaemonRoot root(setup);
    ASSERT_TRUE(root.ok());
    Daemon daemon(root, ns_);
    auto log = [&] { return root.log(); };
    ASSERT_TRUE(daemon.wait_text(log, "audio manager init done")) << daemon.output();
    EXPECT_NE(root.log().find("audio manager board id :" + std::to_string(c.board_id) + " --["),
              std::string::npos);
    const std::vector<std::string> bus = root.bus();
    ASSERT_GE(bus.size(), 9u);
    for (size_t i = 0; i < 9; ++i) {
      EXPECT_EQ(bus[i], kUnmuteAllLines[i]);
    }
    const bool routes = bus.size() >= 11 && bus[9] == kDspBoardLines[0] && bus[10] == kDspBoardLines[1];
    EXPECT_EQ(routes, c.dsp_routes);
    if (!c.dsp_routes) {
      EXPECT_TRUE(bus.size() < 10 || bus[9] != kDspBoardLines[0]);
    }
    int status = -1;
    ASSERT_TRUE(daemon.stop_with(c.stop_signal, &status)) << "the daemon was suspended or kept running";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(count_of(root.log(), "Terminating Exit..."), 1u);
  }
}

TEST_F(DaemonFrame, NoLogConfigurationAndNoTmpStillRun) {
  RootSetup setup;
  setup.log_config = false;
  setup.tmp = false;
  DaemonRoot root(setup);
  ASSERT_TRUE(root.ok());
  Daemon daemon(root, ns_);
  auto out = [&] { return daemon.output(); };
  ASSERT_TRUE(daemon.wait_text(out, "audio manager init done")) << daemon.output();
  EXPECT_NE(daemon.output().find("/config/logconf/audio_manager.conf"), std::string::npos);
  // The first statistics check cannot write its file: said so, and the daemon goes on.
  EXPECT_TRUE(daemon.wait_text(out, "pktdrop.lock err", 10000)) << daemon.output();
  ASSERT_TRUE(send_cmds(ns_, {outer_type3()}));
  EXPECT_TRUE(daemon.wait_text(out, "invalid cmd", 5000)) << daemon.output();
  int status = -1;
  ASSERT_TRUE(daemon.stop_with(SIGTERM, &status)) << daemon.output();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_NE(daemon.output().find("Terminating Exit..."), std::string::npos);
}

}  // namespace
