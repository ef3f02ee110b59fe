// Board mode from the model text and the board-information file; the time-point tracer.
#include <thread>

#include "am_unit.h"
#include "diff_time.h"
#include "qb_audio_misc_util.h"

namespace am_unit {
namespace {

TEST(FrameBoardMode, ModelTextAndBoardInfoFile) {
  constexpr int U = QB_BOARD_MODE_UNKNOWN;
  const std::string deep(5000, '['), big = R"({"modelNumber":"TX-A","pad":")" + std::string(70000, 'x') + "\"}";
  std::vector<std::pair<std::string, int>> files = {{R"({"serial":"1","modelNumber":"VX-TR-A","hw":2})", QB_BOARD_MODE_TR_A}, {"", U},
      {"modelNumber=TX-A", U}, {R"({"modelNumber":17})", U}, {R"({"modelNumber":{"name":"TX-A"}})", U}, {R"({"modelNumber":""})", U}, {R"({"model":"TX-A"})", U},
      {R"(["modelNumber","TX-A"])", U}, {deep, U}, {big, U} /* too large to be a board file */};
  // RX is tested before TR-A, TX-A first of all.
  const std::pair<const char*, int> models[] = {{"QB-AV-TX-A-100", QB_BOARD_MODE_TX_A}, {"TR", QB_BOARD_MODE_TR}, {"TR-A RX", QB_BOARD_MODE_RX},
      {"RX TX-A", QB_BOARD_MODE_TX_A}, {"XTR-AX", QB_BOARD_MODE_TR_A}, {"TRX", QB_BOARD_MODE_RX}, {"TX", U}, {"tx-a", U}, {"VX-100", U}};
  for (const auto& m : models) files.push_back({std::string(R"({"modelNumber":")") + m.first + "\"}", m.second});
  for (const auto& c : files) {
    SCOPED_TRACE(c.first.substr(0, 40));
    am_test::TempRoot root({"misc"});
    ASSERT_TRUE(root.write("/misc/boardInfo.json", c.first));
    EXPECT_EQ(GetModeFromJsonFile2(), c.second);
  }
  am_test::TempRoot root({"misc"});
  EXPECT_EQ(GetModeFromJsonFile2(), U);  // no file
  // A FIFO without a writer would block a plain open for ever.
  ASSERT_EQ(mkfifo(root.at("/misc/boardInfo.json").c_str(), 0600), 0);
  EXPECT_EQ(GetModeFromJsonFile2(), U);
}

TEST(DiffTime, TracesPrintTheirIntervals) {
  testing::internal::CaptureStdout();
  set_diff_time(0, DIFF_TM_START, std::string(200, 'x').c_str());
  set_diff_time(1, DIFF_TM_END, "first-and-last");  // one point: nothing printed
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(get_diff_time(0), "");  // fewer than two points: no intervals

  set_diff_time(2, DIFF_TM_START, "open");
  std::this_thread::sleep_for(std::chrono::milliseconds(3));
  set_diff_time(2, DIFF_TM_POINT, "params");
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  testing::internal::CaptureStdout();
  set_diff_time(2, DIFF_TM_END, "first-write");
  const std::string printed = testing::internal::GetCapturedStdout();
  long first = -1, second = -1;
  int used = 0;
  ASSERT_EQ(std::sscanf(printed.c_str(), "\nopen-->params : %ld\nparams-->first-write : %ld\n\n%n", &first, &second, &used), 2)
      << printed;
  EXPECT_EQ(static_cast<size_t>(used), printed.size()) << printed;
  EXPECT_GE(first, 3000);
  EXPECT_GE(second, 2000);
}

}  // namespace
}  // namespace am_unit
