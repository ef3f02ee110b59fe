// Path relocation under the board root and program look-up for shell commands.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "am_platform.h"

namespace {

class RootGuard {
 public:
  explicit RootGuard(const char* root) {
    if (root == nullptr) {
      unsetenv(AM_ROOT_ENV);
    } else {
      setenv(AM_ROOT_ENV, root, 1);
    }
    am_platform_reload();
  }
  ~RootGuard() {
    unsetenv(AM_ROOT_ENV);
    am_platform_reload();
  }
};

TEST(AmPlatform, RealPathsWithoutRoot) {
  RootGuard root(nullptr);
  EXPECT_EQ(am_path("/dev/i2c-2"), "/dev/i2c-2");
  char cmd[64];
  ASSERT_TRUE(am_resolve_command("/customer/bin/audio_codec --start", cmd, sizeof cmd));
  EXPECT_STREQ(cmd, "/customer/bin/audio_codec --start");
}

TEST(AmPlatform, PathsUnderRoot) {
  RootGuard root("/tmp/board/");
  EXPECT_EQ(am_path("/dev/i2c-2"), "/tmp/board/dev/i2c-2");
  EXPECT_EQ(am_path("relative/file"), "relative/file");
  char buf[32];
  ASSERT_NE(am_path_buf("/tmp/request", buf, sizeof buf), nullptr);
  EXPECT_STREQ(buf, "/tmp/board/tmp/request");
  EXPECT_EQ(am_path_buf("/tmp/request", buf, 22), nullptr);  // one byte short for the NUL
}

TEST(AmPlatform, CommandProgramUnderRootArgumentsUntouched) {
  RootGuard root("/r");
  char cmd[64];
  ASSERT_TRUE(am_resolve_command("  /customer/bin/audio_codec -v 3 /x", cmd, sizeof cmd));
  EXPECT_STREQ(cmd, "  /r/customer/bin/audio_codec -v 3 /x");
  ASSERT_TRUE(am_resolve_command("echo /x", cmd, sizeof cmd));
  EXPECT_STREQ(cmd, "echo /x");
  EXPECT_FALSE(am_resolve_command("/customer/bin/audio_codec --start", cmd, 10));
}

}  // namespace
