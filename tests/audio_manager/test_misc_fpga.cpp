// FPGA matrix access: the exact bus transfers of verified writes and of the sink gates.
#include <string>
#include <vector>

#include "am_unit.h"

namespace am_unit {
namespace {

using Seq = std::vector<std::string>;
using Writes = am_test::I2cFake::RegWrites;

class Fpga : public RoutingTest {};

TEST_F(Fpga, VerifiedWrite) {
  EXPECT_EQ(qb_audio_fpga_i2c_write(0x11, 0x02), 1);
  EXPECT_EQ(transfers(bus), (Seq{"W 11=02", "R 11"}));
  EXPECT_EQ(bus.records()[0].path, kBus);
  EXPECT_EQ(bus.records()[0].addr, kFpga);

  // Read back differs: 0, the value logged, no second write.
  bus.clear_records();
  bus.set_read_value(kBus, kFpga, 0x11, 0x07);
  EXPECT_EQ(qb_audio_fpga_i2c_write(0x11, 0x02), 0);
  EXPECT_EQ(transfers(bus), (Seq{"W 11=02", "R 11"}));
  bus.clear_records();
  bus.fail_next_writes(1);
  EXPECT_EQ(qb_audio_fpga_i2c_write(0x12, 0x03), 0);
  EXPECT_EQ(bus.records().size(), 1u);  // no read-back after a failed write

}

TEST_F(Fpga, SinkMuteChangesOnlyItsOwnBit) {
  bus.set_reg(kBus, kFpga, 0x53, 0xFF);
  EXPECT_EQ(spdif_output_mute(), 1);
  EXPECT_EQ(transfers(bus), (Seq{"R 52", "R 53", "W 53=fd", "R 53"}));
  struct Case { int (*fn)(void); const char* text; uint8_t reg, before, after; };
  const Case cases[] = {
      {earc_output_mute, "earc output mute", 0x52, 0xFF, 0x7F},
      {earc_output_unmute, "earc output unmute", 0x52, 0x00, 0x80},
      {analog_output_mute, "analog output mute", 0x52, 0xFF, 0xBF},
      {analog_output_unmute, "analog output unmute", 0x52, 0x00, 0x40},
      {hdmi_output_mute, "hdmi output mute", 0x52, 0xFF, 0xDF},
      {hdmi_output_unmute, "hdmi output unmute", 0x52, 0x00, 0x20},
      {dsp_output_mute, "dsp output mute", 0x52, 0xFF, 0xFE},
      {dsp_output_unmute, "dsp output unmute", 0x52, 0x00, 0x01},
      {spdif_output_mute, "spdif output mute", 0x53, 0xFF, 0xFD},
      {spdif_output_unmute, "spdif output unmute", 0x53, 0x00, 0x02},
  };
  for (const Case& c : cases) {
    bus.set_reg(kBus, kFpga, 0x52, c.reg == 0x52 ? c.before : 0x00);
    bus.set_reg(kBus, kFpga, 0x53, c.reg == 0x53 ? c.before : 0x00);
    EXPECT_EQ(c.fn(), 1) << c.text;
    EXPECT_EQ(bus.reg(kBus, kFpga, c.reg), c.after) << c.text;
  }

  // The enable register cannot be read, or the register is no sink: nothing written.
  bus.clear_records();
  bus.fail_next_reads(1);
  EXPECT_EQ(output_mute_ctrl(0x11, 1), 0);
  EXPECT_EQ(output_mute_ctrl(0x19, 1), 0);
  EXPECT_EQ(transfers(bus), (Seq{"R 52", "R 52"}));
}

}  // namespace
}  // namespace am_unit
