// I2C transfers on the three backends: emulated register file with its log, the i2c-dev request
// on a character device, and the in-process override; failure texts and results.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "am_i2c_fake.h"
#include "am_test_env.h"
#include "i2c_device.h"

namespace {

constexpr const char* kBus = "/dev/i2c-2";

// Byte at an offset of the emulated register file (-1 past its end).
int file_byte(const std::string& path, size_t offset) {
  const std::string content = am_test::read_file(path);
  return offset < content.size() ? static_cast<unsigned char>(content[offset]) : -1;
}

struct EmulatedBus : ::testing::Test {
  EmulatedBus() : root({"dev"}) {}
  void with_log() { ASSERT_TRUE(root.write(std::string(kBus) + ".log", "")); }
  std::string log() const { return am_test::read_file(root.at(kBus) + ".log"); }
  am_test::TempRoot root;
};

}  // namespace

// Byte, multi-byte and word registers land at their offsets of the register file and every
// message is one "W/R AA RR DD ..." line of the log; unwritten registers read 0.
TEST_F(EmulatedBus, RegisterFileAndLogLines) {
  with_log();
  const qb_u8_t data[3] = {0xAB, 0x0A, 0xFF};
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
  EXPECT_EQ(log(),
            "W 48 52 AB\nW 60 10 AB 0A FF\nR 60 10 AB 0A FF 00\nR 7F FF 00\n"
            "W 50 1234 AB 0A\nR 50 1234 AB 0A\n");
}

TEST_F(EmulatedBus, NoLogFileNoLog) {
  const qb_u8_t v = 1;
  EXPECT_EQ(I2C_Device_Write(kBus, 0x48, 0x10, &v, 1), 0);
  EXPECT_EQ(access(root.at(std::string(kBus) + ".log").c_str(), F_OK), -1);
}

TEST_F(EmulatedBus, AddressBeyondSevenBitsIsAFailedTransfer) {
  const qb_u8_t v = 1;
  testing::internal::CaptureStdout();
  EXPECT_EQ(I2C_Device_Write(kBus, 0x80, 0x10, &v, 1), -2);
  qb_u8_t got = 0;
  EXPECT_EQ(I2C_Device_Read(kBus, 0x85, 0x10, &got, 1), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Unable to send data\nI2c_Write Failed at addr=[0x80]\n"
            "Unable to send data\nI2c_Read Failed at addr=[0x85]\n");
}

TEST_F(EmulatedBus, OpenFailureAndNullPath) {
  const qb_u8_t v = 1;
  qb_u8_t got = 0;
  testing::internal::CaptureStdout();
  EXPECT_EQ(I2C_Device_Write("/no/such/dir/i2c-9", 0x48, 0x10, &v, 1), -1);
  EXPECT_EQ(I2C_Device_Read("/no/such/dir/i2c-9", 0x48, 0x10, &got, 1), -1);
  EXPECT_EQ(I2C_Device_Write(nullptr, 0x48, 0x10, &v, 1), -1);
  EXPECT_EQ(I2C_Device_Read_Word_Reg(nullptr, 0x48, 0x10, &got, 1), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Unable to open i2c control file\nUnable to open i2c control file\n"
            "filepath is null\nfilepath is null\n");
}

// A character device that does not understand I2C_RDWR: the board backend reports a failed
// transfer (the address is printed with %2x, so a small one is space-padded).
TEST_F(EmulatedBus, CharacterDeviceWithoutI2cSupportFailsTheTransfer) {
  ASSERT_EQ(symlink("/dev/null", root.at("/dev/i2c-7").c_str()), 0);
  const qb_u8_t v = 1;
  qb_u8_t got = 0;
  testing::internal::CaptureStdout();
  EXPECT_EQ(I2C_Device_Write("/dev/i2c-7", 0x05, 0x10, &v, 1), -2);
  EXPECT_EQ(I2C_Device_Read("/dev/i2c-7", 0x48, 0x10, &got, 1), -1);
  EXPECT_EQ(I2C_Device_Write_Word_Reg("/dev/i2c-7", 0x48, 0x10, &v, 1), -2);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Unable to send data\nI2c_Write Failed at addr=[0x 5]\n"
            "Unable to send data\nI2c_Read Failed at addr=[0x48]\n"
            "Unable to send data\nI2c_Write Failed at addr=[0x48]\n");
}

namespace {

// Records each transfer as "path width nmsgs: first message bytes"; reads return C0 C1 ...
int recording_hook(const char* path, struct i2c_msg* msgs, int nmsgs, void* ctx) {
  std::string line = std::string(path) + " " + std::to_string(am_i2c_current_reg_width()) + " " +
                     std::to_string(nmsgs) + ":";
  for (int i = 0; i < msgs[0].len; ++i) {
    char hex[4];
    snprintf(hex, sizeof(hex), " %02X", msgs[0].buf[i]);
    line += hex;
  }
  static_cast<std::vector<std::string>*>(ctx)->push_back(line);
  if (nmsgs == 2 && (msgs[1].flags & I2C_M_RD) != 0) {
    for (int i = 0; i < msgs[1].len; ++i) msgs[1].buf[i] = static_cast<qb_u8_t>(0xC0 + i);
  }
  return 0;
}

}  // namespace

// The override sees the board path (not resolved), the register bytes high byte first and the
// register width of the transfer.
TEST(I2cOverride, SeesBoardPathsAndMessages) {
  std::vector<std::string> seen;
  am_i2c_set_transfer_override(recording_hook, &seen);
  const qb_u8_t data[2] = {0x11, 0x22};
  EXPECT_EQ(I2C_Device_Write(kBus, 0x48, 0x52, data, 2), 0);
  EXPECT_EQ(I2C_Device_Write_Word_Reg(kBus, 0x48, 0xABCD, data, 1), 0);
  qb_u8_t got[2] = {};
  EXPECT_EQ(I2C_Device_Read(kBus, 0x60, 0x07, got, 2), 0);
  am_i2c_set_transfer_override(nullptr, nullptr);
  EXPECT_EQ(got[1], 0xC1);
  EXPECT_EQ(seen, (std::vector<std::string>{"/dev/i2c-2 1 1: 52 11 22", "/dev/i2c-2 2 1: AB CD 11",
                                            "/dev/i2c-2 1 2: 07"}));
}

// Removing the fake (the override) gives the transfers back to the register file.
TEST(I2cFake, RemovalRestoresBackends) {
  am_test::TempRoot root({"dev"});
  {
    am_test::I2cFake bus;
    const qb_u8_t v = 9;
    EXPECT_EQ(I2C_Device_Write_Word_Reg(kBus, 0x50, 0x0102, &v, 1), 0);
    EXPECT_EQ(bus.writes(kBus, 0x50), (am_test::I2cFake::RegWrites{{0x0102, 9}}));
    EXPECT_EQ(access(root.at(kBus).c_str(), F_OK), -1);
  }
  const qb_u8_t v = 3;
  EXPECT_EQ(I2C_Device_Write(kBus, 0x48, 0x00, &v, 1), 0);
  EXPECT_EQ(file_byte(root.at(kBus), 0x48 * 256), 3);
}
