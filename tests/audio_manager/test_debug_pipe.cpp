// Debug request pipe: the FPGA matrix section read from the bus, request words and the marker file.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>

#include "am_i2c_fake.h"
#include "am_test_env.h"
#include "qb_audio_debug.h"

namespace am_unit {
namespace {

constexpr const char* kBus = "/dev/i2c-2";
constexpr uint16_t kFpga = 0x48;

std::string fpga_section(const am_test::TempRoot& root) {
  const std::string path = root.at("/tmp/section.txt");
  FILE* file = std::fopen(path.c_str(), "w");
  EXPECT_NE(file, nullptr);
  dump_fpga_status(file);
  std::fclose(file);
  return am_test::read_file(path);
}

TEST(DebugPipe, RouteLinesNameSinksSourcesAndMute) {
  struct Case { uint8_t reg, value, enable; const char* line; };
  const Case cases[] = {
      {0x19, 2, 0x00, "[0x19][SPDIF_Mux] <-- [0x2][SPDIF-I] mute:1\n"},
      {0x11, 2, 0x40, "[0x11][I2S_Mux_PCM5122] <-- [0x2][PCM1804] mute:0\n"},
      {0x10, 2, 0x40, "[0x10][I2S_Mux_IT6621] <-- [0x2][PCM1804] mute:1\n"},
      {0x14, 5, 0x08, "[0x14][I2S_Mux_iMX8_SAI3-RX] <-- [0x5][ i.MX8-SAI3-TX] mute:0\n"},
      {0x18, 11, 0x02, "[0x18][I2S_Mux_SPDIF] <-- [0xb][UNKONWN] mute:0\n"},
      {0x20, 1, 0x00, "[0x20][UNKONWN] <-- [0x1][IT6620] mute:0\n"},
  };
  am_test::TempRoot root({"tmp"});
  for (const Case& c : cases) {
    const std::string path = root.at("/tmp/line.txt");
    FILE* file = std::fopen(path.c_str(), "w");
    ASSERT_NE(file, nullptr);
    dump_detail_info(file, c.reg, c.value, c.enable);
    std::fclose(file);
    EXPECT_EQ(am_test::read_file(path), c.line);
  }
  dump_detail_info(nullptr, 0x10, 1, 0);  // no file: nothing happens
}

TEST(DebugPipe, FpgaSectionFromTheEmulatedBus) {
  am_test::TempRoot root({"tmp", "dev"});
  ASSERT_TRUE(root.write(kBus, ""));
  am_test::I2cFake bus;
  bus.set_reg(kBus, kFpga, 0x52, 0x40);  // only the DAC multiplexer sounds
  bus.set_reg(kBus, kFpga, 0x11, 0x08);
  bus.set_reg(kBus, kFpga, 0x17, 0x03);
  bus.set_reg(kBus, kFpga, 0x53, 0x01);
  bus.set_reg(kBus, kFpga, 0x19, 0x02);
  bus.set_reg(kBus, kFpga, 0x58, 0x01);
  const std::string expected =
      "dump fpga param begin\n"
      "[0x10][I2S_Mux_IT6621] <-- [0x0][None] mute:1\n"
      "[0x11][I2S_Mux_PCM5122] <-- [0x8][DSP-DAO1] mute:0\n"
      "[0x12][I2S_Mux_AVP_Q_I] <-- [0x0][None] mute:1\n"
      "[0x13][I2S_Mux_iMX8_SAI1-RX] <-- [0x0][None] mute:1\n"
      "[0x14][I2S_Mux_iMX8_SAI3-RX] <-- [0x0][None] mute:1\n"
      "[0x15][I2S_Mux_iMX8_SAI5-RX] <-- [0x0][None] mute:1\n"
      "[0x16][I2S_Mux_iMX8_SAI6-RX] <-- [0x0][None] mute:1\n"
      "[0x17][I2S_Mux_DSP_DAI1] <-- [0x3][HDMI-RCVR-TX] mute:1\n"
      "[0x18][I2S_Mux_SPDIF] <-- [0x0][None] mute:1\n"
      "[0x19][SPDIF_Mux] <-- [0x2][SPDIF-I] mute:0\n"
      "\n"
      "[0x55][HDMI-RCVR-TX] --> [fpga] mute:1\n"
      "[0x56][DSP-DAO1] --> [fpga] mute:1\n"
      "[0x57][IT6620] --> [fpga] mute:1\n"
      "[0x58][PCM1804] --> [fpga] mute:0\n"
      "[0x59][i.MX8-SAI1-TX] --> [fpga] mute:1\n"
      "[0x5A][i.MX8-SAI3-TX] --> [fpga] mute:1\n"
      "[0x5B][i.MX8-SAI5-TX] --> [fpga] mute:1\n"
      "\n";
  EXPECT_EQ(fpga_section(root), expected);
}

TEST(DebugPipe, FailedReadsSkipRouteLinesAndKeepThePreviousInputValue) {
  am_test::TempRoot root({"tmp", "dev"});
  ASSERT_TRUE(root.write(kBus, ""));
  am_test::I2cFake bus;
  bus.set_reg(kBus, kFpga, 0x58, 0x01);
  bus.fail_next_reads(3);  // 0x52, 0x10, 0x11
  const std::string section = fpga_section(root);
  EXPECT_EQ(section.find("[0x10]"), std::string::npos);
  EXPECT_EQ(section.find("[0x11]"), std::string::npos);
  EXPECT_NE(section.find("[0x12][I2S_Mux_AVP_Q_I] <-- [0x0][None] mute:1\n"), std::string::npos);
}

TEST(DebugPipe, MissingBusLeavesTheSectionEmpty) {
  am_test::TempRoot root({"tmp"});
  EXPECT_EQ(fpga_section(root), "");
}

TEST(DebugPipe, RequestWordsChooseSections) {
  am_test::TempRoot root({"tmp", "dev"});
  ASSERT_TRUE(root.write(kBus, ""));
  am_test::I2cFake bus;
  const std::string dump = root.at("/tmp/dump-status.txt");
  const std::string marker = root.at("/tmp/request-ok");

  qb_debug_serve_request("d4\n");
  std::string text = am_test::read_file(dump);
  EXPECT_EQ(text.rfind("dump fpga param begin\n", 0), 0u) << text;
  EXPECT_EQ(text.find("dump misc param begin"), std::string::npos);
  struct stat st;
  EXPECT_EQ(stat(marker.c_str(), &st), 0);

  qb_debug_serve_request("d12");
  text = am_test::read_file(dump);
  EXPECT_EQ(text.rfind("dump misc param begin\n", 0), 0u) << text;
  EXPECT_EQ(text.find("dump fpga param begin"), std::string::npos);

  ASSERT_TRUE(am_test::write_file(dump, "previous dump"));
  ASSERT_EQ(unlink(marker.c_str()), 0);
  qb_debug_serve_request("status please");
  EXPECT_EQ(am_test::read_file(dump), "previous dump");
  EXPECT_EQ(stat(marker.c_str(), &st), 0);
}

TEST(DebugPipe, UnwritableDumpFileSkipsTheDumpButStillMarksDone) {
  am_test::TempRoot root({"tmp"});
  ASSERT_TRUE(am_test::make_dirs(root.at("/tmp/dump-status.txt")));  // a folder cannot be opened
  qb_debug_serve_request("d4");
  struct stat st;
  EXPECT_EQ(stat(root.at("/tmp/request-ok").c_str(), &st), 0);
}

}  // namespace
}  // namespace am_unit
