// The debug request pipe of a running daemon: a simulated board (sim/board) with its genlock
// service, request words written into its /tmp/request by hand and through amctl, the marker
// handshake, the sections each word produces, the FPGA section read from the emulated bus, and a
// pipe that cannot be created at first.
//
// Needs root and network namespaces; skipped without them.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "am_test_env.h"
#include "am_test_paths.h"

namespace {

constexpr int kStartTimeoutMs = 30000;
// A full dump waits for the genlock service's answer; generous for a shared CI machine.
constexpr int kDumpTimeoutMs = 30000;
constexpr off_t kFpgaRegisterBase = 0x48 * 256;

const char* const kSections[] = {"dump misc param begin", "dump aplay param begin",
                                 "dump fpga param begin"};

bool has(const std::string& text, const std::string& what) { return text.find(what) != std::string::npos; }

// One simulated board under its own state directory and namespace prefix, removed on destruction.
class Board {
 public:
  explicit Board(const std::string& name) : name_(name) {
    char tmpl[] = "/tmp/am-dbg-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return;
    base_ = tmpl;
    root_ = base_ + "/root";
    env_ = {"AM_BIN_DIR=" + std::string(am_test::kBinDir), "AM_LIB_DIR=" + std::string(am_test::kLibDir),
            "AM_SIM_STATE=" + base_ + "/state",
            "AM_SIM_PREFIX=amdbg" + std::to_string(getpid() % 100000) + "-"};
    ok_ = board({"create", root_, "--model", "TX-A"}) == 0 && board({"up", name_, root_}) == 0;
  }
  ~Board() {
    if (!base_.empty()) {
      board({"teardown"});
      am_test::Process rm({"rm", "-rf", base_});
      rm.wait_exit(10000);
    }
  }
  Board(const Board&) = delete;
  Board& operator=(const Board&) = delete;

  bool ok() const { return ok_; }
  const std::string& root() const { return root_; }
  std::string at(const std::string& board_path) const { return root_ + board_path; }
  std::string log() const { return am_test::read_file(at("/tmp/audio_manager.log")); }

  int board(const std::vector<std::string>& words) const {
    std::vector<std::string> argv = {std::string(am_test::kSourceDir) + "/sim/board"};
    argv.insert(argv.end(), words.begin(), words.end());
    am_test::Process p(argv, env_, "", base_.empty() ? "" : base_ + "/board.out");
    int status = 0;
    if (!p.wait_exit(60000, &status) || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
  }
  bool start() {
    return board({"start", name_}) == 0 &&
           am_test::wait_for([this] { return has(log(), "audio manager init done"); }, kStartTimeoutMs);
  }
  // amctl run outside the namespace with the board's root (the pipe is a file of the root).
  int amctl(const std::vector<std::string>& words, std::string* out) const {
    std::vector<std::string> argv = {std::string(am_test::kBinDir) + "/amctl"};
    argv.insert(argv.end(), words.begin(), words.end());
    const std::string path = base_ + "/amctl.out";
    am_test::Process p(argv, {"AUDIO_MANAGER_ROOT=" + root_}, "", path);
    int status = 0;
    const bool exited = p.wait_exit(kDumpTimeoutMs + 5000, &status);
    *out = am_test::read_file(path);
    return exited && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // One byte register of the FPGA on the emulated bus.
  bool set_fpga(int reg, uint8_t value) const {
    const int fd = open(at("/dev/i2c-2").c_str(), O_WRONLY);
    if (fd < 0) return false;
    const bool ok = pwrite(fd, &value, 1, kFpgaRegisterBase + reg) == 1;
    close(fd);
    return ok;
  }

 private:
  std::string name_;
  std::string base_;
  std::string root_;
  std::vector<std::string> env_;
  bool ok_ = false;
};

bool exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// The raw protocol: remove the marker, write the bytes, wait for the marker, read the dump.
bool request(const Board& b, const std::string& word, std::string* dump) {
  unlink(b.at("/tmp/request-ok").c_str());
  const int fd = open(b.at("/tmp/request").c_str(), O_WRONLY | O_NONBLOCK);
  if (fd < 0) return false;
  const bool written = write(fd, word.data(), word.size()) == static_cast<ssize_t>(word.size());
  close(fd);
  if (!written || !am_test::wait_for([&] { return exists(b.at("/tmp/request-ok")); }, kDumpTimeoutMs)) {
    return false;
  }
  *dump = am_test::read_file(b.at("/tmp/dump-status.txt"));
  return true;
}

class DebugFifo : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!am_test::have_netns()) return;
    board_ = new Board("dbg");
    started_ = board_->ok() && board_->start() &&
               am_test::wait_for([] { return exists(board_->at("/tmp/request")); }, kStartTimeoutMs);
  }
  static void TearDownTestSuite() {
    delete board_;
    board_ = nullptr;
  }
  void SetUp() override {
    if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
    ASSERT_TRUE(started_) << "the simulated board did not start";
  }
  static Board* board_;
  static bool started_;
};
Board* DebugFifo::board_ = nullptr;
bool DebugFifo::started_ = false;

TEST_F(DebugFifo, ThePipeIsAFifo) {
  struct stat st;
  ASSERT_EQ(stat(board_->at("/tmp/request").c_str(), &st), 0);
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
}

TEST_F(DebugFifo, UpperCaseDumpWritesEverySectionInOrder) {
  std::string dump;
  ASSERT_TRUE(request(*board_, "DUMP", &dump));
  size_t at = 0;
  for (const char* section : kSections) {
    const size_t next = dump.find(section, at);
    ASSERT_NE(next, std::string::npos) << section << "\n" << dump;
    at = next;
  }
  // The clock synthesiser section comes last, from the genlock service.
  EXPECT_GT(dump.size(), at);
}

TEST_F(DebugFifo, D4WithANewlineGivesTheFpgaSectionFromTheBus) {
  ASSERT_TRUE(board_->set_fpga(0x52, 0x40));  // only the DAC multiplexer sounds
  ASSERT_TRUE(board_->set_fpga(0x11, 0x02));
  ASSERT_TRUE(board_->set_fpga(0x19, 0x02));
  std::string dump;
  ASSERT_TRUE(request(*board_, "d4\n", &dump));
  EXPECT_EQ(dump.rfind("dump fpga param begin\n", 0), 0u) << dump;
  EXPECT_FALSE(has(dump, "dump misc param begin"));
  EXPECT_FALSE(has(dump, "dump aplay param begin"));
  EXPECT_TRUE(has(dump, "[0x11][I2S_Mux_PCM5122] <-- [0x2][PCM1804] mute:0\n")) << dump;
  EXPECT_TRUE(has(dump, "[0x19][SPDIF_Mux] <-- [0x2][SPDIF-I] mute:")) << dump;
  // Among the sinks enabled by 0x52, only 0x11 sounds.
  for (int reg = 0x10; reg <= 0x17; ++reg) {
    if (reg == 0x11) continue;
    char prefix[16];
    std::snprintf(prefix, sizeof prefix, "[0x%x][", reg);
    const size_t line = dump.find(prefix);
    ASSERT_NE(line, std::string::npos) << prefix;
    const std::string text = dump.substr(line, dump.find('\n', line) - line);
    EXPECT_TRUE(has(text, "mute:1")) << text;
  }
}

TEST_F(DebugFifo, D12GivesOnlyTheRoutingState) {
  std::string dump;
  ASSERT_TRUE(request(*board_, "d12", &dump));
  EXPECT_EQ(dump.rfind("dump misc param begin\n", 0), 0u) << dump;
  EXPECT_FALSE(has(dump, "dump fpga param begin"));
  EXPECT_FALSE(has(dump, "dump aplay param begin"));
}

TEST_F(DebugFifo, AnUnknownWordOnlyRecreatesTheMarker) {
  std::string before;
  ASSERT_TRUE(request(*board_, "d1", &before));
  ASSERT_TRUE(am_test::write_file(board_->at("/tmp/dump-status.txt"), "left alone\n"));
  std::string after;
  ASSERT_TRUE(request(*board_, "status please", &after));
  EXPECT_EQ(after, "left alone\n");
}

TEST_F(DebugFifo, AmctlDumpServesEveryWord) {
  struct Case {
    const char* word;
    const char* first_line;
  };
  const Case cases[] = {
      {"d1", "dump misc param begin"}, {"d2", nullptr}, {"d3", nullptr},
      {"d4", "dump fpga param begin"}, {"d0", "dump misc param begin"},
  };
  for (const Case& c : cases) {
    std::string out;
    ASSERT_EQ(board_->amctl({"dump", c.word}, &out), 0) << c.word << ": " << out;
    EXPECT_TRUE(exists(board_->at("/tmp/request-ok")));
    EXPECT_EQ(out, am_test::read_file(board_->at("/tmp/dump-status.txt"))) << c.word;
    if (c.first_line != nullptr) {
      EXPECT_EQ(out.rfind(c.first_line, 0), 0u) << c.word << ":\n" << out;
    }
  }
}

TEST_F(DebugFifo, RequestsInQuickSuccessionAreEachServed) {
  for (int i = 0; i < 5; ++i) {
    std::string out;
    ASSERT_EQ(board_->amctl({"dump", "d4", "--timeout", "20"}, &out), 0) << i << ": " << out;
    EXPECT_EQ(out.rfind("dump fpga param begin\n", 0), 0u) << i;
  }
}

// A pipe path that cannot be made into a FIFO: the debug thread keeps trying, with a pause,
// and serves requests once the path is free.
TEST(DebugFifoRetry, ABlockedPipePathIsRetriedWithoutSpinning) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  Board b("dbgr");
  ASSERT_TRUE(b.ok());
  ASSERT_TRUE(am_test::make_dirs(b.at("/tmp/request/blocked")));  // a non-empty folder stays
  ASSERT_TRUE(b.start());
  ASSERT_TRUE(am_test::wait_for([&] { return has(b.log(), "mkfifo "); }, kStartTimeoutMs));
  std::this_thread::sleep_for(std::chrono::seconds(3));
  size_t failures = 0;
  const std::string log = b.log();
  for (size_t at = log.find("mkfifo "); at != std::string::npos; at = log.find("mkfifo ", at + 1)) ++failures;
  EXPECT_LT(failures, 200u) << "the debug thread must pause between attempts";

  am_test::Process rm({"rm", "-rf", b.at("/tmp/request")});
  ASSERT_TRUE(rm.wait_exit(10000));
  ASSERT_TRUE(am_test::wait_for(
      [&] {
        struct stat st;
        return stat(b.at("/tmp/request").c_str(), &st) == 0 && S_ISFIFO(st.st_mode);
      },
      kStartTimeoutMs));
  std::string out;
  EXPECT_EQ(b.amctl({"dump", "d1"}, &out), 0) << out;
  EXPECT_EQ(out.rfind("dump misc param begin", 0), 0u) << out;
}

}  // namespace
