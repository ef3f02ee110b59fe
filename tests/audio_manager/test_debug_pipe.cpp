// Debug request pipe: the FPGA matrix section read from the bus and the request words.
#include "am_unit.h"
#include "qb_audio_debug.h"

namespace am_unit {
namespace {

TEST(DebugPipe, FpgaSectionFromTheEmulatedBus) {
  am_test::TempRoot root({"tmp", "dev"});
  ASSERT_TRUE(root.write(kBus, ""));
  am_test::I2cFake bus;
  for (const auto& [reg, value] : {std::pair<uint8_t, uint8_t>{0x52, 0x40} /* only the DAC multiplexer sounds */, {0x11, 0x08}, {0x17, 0x03}, {0x53, 0x01},
                                    {0x19, 0x02}, {0x58, 0x01}})
    bus.set_reg(kBus, kFpga, reg, value);
  const std::string expected = "dump fpga param begin\n[0x10][I2S_Mux_IT6621] <-- [0x0][None] mute:1\n[0x11][I2S_Mux_PCM5122] <-- [0x8][DSP-DAO1] mute:0\n"
      "[0x12][I2S_Mux_AVP_Q_I] <-- [0x0][None] mute:1\n[0x13][I2S_Mux_iMX8_SAI1-RX] <-- [0x0][None] mute:1\n"
      "[0x14][I2S_Mux_iMX8_SAI3-RX] <-- [0x0][None] mute:1\n[0x15][I2S_Mux_iMX8_SAI5-RX] <-- [0x0][None] mute:1\n"
      "[0x16][I2S_Mux_iMX8_SAI6-RX] <-- [0x0][None] mute:1\n[0x17][I2S_Mux_DSP_DAI1] <-- [0x3][HDMI-RCVR-TX] mute:1\n"
      "[0x18][I2S_Mux_SPDIF] <-- [0x0][None] mute:1\n[0x19][SPDIF_Mux] <-- [0x2][SPDIF-I] mute:0\n\n"
      "[0x55][HDMI-RCVR-TX] --> [fpga] mute:1\n[0x56][DSP-DAO1] --> [fpga] mute:1\n[0x57][IT6620] --> [fpga] mute:1\n[0x58][PCM1804] --> [fpga] mute:0\n"
      "[0x59][i.MX8-SAI1-TX] --> [fpga] mute:1\n[0x5A][i.MX8-SAI3-TX] --> [fpga] mute:1\n[0x5B][i.MX8-SAI5-TX] --> [fpga] mute:1\n\n";
  FILE* file = std::fopen(root.at("/tmp/section.txt").c_str(), "w");
  ASSERT_NE(file, nullptr);
  dump_fpga_status(file);
  std::fclose(file);
  EXPECT_EQ(am_test::read_file(root.at("/tmp/section.txt")), expected);
}

TEST(DebugPipe, RequestWordsChooseSections) {
  am_test::TempRoot root({"tmp", "dev"});
  ASSERT_TRUE(root.write(kBus, ""));
  am_test::I2cFake bus;
  for (const auto& [request, section, other] : {std::tuple<const char*, const char*, const char*>{"d4\n", "dump fpga param begin", "dump misc param begin"},
                                                {"d12", "dump misc param begin", "dump fpga param begin"}}) {
    qb_debug_serve_request(request);
    const std::string text = am_test::read_file(root.at("/tmp/dump-status.txt"));
    EXPECT_EQ(text.rfind(section + std::string("\n"), 0), 0u) << text;
    EXPECT_EQ(text.find(other), std::string::npos) << text;
  }
}

}  // namespace
}  // namespace am_unit
