// Logging: the " --[file:line]" ending, configuration under the board root, the stderr fallback.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "am_log.h"
#include "am_test_env.h"

namespace {

void collect(int level, const char* message, void* ctx) {
  static_cast<std::vector<std::pair<int, std::string>>*>(ctx)->emplace_back(level, message);
}

TEST(AmLog, MessagesEndWithFileAndLine) {
  std::vector<std::pair<int, std::string>> seen;
  am_log_set_observer(collect, &seen);
  const unsigned line = __LINE__ + 1;
  AM_LOG_ERROR("invalid cmd");
  AM_LOG_INFO("exec cmd [%s]", "/customer/bin/audio_codec --start");
  am_log_set_observer(nullptr, nullptr);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].first, AM_LOG_LEVEL_ERROR);
  EXPECT_EQ(seen[0].second, "invalid cmd --[test_am_log.cpp:" + std::to_string(line) + "]");
  EXPECT_EQ(seen[1].first, AM_LOG_LEVEL_INFO);
  EXPECT_EQ(seen[1].second.rfind("exec cmd [/customer/bin/audio_codec --start] --[", 0), 0u);
}

TEST(AmLog, AppenderFilesAreRelocatedUnderTheRoot) {
  am_test::TempRoot root({"tmp", "config/logconf"});
  ASSERT_TRUE(root.write("/config/logconf/am.conf",
                         "log4cpp.rootCategory=INFO, file\n"
                         "log4cpp.appender.file=FileAppender\n"
                         "log4cpp.appender.file.fileName=/tmp/am-test.log\n"
                         "log4cpp.appender.file.layout=PatternLayout\n"
                         "log4cpp.appender.file.layout.ConversionPattern=%p %m%n\n"));
  ASSERT_EQ(am_log_configure("/config/logconf/am.conf"), 0);
  AM_LOG_WARN("relocated %d", 7);
  const std::string text = am_test::read_file(root.at("/tmp/am-test.log"));
  EXPECT_NE(text.find("WARN relocated 7 --[test_am_log.cpp:"), std::string::npos) << text;
  // back to standard error for the tests that follow
  testing::internal::CaptureStderr();
  EXPECT_EQ(am_log_configure("/config/logconf/missing.conf"), -1);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("logging to standard error"), std::string::npos);
}

TEST(AmLog, BrokenConfigurationFallsBackToStandardError) {
  am_test::TempRoot root({"config"});
  ASSERT_TRUE(root.write("/config/bad.conf", "log4cpp.rootCategory=INFO, x\nlog4cpp.appender.x=NoSuchAppender\n"));
  testing::internal::CaptureStderr();
  EXPECT_EQ(am_log_configure("/config/bad.conf"), -1);
  AM_LOG_ERROR("still logging");
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("unusable"), std::string::npos) << err;
  EXPECT_NE(err.find("still logging --[test_am_log.cpp:"), std::string::npos) << err;
}

}  // namespace
