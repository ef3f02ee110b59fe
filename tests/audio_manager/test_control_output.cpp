// Output control commands: mute, delay, source selection, downmix, analog levels, the eARC output
// of the bridge, the ARC requests and the all-gates mute and unmute.
#include <gtest/gtest.h>

#include "qb_audio_misc_fpga.h"
#include "qb_audio_parse.h"
#include "qb_audio_stream.h"
#include "test_control_helpers.h"

namespace control_test {
namespace {

using RegWrites = am_test::I2cFake::RegWrites;
using OutputControlTest = ControlTest;

TEST_F(OutputControlTest, MuteActsPerPortAndRefusesTheStreamOutput) {
  struct Case {
    uint32_t ch, mute;
    int result;
    const char* line;  // nullptr: no action, no FPGA access
  };
  const Case cases[] = {
      {0, 1, 1, "set analog output mute"},   {0, 2, 1, "set analog output unmute"},
      {1, 1, 1, "set hdmi output mute"},     {2, 0, 1, "set spdif output unmute"},
      {3, 1, 1, "set arc/earc output mute"}, {5, 0, 1, "set dsp output unmute"},
      {4, 1, 0, nullptr},                    {9, 1, 0, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "ch " << c.ch << " mute " << c.mute);
    bus.clear_records();
    log.clear();
    EXPECT_EQ(call(output_mute_ctrl_set, words({c.ch, 7, c.mute})), c.result);
    EXPECT_EQ(log.count_prefix("output_mute_ctrl_set, chn["), 1);
    if (c.line != nullptr) {
      EXPECT_EQ(log.count(c.line), 1);
    }
    EXPECT_EQ(bus.transfer_count(kBus, kFpga) > 0, c.line != nullptr);
    if (c.ch == 0) {
      EXPECT_EQ(get_output_analog_mute(), c.mute == 1 ? 1 : 0);
    }
  }
}

TEST_F(OutputControlTest, LatencyWritesTheFifteenBitDelayOfEachPort) {
  struct Case {
    uint32_t ch, time;
    RegWrites writes;  // empty: invalid port
    const char* word;
  };
  const Case cases[] = {
      {1, 0x1234, {{0x24, 0x34}, {0x25, 0x12}}, "hdmi"},
      {1, 0x8001, {{0x24, 0x01}, {0x25, 0x00}}, "hdmi"},  // bit 15 is dropped
      {0, 0x7FFF, {{0x22, 0xFF}, {0x23, 0x7F}}, "analog"},
      {2, 0x0100, {{0x26, 0x00}, {0x27, 0x01}}, "spdif"},
      {3, 0xFFFFFFFF, {{0x20, 0xFF}, {0x21, 0x7F}}, "earc"},
      {4, 0x10, {}, nullptr},
      {5, 0x10, {}, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "ch " << c.ch << " time " << c.time);
    bus.clear_records();
    log.clear();
    EXPECT_EQ(call(output_latency_ctrl_set, words({c.ch, c.time})), c.writes.empty() ? 0 : 1);
    EXPECT_EQ(fpga_writes(), c.writes);
    EXPECT_EQ(log.has("output latency set invalid channel", AM_LOG_LEVEL_ERROR), c.writes.empty());
    for (const auto& w : c.writes) {
      char line[80];
      std::snprintf(line, sizeof line, "set fpga %s channel add:48 reg:%02x val:%02x", c.word,
                    w.first, w.second);
      EXPECT_EQ(log.count(line), 1);
    }
  }
}

TEST_F(OutputControlTest, AnalogInputLevelWritesRegister50) {
  EXPECT_EQ(call(input_analog_volume_set, words({1})), 1);
  EXPECT_EQ(bus.reg(kBus, kFpga, 0x50), 1);
  EXPECT_EQ(call(input_analog_volume_set, words({2})), 1);
  EXPECT_EQ(bus.reg(kBus, kFpga, 0x50), 0);
  bus.clear_records();
  EXPECT_EQ(call(input_analog_volume_set, words({3})), 0);
  EXPECT_TRUE(log.has("invalid input analog vrms:3", AM_LOG_LEVEL_ERROR));
  EXPECT_EQ(bus.transfer_count(kBus, kFpga), 0u);
  bus.fail_next_writes(1);
  EXPECT_EQ(call(input_analog_volume_set, words({1})), 0);
  EXPECT_TRUE(log.has("set input analog vrms:1 fpga fail", AM_LOG_LEVEL_ERROR));
}

TEST_F(OutputControlTest, ArcModesReachTheirBridgeServices) {
  struct Case {
    uint32_t ch, enable, only_arc;
    int mode;  // -1: nothing sent
    const char* line;
  };
  const Case cases[] = {
      {3, 1, 7, 2, "set arc only output enable in it6621"},
      {3, 1, 0, 1, "set arc&earc output enable in it6621"},
      {3, 5, 0, 0, "set arc/earc output disable in it6621"},
      {1, 1, 0, -1, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.ch << "/" << c.enable << "/" << c.only_arc);
    EXPECT_EQ(call(output_earc_enable_ctrl_set, words({c.ch, c.enable, c.only_arc})), 1);
    if (c.mode < 0) {
      EXPECT_TRUE(quiet(kIt6621Port));
      continue;
    }
    EXPECT_EQ(next(kIt6621Port), tlv_message(8, 0x00030002, le32(c.mode)));
    EXPECT_EQ(log.count(c.line), 1);
  }
  EXPECT_EQ(arc_on_off_ctrl(2), 1);
  EXPECT_EQ(next(kIt6620Port), tlv_message(7, 0x00030002, le32(2)));
  EXPECT_EQ(log.count("arc_on_off_ctrl,arc on/off 2"), 1);
  EXPECT_EQ(log.count("it6621_arc_on_off_ctrl,it6621_arc_on_off_ctrl arc on/off 0"), 1);
  EXPECT_TRUE(quiet(kIt6620Port));
}

TEST_F(OutputControlTest, SourceSelectionRoutesAndResetsTheStreamMode) {
  EXPECT_EQ(call(output_src_select_set, words({0, 0})), 1);
  EXPECT_EQ(bus.reg(kBus, kFpga, FPGA_REG_ROUTE_ANALOG_OUT), FPGA_SRC_PCM1804);
  EXPECT_EQ(qb_misc_audio_info_analog_port_copy().src, 0u);
  EXPECT_EQ(log.count("set analog src analog:0,s32sid_analog = 0"), 1);
  // The HDMI, S/PDIF and eARC outputs go back to their chosen stream before routing.
  set_output_hdmi_stream_mode(1);
  set_output_spdif_stream_mode(1);
  set_output_earc_stream_mode(1);
  EXPECT_EQ(call(output_src_select_set, words({1, 1})), 1);
  EXPECT_EQ(bus.reg(kBus, kFpga, FPGA_REG_ROUTE_HDMI_OUT), FPGA_SRC_HDMI_IN);
  EXPECT_EQ(call(output_src_select_set, words({2, 0})), 1);
  EXPECT_EQ(call(output_src_select_set, words({3, 3})), 1);
  EXPECT_EQ(bus.reg(kBus, kFpga, FPGA_REG_ROUTE_EARC_OUT), FPGA_SRC_IT6620);
  EXPECT_EQ(get_output_hdmi_stream_mode() + get_output_spdif_stream_mode() +
                get_output_earc_stream_mode(),
            0);
  EXPECT_EQ(call(output_src_select_set, words({1, 5})), 0);  // the selection's refusal passes on
  bus.clear_records();
  EXPECT_EQ(call(output_src_select_set, words({6, 0})), 0);
  EXPECT_TRUE(log.has("output src set invalid channel", AM_LOG_LEVEL_ERROR));
  EXPECT_EQ(bus.transfer_count(kBus, kFpga), 0u);
  EXPECT_EQ(call(output_src_select_get, words({1, 4})), 1);
  EXPECT_EQ(log.count("output_src_select_get, buflen[8], ch[1], src[4]"), 1);
}

TEST_F(OutputControlTest, DownmixModeIsKeptPerOutputAndGetsDoNothing) {
  for (uint32_t ch : {1u, 2u, 3u, 0u}) EXPECT_EQ(call(output_dwm_mode_set, words({ch, ch + 1})), 1);
  EXPECT_EQ(qb_misc_audio_downmix_hdmi_get(), 2u);
  EXPECT_EQ(qb_misc_audio_downmix_spdif_get(), 3u);
  EXPECT_EQ(qb_misc_audio_downmix_earc_get(), 4u);
  bus.clear_records();
  for (Handler fn : {output_mute_ctrl_get, output_latency_ctrl_get, output_dwm_mode_get,
                     output_analog_volume_get, output_analog_fullscalevrms_get,
                     output_earc_enable_ctrl_get}) {
    EXPECT_EQ(call(fn, words({1, 2, 3})), 1);
  }
  EXPECT_EQ(bus.transfer_count(kBus, kFpga), 0u);
  EXPECT_TRUE(codec_calls().empty());
}

TEST_F(OutputControlTest, AllGatesMuteAndUnmute) {
  audio_mute_all();
  EXPECT_EQ(fpga_writes(), (RegWrites{{0x52, 0x00}}));
  bus.clear_records();
  audio_unmute_all();
  EXPECT_EQ(fpga_writes(), (RegWrites{{0x52, 0xFF}, {0x53, 0xFF}, {0x55, 0xFF}, {0x56, 0xFF},
                                      {0x57, 0xFF}, {0x58, 0xFF}, {0x59, 0xFF}, {0x5A, 0xFF},
                                      {0x5B, 0xFF}}));
  EXPECT_EQ(log.count("audio_mute_all audio mute all, fpga addr:48, reg:52, value:00"), 1);
  EXPECT_EQ(log.count("audio_unmute_all audio unmute all, fpga addr:0x48, reg:0x5b, value:0xff"),
            1);
}

}  // namespace
}  // namespace control_test
