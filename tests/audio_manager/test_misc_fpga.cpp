// FPGA matrix access: the exact bus transfers of verified writes, routes, gates and channel status.
#include <string>
#include <vector>

#include "am_unit.h"

namespace am_unit {
namespace {

using Seq = std::vector<std::string>;
using Writes = am_test::I2cFake::RegWrites;

class Fpga : public RoutingTest {};

TEST_F(Fpga, VerifiedWriteAndRead) {
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
  bus.fail_next_reads(1);
  EXPECT_EQ(qb_audio_fpga_i2c_write(0x12, 0x03), 0);

  qb_u8_t v = 0x5A;
  bus.fail_next_reads(1);
  EXPECT_EQ(qb_audio_fpga_i2c_read(0x52, &v), 0);
  bus.set_reg(kBus, kFpga, 0x52, 0x81);
  EXPECT_EQ(qb_audio_fpga_i2c_read(0x52, &v), 1);
  EXPECT_EQ(v, 0x81);
}

TEST_F(Fpga, RouteRefusesOutOfRangeWithoutBusTraffic) {
  EXPECT_EQ(qb_audio_fpga_ch_route_set(0x19, 2), 0);
  EXPECT_EQ(qb_audio_fpga_ch_route_set(0x11, 0), 0);
  EXPECT_EQ(qb_audio_fpga_ch_route_set(0x11, 10), 0);
  EXPECT_EQ(qb_audio_fpga_ch_route_set(0x0F, 1), 0);
  EXPECT_EQ(bus.records().size(), 0u);
  EXPECT_EQ(qb_audio_fpga_ch_route_set(0x18, 9), 1);
  EXPECT_EQ(qb_audio_fpga_ch_route_set(0x10, 1), 1);
  EXPECT_EQ(transfers(bus), (Seq{"W 18=09", "R 18", "W 10=01", "R 10"}));
}

TEST_F(Fpga, SinkMuteChangesOnlyItsOwnBit) {
  bus.set_reg(kBus, kFpga, 0x52, 0xFF);
  bus.set_reg(kBus, kFpga, 0x53, 0xFF);
  EXPECT_EQ(spdif_output_mute(), 1);
  EXPECT_EQ(transfers(bus), (Seq{"R 52", "R 53", "W 53=fd", "R 53"}));
  EXPECT_EQ(bus.reg(kBus, kFpga, 0x52), 0xFF);
  bus.clear_records();
  EXPECT_EQ(analog_output_mute(), 1);
  EXPECT_EQ(transfers(bus), (Seq{"R 52", "W 52=bf", "R 52"}));
  EXPECT_EQ(bus.reg(kBus, kFpga, 0x53), 0xFD);

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

TEST_F(Fpga, StreamOutputsUseThreeReadModifyWriteCycles) {
  bus.set_reg(kBus, kFpga, 0x52, 0x00);
  EXPECT_EQ(stream_output_unmute(), 1);
  EXPECT_EQ(transfers(bus), (Seq{"R 52", "W 52=10", "R 52", "R 52", "W 52=18", "R 52", "R 52",
                                 "W 52=1c", "R 52"}));
  bus.fail_next_writes(3);
  EXPECT_EQ(stream_output_mute(), 1);  // always 1
  EXPECT_EQ(bus.reg(kBus, kFpga, 0x52), 0x1C);
}

TEST_F(Fpga, CaptureInputGates) {
  for (int src : {2, 4, 5, 10}) EXPECT_EQ(input_mute_ctrl(src, 1), -1) << src;
  EXPECT_EQ(bus.records().size(), 0u);
  EXPECT_EQ(input_mute_ctrl(1, 1), 1);
  EXPECT_EQ(input_mute_ctrl(1, 0), 1);
  EXPECT_EQ(transfers(bus), (Seq{"W 55=00", "R 55", "W 55=01", "R 55"}));
  const int gates[][2] = {{0, 0x58}, {3, 0x57}, {6, 0x56}, {7, 0x59}, {8, 0x5A}, {9, 0x5B}};
  for (const auto& g : gates) {
    bus.clear_records();
    EXPECT_EQ(input_mute_ctrl(g[0], 1), 1);
    EXPECT_EQ(bus.writes(kBus, kFpga), (Writes{{g[1], 0}})) << g[0];
  }
  bus.set_read_value(kBus, kFpga, 0x58, 0x09);
  EXPECT_EQ(input_mute_ctrl(0, 0), 0);  // the verified write's result

  bus.set_reg(kBus, kFpga, 0x55, 0x00);
  EXPECT_EQ(audio_hdmi_to_fpga_mute(), 1);
  bus.set_reg(kBus, kFpga, 0x55, 0x01);
  EXPECT_EQ(audio_hdmi_to_fpga_mute(), 0);
  bus.fail_next_reads(1);
  EXPECT_EQ(audio_hdmi_to_fpga_mute(), 1);  // unreadable counts as muted
}

TEST_F(Fpga, ChannelStatusGoesToSixRegisters) {
  EXPECT_EQ(qb_audio_fpga_earc_chs_write(0), 0);
  EXPECT_EQ(qb_audio_fpga_spdif_chs_write(14), 0);
  EXPECT_EQ(bus.records().size(), 0u);

  qb_audio_info rec = make_record(14, 2, 0x90);
  const qb_s8_t chs[5] = {0x06, 0x01, 0x02, 0x0E, 0x0B};
  std::memcpy(rec.ChStat, chs, sizeof chs);
  qb_audio_channel_state_set(7, &rec);
  EXPECT_EQ(qb_audio_fpga_earc_chs_write(7), 1);
  EXPECT_EQ(bus.writes(kBus, kFpga),
            (Writes{{0x30, 0x06}, {0x31, 0x01}, {0x32, 0x02}, {0x33, 0x0E}, {0x34, 0x0B}, {0x35, 0x00}}));
  EXPECT_EQ(transfers(bus).size(), 12u);  // each write verified

  bus.clear_records();
  bus.fail_next_writes(6);
  EXPECT_EQ(qb_audio_fpga_spdif_chs_write(7), 1);  // whatever the writes gave
  ASSERT_EQ(bus.records().size(), 6u);
  EXPECT_EQ(bus.records()[0].reg, 0x36);
  EXPECT_EQ(bus.records()[5].reg, 0x3B);
}

TEST_F(Fpga, AnalogOutputSelectFunctions) {
  struct Case { int (*fn)(void); const char* name; };
  const Case cases[] = {
      {qb_audio_output_from_earc_in, "qb_audio_output_from_earc_in"},
      {qb_audio_output_from_analog_in, "qb_audio_output_from_analog_in"},
      {qb_audio_output_from_hdmi_in, "qb_audio_output_from_hdmi_in"},
      {qb_audio_output_from_sai1_tx, "qb_audio_output_from_sai1_tx"},
      {qb_audio_output_from_sai3_tx, "qb_audio_output_from_sai3_tx"},
      {qb_audio_output_from_sai5_tx, "qb_audio_output_from_sai5_tx"},
      {qb_audio_output_from_sai6_tx, "qb_audio_output_from_sai6_tx"},
      {qb_audio_output_from_dsp_out, "qb_audio_output_from_dsp_out"},
      {qb_audio_output_from_spdif_in, "qb_audio_output_from_spdif_in"},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {  // source values 1..9 in table order
    bus.clear_records();
    EXPECT_EQ(cases[i].fn(), 1) << cases[i].name;
    EXPECT_EQ(bus.writes(kBus, kFpga), (Writes{{0x11, static_cast<uint8_t>(i + 1)}})) << cases[i].name;
  }
  bus.set_read_value(kBus, kFpga, 0x11, 0x00);
  EXPECT_EQ(qb_audio_output_from_dsp_out(), 0);
}

}  // namespace
}  // namespace am_unit
