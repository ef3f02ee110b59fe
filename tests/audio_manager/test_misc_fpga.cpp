// FPGA matrix access: the exact bus transfers of verified writes and of the sink gates.
#include "am_unit.h"
#include "qb_audio_earc.h"

namespace am_unit {
namespace {

using Seq = std::vector<std::string>;

class Fpga : public RoutingTest {};

TEST_F(Fpga, VerifiedWriteAndSinkGates) {
  EXPECT_EQ(qb_audio_fpga_i2c_write(0x11, 0x02), 1);
  EXPECT_EQ(transfers(bus), (Seq{"W 11=02", "R 11"}));
  // Read back differs: 0, the value logged, no second write.
  bus.clear_records();
  bus.set_read_value(kBus, kFpga, 0x11, 0x07);
  EXPECT_EQ(qb_audio_fpga_i2c_write(0x11, 0x02), 0);
  EXPECT_EQ(transfers(bus), (Seq{"W 11=02", "R 11"}));
  bus.clear_records();
  bus.fail_next_writes(1);
  EXPECT_EQ(qb_audio_fpga_i2c_write(0x12, 0x03), 0);
  EXPECT_EQ(bus.records().size(), 1u);  // no read-back after a failed write

  // A sink's mute changes only its own bit.
  bus.clear_records();
  bus.set_reg(kBus, kFpga, 0x53, 0xFF);
  EXPECT_EQ(spdif_output_mute(), 1);
  EXPECT_EQ(transfers(bus), (Seq{"R 52", "R 53", "W 53=fd", "R 53"}));
  // Muting clears only the sink's bit of an all-enabled register, unmuting sets only it.
  struct Case { const char* name; int (*mute)(void), (*unmute)(void); uint8_t reg, bit; };
  const Case cases[] = {{"earc", earc_output_mute, earc_output_unmute, 0x52, 0x80}, {"dsp", dsp_output_mute, dsp_output_unmute, 0x52, 0x01},
                        {"spdif", spdif_output_mute, spdif_output_unmute, 0x53, 0x02}};
  for (const Case& c : cases) {
    for (const bool mute : {true, false}) {
      bus.set_reg(kBus, kFpga, 0x52, c.reg == 0x52 && mute ? 0xFF : 0x00);
      bus.set_reg(kBus, kFpga, 0x53, c.reg == 0x53 && mute ? 0xFF : 0x00);
      EXPECT_EQ((mute ? c.mute : c.unmute)(), 1) << c.name << mute;
      EXPECT_EQ(bus.reg(kBus, kFpga, c.reg), mute ? 0xFF ^ c.bit : c.bit) << c.name << mute;
    }
  }
  // The enable register cannot be read, or the register is no sink: nothing written.
  bus.clear_records();
  bus.fail_next_reads(1);
  EXPECT_EQ(output_mute_ctrl(0x11, 1) + output_mute_ctrl(0x19, 1), 0);
  EXPECT_EQ(transfers(bus), (Seq{"R 52", "R 52"}));
}

// A stream on the eARC output brings the status bytes of its channel first.
TEST_F(Fpga, StreamOnTheEarcOutputBringsItsChannelStatus) {
  qb_audio_info r = make_record(2, 2, 0x80);
  r.ChStat[0] = 7;
  qb_audio_channel_state_set(7, &r);  // stream 2 plays on sai3, the channel of network input 3
  EXPECT_EQ(qb_audio_earc_output_src_select(QB_AUDIO_SRC_STREAM, 2), 1);
  EXPECT_EQ(fpga_writes(), (Writes{{0x30, 7}, {0x31, 0}, {0x32, 0}, {0x33, 0}, {0x34, 0}, {0x35, 0}, {0x10, 5}}));
}

}  // namespace
}  // namespace am_unit
