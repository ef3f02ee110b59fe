// What the process holds on the outside world: the descriptors a helper program inherits, the log
// files the configuration opens, and a bus path that is not there.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "am_log.h"
#include "am_platform.h"
#include "am_test_env.h"
#include "i2c_device.h"
#include "posix_system.h"

namespace {

// The descriptors of this process that point at `target`.
std::vector<int> descriptors_of(const std::string& target) {
  std::vector<int> fds;
  for (int fd = 0; fd < 1024; ++fd) {
    char link[64];
    char path[512] = {};
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t n = readlink(link, path, sizeof path - 1);
    if (n > 0 && target == path) fds.push_back(fd);
  }
  return fds;
}

// A helper sees standard input, output and error and nothing else, even descriptors the daemon
// opened without close-on-exec; its exit status comes back as system() gives it.
TEST(PosixSystem, HelperInheritsOnlyTheStandardDescriptors) {
  am_test::TempRoot root({"tmp"});
  const int leaky_file = open("/dev/null", O_RDONLY);
  const int leaky_socket = socket(AF_INET, SOCK_DGRAM, 0);
  ASSERT_GE(leaky_file, 0);
  ASSERT_GE(leaky_socket, 0);
  const std::string listing = root.at("/tmp/fds");
  // ls shows its own descriptor of the folder it reads as 3.
  EXPECT_EQ(WEXITSTATUS(posix_system(("ls /proc/self/fd > " + listing).c_str())), 0);
  EXPECT_EQ(am_test::read_file(listing), "0\n1\n2\n3\n");
  EXPECT_EQ(WEXITSTATUS(posix_system("exit 3")), 3);
  EXPECT_EQ(WEXITSTATUS(posix_system("/customer/bin/no_such_helper")), 127);
  close(leaky_file);
  close(leaky_socket);
}

TEST(AmLog, ConfiguredLogFilesAreClosedOnExec) {
  am_test::TempRoot root({"tmp", "config/logconf"});
  ASSERT_TRUE(root.write("/config/logconf/am.conf",
                         "log4cpp.rootCategory=INFO, file\nlog4cpp.appender.file=RollingFileAppender\n"
                         "log4cpp.appender.file.fileName=/tmp/handles.log\n"
                         "log4cpp.appender.file.layout=PatternLayout\n"
                         "log4cpp.appender.file.layout.ConversionPattern=%m%n\n"));
  ASSERT_EQ(am_log_configure("/config/logconf/am.conf"), 0);
  AM_LOG_INFO("opened");
  const std::vector<int> fds = descriptors_of(root.at("/tmp/handles.log"));
  ASSERT_FALSE(fds.empty());
  for (const int fd : fds) EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << "descriptor " << fd;
}

// On the board a bus device that is missing is an error, never a new file that takes every
// transfer; an existing register file is still used as the bus.
TEST(I2cDevice, MissingBusOutsideABoardRootIsAnError) {
  am_test::TempRoot scratch;
  unsetenv(AM_ROOT_ENV);
  am_platform_reload();
  const std::string bus = scratch.path() + "/i2c-9";
  qb_u8_t value = 0x5A;
  EXPECT_NE(I2C_Device_Write(bus.c_str(), 0x48, 0x10, &value, 1), 0);
  struct stat st;
  EXPECT_NE(stat(bus.c_str(), &st), 0) << "the missing bus became a file";

  ASSERT_TRUE(am_test::write_file(bus, std::string(0x49 * 256, '\0')));
  EXPECT_EQ(I2C_Device_Write(bus.c_str(), 0x48, 0x10, &value, 1), 0);
  qb_u8_t back = 0;
  EXPECT_EQ(I2C_Device_Read(bus.c_str(), 0x48, 0x10, &back, 1), 0);
  EXPECT_EQ(back, 0x5A);
  EXPECT_EQ(I2C_Device_Read(bus.c_str(), 0x48, 0x10, nullptr, 1), -1);
  // A register file that cannot be read (this process's memory, at an address never mapped).
  EXPECT_EQ(I2C_Device_Read("/proc/self/mem", 0x48, 0x10, &back, 1), -1);
}

}  // namespace
