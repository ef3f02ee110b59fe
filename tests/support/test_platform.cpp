// Logging, path relocation under the board root, I2C transfers on the emulated register file and
// on a character device (the in-process override is what the clock synthesiser tests use), and
// what the process holds on the outside world: the descriptors a helper program inherits, the log
// files the configuration opens, and a bus path that is not there.
#include "am_test_sys.h"

#include "am_log.h"
#include "am_platform.h"
#include "am_status_file.h"
#include "i2c_device.h"
#include "posix_system.h"

namespace {

void collect(int level, const char* message, void* ctx) {
  static_cast<std::vector<std::string>*>(ctx)->push_back(std::to_string(level) + " " + message);
}

// The descriptors of this process that point at `target`.
std::vector<int> descriptors_of(const std::string& target) {
  std::vector<int> fds;
  char link[64], path[512];
  for (int fd = 0; fd < 1024; ++fd) {
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t n = readlink(link, path, sizeof path - 1);
    if (n > 0 && target == std::string(path, static_cast<size_t>(n))) fds.push_back(fd);
  }
  return fds;
}

// Messages end with " --[file:line]"; appender files are relocated under the root and closed on
// exec; a missing or broken configuration falls back to standard error.
TEST(AmLog, LineEndingRelocationAndFallback) {
  std::vector<std::string> seen;
  am_log_set_observer(collect, &seen);
  const unsigned line = __LINE__ + 1;
  AM_LOG_INFO("exec cmd [%s]", "/customer/bin/audio_codec --start");
  am_log_set_observer(nullptr, nullptr);
  EXPECT_EQ(seen, std::vector<std::string>{std::to_string(AM_LOG_LEVEL_INFO) + " exec cmd [/customer/bin/audio_codec --start] "
                                           "--[test_platform.cpp:" + std::to_string(line) + "]"});

  am_test::TempRoot root({"tmp", "config/logconf"});
  ASSERT_TRUE(root.write("/config/logconf/am.conf",
                         "log4cpp.rootCategory=INFO, file\nlog4cpp.appender.file=FileAppender\n"
                         "log4cpp.appender.file.fileName=/tmp/am-test.log\nlog4cpp.appender.file.layout=PatternLayout\n"
                         "log4cpp.appender.file.layout.ConversionPattern=%p %m%n\n"));
  ASSERT_EQ(am_log_configure("/config/logconf/am.conf"), 0);
  AM_LOG_WARN("relocated %d", 7);
  const std::string text = am_test::read_file(root.at("/tmp/am-test.log"));
  EXPECT_EQ(text.rfind("WARN relocated 7 --[test_platform.cpp:", 0), 0u) << text;
  const std::vector<int> fds = descriptors_of(root.at("/tmp/am-test.log"));
  ASSERT_FALSE(fds.empty());
  for (const int fd : fds) EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << "descriptor " << fd;

  ASSERT_TRUE(root.write("/config/bad.conf", "log4cpp.rootCategory=INFO, x\nlog4cpp.appender.x=NoSuchAppender\n"));
  testing::internal::CaptureStderr();
  EXPECT_EQ(am_log_configure("/config/bad.conf"), -1);
  AM_LOG_ERROR("still logging");
  EXPECT_EQ(am_log_configure("/config/logconf/missing.conf"), -1);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("unusable"), std::string::npos) << err;
  EXPECT_NE(err.find("still logging --[test_platform.cpp:"), std::string::npos) << err;
  EXPECT_NE(err.find("logging to standard error"), std::string::npos) << err;
}

void set_root(const char* root) {
  root != nullptr ? setenv(AM_ROOT_ENV, root, 1) : unsetenv(AM_ROOT_ENV), am_platform_reload();
}

// Board paths and the program of a shell command move under the root; arguments, relative paths
// and programs outside the board stay; a result that does not fit is refused.
TEST(AmPlatform, PathsAndCommandsUnderTheRoot) {
  char cmd[64];
  set_root(nullptr);
  EXPECT_EQ(am_path("/dev/i2c-2"), "/dev/i2c-2");
  ASSERT_TRUE(am_resolve_command("/customer/bin/audio_codec --start", cmd, sizeof cmd));
  EXPECT_STREQ(cmd, "/customer/bin/audio_codec --start");
  EXPECT_FALSE(am_resolve_command("/customer/bin/audio_codec --start", cmd, 10));
  set_root("/tmp/board/");
  EXPECT_EQ(am_path("/dev/i2c-2"), "/tmp/board/dev/i2c-2");
  EXPECT_EQ(am_path("relative/file"), "relative/file");
  ASSERT_NE(am_path_buf("/tmp/request", cmd, 23), nullptr);
  EXPECT_STREQ(cmd, "/tmp/board/tmp/request");
  EXPECT_EQ(am_path_buf("/tmp/request", cmd, 22), nullptr);  // one byte short for the NUL
  set_root("/r");
  ASSERT_TRUE(am_resolve_command("  /customer/bin/audio_codec -v 3 /x", cmd, sizeof cmd));
  EXPECT_STREQ(cmd, "  /r/customer/bin/audio_codec -v 3 /x");
  ASSERT_TRUE(am_resolve_command("echo /x", cmd, sizeof cmd));
  EXPECT_STREQ(cmd, "echo /x");
  set_root(nullptr);
}

constexpr const char* kBus = "/dev/i2c-2";

// Byte at an offset of the emulated register file (-1 past its end).
int file_byte(const std::string& path, size_t offset) {
  const std::string content = am_test::read_file(path);
  return offset < content.size() ? static_cast<unsigned char>(content[offset]) : -1;
}

// Byte, multi-byte and word registers land at their offsets of the register file and every
// message is one "W/R AA RR DD ..." line of the log (only when the log file exists); unwritten
// registers read 0.
TEST(I2cDevice, RegisterFileAndLogLines) {
  am_test::TempRoot root({"dev"});
  const qb_u8_t data[3] = {0xAB, 0x0A, 0xFF};
  EXPECT_EQ(I2C_Device_Write(kBus, 0x48, 0x10, data, 1), 0);
  EXPECT_EQ(access(root.at(std::string(kBus) + ".log").c_str(), F_OK), -1);
  ASSERT_TRUE(root.write(std::string(kBus) + ".log", ""));
  EXPECT_EQ(I2C_Device_Write(kBus, 0x48, 0x52, data, 1), 0);
  EXPECT_EQ(file_byte(root.at(kBus), 0x48 * 256 + 0x52), 0xAB);
  EXPECT_EQ(I2C_Device_Write(kBus, 0x60, 0x10, data, 3), 0);
  qb_u8_t got[4] = {9, 9, 9, 9};
  EXPECT_EQ(I2C_Device_Read(kBus, 0x60, 0x10, got, 4), 0);
  EXPECT_EQ(std::vector<qb_u8_t>(got, got + 4), (std::vector<qb_u8_t>{0xAB, 0x0A, 0xFF, 0x00}));
  EXPECT_EQ(I2C_Device_Read(kBus, 0x7F, 0xFF, got, 1), 0);  // past the end of the file
  EXPECT_EQ(got[0], 0);
  EXPECT_EQ(I2C_Device_Write_Word_Reg(kBus, 0x50, 0x1234, data, 2), 0);
  EXPECT_EQ(file_byte(root.at(kBus), 32768 + 0x50 * 65536 + 0x1235), 0x0A);
  EXPECT_EQ(I2C_Device_Read_Word_Reg(kBus, 0x50, 0x1234, got, 2), 0);
  EXPECT_EQ(got[0], 0xAB);
  EXPECT_EQ(am_test::read_file(root.at(kBus) + ".log"),
            "W 48 52 AB\nW 60 10 AB 0A FF\nR 60 10 AB 0A FF 00\nR 7F FF 00\nW 50 1234 AB 0A\nR 50 1234 AB 0A\n");
}

// Failed transfers: an address beyond seven bits, a missing bus, no path, and a character device
// that does not understand I2C_RDWR (the address is printed with %2x, so a small one is padded).
TEST(I2cDevice, FailuresAndTheirTexts) {
  am_test::TempRoot root({"dev"});
  ASSERT_EQ(symlink("/dev/null", root.at("/dev/i2c-7").c_str()), 0);
  const qb_u8_t v = 1;
  qb_u8_t got = 0;
  const std::string kFailed = "Unable to send data\n";
  const struct { std::function<int()> call; int rc; std::string out; } cases[] = {
      {[&] { return I2C_Device_Write(kBus, 0x80, 0x10, &v, 1); }, -2, kFailed + "I2c_Write Failed at addr=[0x80]\n"},
      {[&] { return I2C_Device_Read(kBus, 0x85, 0x10, &got, 1); }, -1, kFailed + "I2c_Read Failed at addr=[0x85]\n"},
      {[&] { return I2C_Device_Write("/no/such/dir/i2c-9", 0x48, 0x10, &v, 1); }, -1, "Unable to open i2c control file\n"},
      {[&] { return I2C_Device_Read("/no/such/dir/i2c-9", 0x48, 0x10, &got, 1); }, -1, "Unable to open i2c control file\n"},
      {[&] { return I2C_Device_Write(nullptr, 0x48, 0x10, &v, 1); }, -1, "filepath is null\n"},
      {[&] { return I2C_Device_Read_Word_Reg(nullptr, 0x48, 0x10, &got, 1); }, -1, "filepath is null\n"},
      {[&] { return I2C_Device_Write("/dev/i2c-7", 0x05, 0x10, &v, 1); }, -2, kFailed + "I2c_Write Failed at addr=[0x 5]\n"},
      {[&] { return I2C_Device_Read("/dev/i2c-7", 0x48, 0x10, &got, 1); }, -1, kFailed + "I2c_Read Failed at addr=[0x48]\n"},
      {[&] { return I2C_Device_Write_Word_Reg("/dev/i2c-7", 0x48, 0x10, &v, 1); }, -2,
       kFailed + "I2c_Write Failed at addr=[0x48]\n"},
  };
  for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(cases[i].call(), cases[i].rc) << "row " << i;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), cases[i].out) << "row " << i;
  }
}

// On the board a bus device that is missing is an error, never a new file that takes every
// transfer; an existing register file is still used as the bus.
TEST(I2cDevice, MissingBusOutsideABoardRootIsAnError) {
  am_test::TempRoot scratch;
  set_root(nullptr);
  const std::string bus = scratch.path() + "/i2c-9";
  qb_u8_t value = 0x5A, back = 0;
  EXPECT_NE(I2C_Device_Write(bus.c_str(), 0x48, 0x10, &value, 1), 0);
  struct stat st;
  EXPECT_NE(stat(bus.c_str(), &st), 0) << "the missing bus became a file";
  ASSERT_TRUE(am_test::write_file(bus, std::string(0x49 * 256, '\0')));
  EXPECT_EQ(I2C_Device_Write(bus.c_str(), 0x48, 0x10, &value, 1), 0);
  EXPECT_EQ(I2C_Device_Read(bus.c_str(), 0x48, 0x10, &back, 1), 0);
  EXPECT_EQ(back, 0x5A);
  EXPECT_EQ(I2C_Device_Read(bus.c_str(), 0x48, 0x10, nullptr, 1), -1);
  // A register file that cannot be read (this process's memory, at an address never mapped).
  EXPECT_EQ(I2C_Device_Read("/proc/self/mem", 0x48, 0x10, &back, 1), -1);
}

// A helper sees standard input, output and error and nothing else, even descriptors the daemon
// opened without close-on-exec; its exit status comes back as system() gives it.
TEST(PosixSystem, HelperInheritsOnlyTheStandardDescriptors) {
  am_test::TempRoot root({"tmp"});
  const int leaky_file = open("/dev/null", O_RDONLY), leaky_socket = socket(AF_INET, SOCK_DGRAM, 0);
  ASSERT_TRUE(leaky_file >= 0 && leaky_socket >= 0);
  const std::string listing = root.at("/tmp/fds");
  // ls shows its own descriptor of the folder it reads as 3.
  EXPECT_EQ(WEXITSTATUS(posix_system(("ls /proc/self/fd > " + listing).c_str())), 0);
  EXPECT_EQ(am_test::read_file(listing), "0\n1\n2\n3\n");
  EXPECT_EQ(WEXITSTATUS(posix_system(("exit 3" + std::string(4089, ' ')).c_str())), 3);  // the longest command line
  EXPECT_EQ(WEXITSTATUS(posix_system("/customer/bin/no_such_helper")), 127);
  close(leaky_file), close(leaky_socket);
  // A status file written on a full disk is not put in place.
  EXPECT_TRUE(symlink("/dev/full", root.at("/tmp/full").c_str()) == 0 && am_status_file_replace("/tmp/st", "/tmp/full", "x", 1, 0644) == -1 && access(root.at("/tmp/st").c_str(), F_OK) != 0);
}

}  // namespace
