// Time-point tracer: storage limits, start resets, printed and formatted intervals.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <thread>

#include "diff_time.h"

namespace {

void sleep_ms(int ms) {
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

TEST(DiffTime, TraceOutsideRangeIsIgnored) {
  set_diff_time(4, DIFF_TM_START, "a");
  set_diff_time(-1, DIFF_TM_START, "a");
  EXPECT_EQ(get_diff_time(4), "");
  EXPECT_EQ(diff_time_snapshot(4).s32ElemCount, 0);
}

TEST(DiffTime, EndWithOnePointPrintsNothing) {
  testing::internal::CaptureStdout();
  set_diff_time(0, DIFF_TM_START, "only");
  set_diff_time(1, DIFF_TM_END, "first-and-last");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(get_diff_time(1), "");
}

TEST(DiffTime, IntervalsPrintedAndFormatted) {
  set_diff_time(2, DIFF_TM_START, "open");
  sleep_ms(3);
  set_diff_time(2, DIFF_TM_POINT, "params");
  sleep_ms(2);
  testing::internal::CaptureStdout();
  set_diff_time(2, DIFF_TM_END, "first-write");
  const std::string printed = testing::internal::GetCapturedStdout();
  long first = -1;
  long second = -1;
  int used = 0;
  ASSERT_EQ(std::sscanf(printed.c_str(), "\nopen-->params : %ld\nparams-->first-write : %ld\n\n%n", &first,
                        &second, &used),
            2)
      << printed;
  EXPECT_EQ(static_cast<size_t>(used), printed.size()) << printed;
  EXPECT_GE(first, 3000);
  EXPECT_GE(second, 2000);

  const std::string text = get_diff_time(2);
  char tail = 0;
  ASSERT_EQ(std::sscanf(text.c_str(), "[%ld-%ld-%c", &first, &second, &tail), 3) << text;
  EXPECT_EQ(tail, ']');
  EXPECT_EQ(text.back(), ']');
  EXPECT_GE(first, 3000);
  EXPECT_GE(second, 2000);
}

TEST(DiffTime, StartBeginsANewTraceAndCapacityIsBounded) {
  set_diff_time(3, DIFF_TM_START, "s");
  for (int i = 0; i < 150; ++i) {
    set_diff_time(3, DIFF_TM_POINT, "p");
  }
  EXPECT_EQ(diff_time_snapshot(3).s32ElemCount, DIFF_TM_ELEM_MAX);
  set_diff_time(3, DIFF_TM_START, "again");
  const DIFF_TM_T t = diff_time_snapshot(3);
  EXPECT_EQ(t.s32ElemCount, 1);
  EXPECT_STREQ(t.stDiffTmElem[0].str, "again");
}

TEST(DiffTime, LongNamesAreCut) {
  const std::string name(200, 'x');
  set_diff_time(0, DIFF_TM_START, name.c_str());
  EXPECT_EQ(std::string(diff_time_snapshot(0).stDiffTmElem[0].str), name.substr(0, DIFF_TM_NAME_MAX - 1));
}

}  // namespace
