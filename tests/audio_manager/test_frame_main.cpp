// Daemon frame: board mode from the model text and the board-information file, the init-list
// walks and the once-only shutdown steps.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "am_test_env.h"
#include "qb_audio_main.h"
#include "test_frame_log_capture.h"

namespace {

using am_test_frame::LogCapture;

struct ModelCase {
  const char* model;
  int mode;
};

TEST(FrameBoardMode, FirstTextInTableOrderDecides) {
  const ModelCase cases[] = {
      {"QB-AV-TX-A-100", QB_BOARD_MODE_TX_A},
      {"RX", QB_BOARD_MODE_RX},
      {"TR-A", QB_BOARD_MODE_TR_A},
      {"TR", QB_BOARD_MODE_TR},
      {"TR-A RX", QB_BOARD_MODE_RX},      // RX is tested before TR-A
      {"RX TX-A", QB_BOARD_MODE_TX_A},    // TX-A is tested first of all
      {"XTR-AX", QB_BOARD_MODE_TR_A},     // TR-A wins over the TR it contains
      {"TRX", QB_BOARD_MODE_RX},          // contains RX
      {"TX", QB_BOARD_MODE_UNKNOWN},
      {"tx-a", QB_BOARD_MODE_UNKNOWN},    // case matters
      {"", QB_BOARD_MODE_UNKNOWN},
      {nullptr, QB_BOARD_MODE_UNKNOWN},
  };
  for (const ModelCase& c : cases) {
    EXPECT_EQ(qb_board_mode_from_model(c.model), c.mode) << (c.model ? c.model : "(null)");
  }
}

struct FileCase {
  const char* name;
  const char* content;  // nullptr: no file
  int mode;
};

TEST(FrameBoardMode, BoardInfoFile) {
  const std::string deep(5000, '[');
  const FileCase cases[] = {
      {"tr-a with other keys", R"({"serial":"1","modelNumber":"VX-TR-A","hw":2})", QB_BOARD_MODE_TR_A},
      {"no file", nullptr, QB_BOARD_MODE_UNKNOWN},
      {"empty file", "", QB_BOARD_MODE_UNKNOWN},
      {"not json", "modelNumber=TX-A", QB_BOARD_MODE_UNKNOWN},
      {"number", R"({"modelNumber":17})", QB_BOARD_MODE_UNKNOWN},
      {"object", R"({"modelNumber":{"name":"TX-A"}})", QB_BOARD_MODE_UNKNOWN},
      {"empty text", R"({"modelNumber":""})", QB_BOARD_MODE_UNKNOWN},
      {"key absent", R"({"model":"TX-A"})", QB_BOARD_MODE_UNKNOWN},
      {"array root", R"(["modelNumber","TX-A"])", QB_BOARD_MODE_UNKNOWN},
      {"no board text", R"({"modelNumber":"VX-100"})", QB_BOARD_MODE_UNKNOWN},
      {"nested too deep", deep.c_str(), QB_BOARD_MODE_UNKNOWN},
  };
  for (const FileCase& c : cases) {
    am_test::TempRoot root({"misc"});
    ASSERT_TRUE(root.ok());
    if (c.content != nullptr) {
      ASSERT_TRUE(root.write("/misc/boardInfo.json", c.content));
    }
    LogCapture log;
    EXPECT_EQ(GetModeFromJsonFile2(), c.mode) << c.name;
    if (c.mode == QB_BOARD_MODE_UNKNOWN && std::string(c.name) != "no board text") {
      EXPECT_TRUE(log.contains("board mode unknown")) << c.name;
    }
  }
}

TEST(FrameBoardMode, BoardInfoThatIsNoRegularFileIsRefused) {
  am_test::TempRoot root({"misc"});
  ASSERT_TRUE(root.ok());
  // A FIFO without a writer would block a plain open for ever; a folder cannot be read.
  ASSERT_EQ(mkfifo(root.at("/misc/boardInfo.json").c_str(), 0600), 0);
  EXPECT_EQ(GetModeFromJsonFile2(), QB_BOARD_MODE_UNKNOWN);
  ASSERT_EQ(unlink(root.at("/misc/boardInfo.json").c_str()), 0);
  ASSERT_TRUE(am_test::make_dirs(root.at("/misc/boardInfo.json")));
  EXPECT_EQ(GetModeFromJsonFile2(), QB_BOARD_MODE_UNKNOWN);
  // Too large to be a board-information file, valid as it is.
  ASSERT_EQ(rmdir(root.at("/misc/boardInfo.json").c_str()), 0);
  ASSERT_TRUE(root.write("/misc/boardInfo.json",
                         R"({"modelNumber":"TX-A","pad":")" + std::string(70000, 'x') + "\"}"));
  EXPECT_EQ(GetModeFromJsonFile2(), QB_BOARD_MODE_UNKNOWN);
}

// The init list walks record the rows they call.
std::vector<std::string> g_calls;
template <int Row>
int init_row() {
  g_calls.push_back("init" + std::to_string(Row));
  return 0;  // a failing module does not stop the walk
}
template <int Row>
int uninit_row() {
  g_calls.push_back("uninit" + std::to_string(Row));
  return 0;
}

const qb_init_fun_list_t kTestList[] = {
    {init_row<0>, uninit_row<0>, nullptr, nullptr},
    {nullptr, uninit_row<1>, nullptr, nullptr},
    {init_row<2>, nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr},
    {init_row<4>, uninit_row<4>, nullptr, nullptr},
};
constexpr int kTestRows = sizeof(kTestList) / sizeof(kTestList[0]);

TEST(FrameInitList, StartsForwardAndStopsBackwardSkippingEmptyEntries) {
  g_calls.clear();
  qb_init_list_start(kTestList, kTestRows);
  EXPECT_EQ(g_calls, (std::vector<std::string>{"init0", "init2", "init4"}));
  g_calls.clear();
  qb_init_list_stop(kTestList, kTestRows);
  EXPECT_EQ(g_calls, (std::vector<std::string>{"uninit4", "uninit1", "uninit0"}));
  g_calls.clear();
  qb_init_list_start(nullptr, 3);
  qb_init_list_stop(nullptr, 3);
  EXPECT_TRUE(g_calls.empty());
}

// The once-only guard is process-wide, so the shutdown steps run in a child process.
void shutdown_twice_in_child() {
  LogCapture log;
  g_calls.clear();
  audio_exit_set(0);
  const int first = qb_audio_shutdown_steps(kTestList, kTestRows);
  const bool exit_set = audio_exit_get() == 1;
  const int second = qb_audio_shutdown_steps(kTestList, kTestRows);
  const bool once_in_order =
      g_calls == std::vector<std::string>{"uninit4", "uninit1", "uninit0"};
  const bool logged = log.contains("Terminating Exit...\n --[");
  std::_Exit((first == 1 && second == 0 && exit_set && once_in_order && logged) ? 0 : 1);
}

TEST(FrameShutdownDeathTest, StepsRunOnceInReverseOrder) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(shutdown_twice_in_child(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
