// Messages to the bridge, video processor and scaler services; the bridge-mode and monitor-state
// decisions; the stream switchers of the HDMI, eARC and S/PDIF outputs.
#include "am_test_edid.h"
#include "am_unit.h"
#include "qb_audio_oper_switch.h"
#include "qb_audio_stream.h"

namespace am_unit {
namespace {

class BridgeTest : public ControlTest {
 protected:
  static Bytes avp_format(int hz, int ch, int alloc, const std::string& enc) {
    return tlv_message(3, 0x80802, text_bytes("{\"hdmi_out_audio_sampling_frequency\":" + std::to_string(hz) + ",\"hdmi_out_audio_number_of_channels\":" +
        std::to_string(ch) + ",\"hdmi_out_audio_channel_allocation\":" + std::to_string(alloc) + ",\"hdmi_out_audio_audio_encoding_type\":\"" + enc + "\"}"));
  }
  const Bytes kMdinSwitch = tlv_message(6, 0x80009, text_bytes("switch audio"));
};

TEST_F(BridgeTest, PeerMessagesHaveTheirExactBytes) {
  qb_u8_t chs[6] = {0x04, 0x00, 0x02, 0x02, 0x0B, 0x13};
  EXPECT_EQ(it6621_channel_state_set(chs, 6), 1);
  EXPECT_EQ(next(kIt6621Port), tlv_message(8, 0x10002, Bytes(chs, chs + 6)));
  EXPECT_EQ(it6621_channel_state_set(chs, 5) + it6621_channel_state_set(nullptr, 6), 0);
  EXPECT_TRUE(quiet(kIt6621Port));
  EXPECT_EQ(send_audio_switch_to_mdin(), 1);
  EXPECT_EQ(next(kMdinPort), kMdinSwitch);  // no terminator
  // The HDMI output format without a record: the scaler hears, the video processor does not.
  EXPECT_EQ(set_avp_hdmi_out_audio_param(nullptr), -1);
  EXPECT_EQ(next(kMdinPort), kMdinSwitch);
  EXPECT_TRUE(quiet(kAvpPort));
  // A local stream on the HDMI output sends the source message; every format message repeats it first.
  EXPECT_EQ(qb_audio_stream_input_select(QB_AUDIO_OUTPUT_HDMI, 0, -1), 1);
  const Bytes source = tlv_message(3, 526338, text_bytes("{\"hdmi_out_audio_src\":\"multi-channel-local\"}"));
  EXPECT_EQ(next(kAvpPort), source);
  qb_audio_info_t rec{6, make_record(2, 2, 0x80)};
  EXPECT_EQ(set_avp_hdmi_out_audio_param(&rec), 1);
  EXPECT_EQ(next(kAvpPort), source);
  EXPECT_EQ(next(kAvpPort), avp_format(48000, 2, 0, "LPCM"));
  // LPCM names its channel allocation; channel status 9 makes any record high bit rate; a rate the
  // devices do not take plays as 48000.
  struct Case { int sf, ch, type, chstat3, hz, alloc; const char* enc; };
  for (const Case& c : {Case{10, 8, 0x80, 0, 96000, 0x13, "LPCM"}, Case{14, 8, 0x80, 9, 192000, 0, "ENCODED_HBR"},
                        Case{0x7F, 2, 0xA0, 0, 48000, 0, "ENCODED_OTHER"}}) {
    rec = {6, make_record(c.sf, c.ch, c.type)};
    rec.ainfo.ChStat[3] = static_cast<qb_s8_t>(c.chstat3), rec.ainfo.AUD_DB[3] = 0x13;
    EXPECT_EQ(set_avp_hdmi_out_audio_param(&rec) + (next(kAvpPort) == source) + (next(kAvpPort) == avp_format(c.hz, c.ch, c.alloc, c.enc)), 3) << c.sf;
  }
}

TEST_F(BridgeTest, BridgeModeMovesTheEarcOutputBetweenSai1AndSai3) {
  struct Case { const char* name; int fallback, previous, nsi, chstat1, chstat2, chstat3, mode, nsi_after, aborted_ch; };  // aborted_ch 0: none
  const Case cases[] = {{"arc, 2ch lpcm", 2, 0, 4, 0, 2, 0, 2, 4, 0},     {"arc, 8ch lpcm", 2, 0, 4, 0, 3, 0, 2, 5, 7},
                        {"arc, compressed 7", 2, 0, 4, 1, 7, 0, 2, 5, 7}, {"arc, no fallback", -1, 0, 4, 0, 2, 9, 2, 4, 0},
                        {"arc repeated", 2, 2, 4, 0, 2, 9, 2, 4, 0},      {"arc, already sai3", 2, 0, 5, 0, 2, 9, 2, 5, 0},
                        {"earc back to sai1", 2, 2, 5, 0, 0, 0, 1, 4, 6}, {"other mode", 2, 0, 4, 0, 2, 9, 7, 4, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    qb_audio_misc_init();
    set_it6621_status(c.previous);  // no fallback yet: only stored
    clear_aborts();
    // eARC output plays stream 0; its fallback as given.
    qb_audio_stream_input_select(QB_AUDIO_OUTPUT_EARC, 0, c.fallback);
    qb_msic_net_stream_in_earc_set(c.nsi);
    qb_audio_info rec = make_record(2, 2, 0x80);
    rec.ChStat[1] = static_cast<qb_s8_t>(c.chstat1), rec.ChStat[2] = static_cast<qb_s8_t>(c.chstat2), rec.ChStat[3] = static_cast<qb_s8_t>(c.chstat3);
    qb_audio_channel_state_set(6, &rec);
    bus.clear_records();
    EXPECT_EQ(set_it6621_status(c.mode), 0);
    EXPECT_EQ((std::pair<int, int>{get_it6621_status(), qb_msic_net_stream_in_earc_get()}), (std::pair<int, int>{c.mode, c.nsi_after}));
    for (int ch : {6, 7, 8}) EXPECT_EQ(aborted(ch), ch == c.aborted_ch) << ch;
    // A move rewrites the route of the eARC output from its configured stream (sai1).
    EXPECT_EQ(bus.reg(kBus, kFpga, FPGA_REG_ROUTE_EARC_OUT) == FPGA_SRC_SAI1 && bus.transfer_count(kBus, kFpga) > 0, c.aborted_ch != 0);
  }
}

TEST_F(BridgeTest, StreamSwitchersRouteRecordAndRestart) {
  struct Output { const char* name; int (*fn)(int, unsigned); qb_u8_t route_reg; int (*mode)(void), (*actual)(void), (*nsi)(void); bool restarts; };
  const Output outputs[] = {
      {"hdmi", set_output_hdmi_stream, FPGA_REG_ROUTE_HDMI_OUT, get_output_hdmi_stream_mode, get_output_hdmi_stream_actual_sid, qb_msic_net_stream_in_hdmi_get, true},
      {"earc", set_output_earc_stream, FPGA_REG_ROUTE_EARC_OUT, get_output_earc_stream_mode, get_output_earc_stream_actual_sid, qb_msic_net_stream_in_earc_get, true},
      {"spdif", set_output_spdif_stream, FPGA_REG_ROUTE_SPDIF_OUT, get_output_spdif_stream_mode, get_output_spdif_stream_actual_sid, qb_msic_net_stream_in_spdif_get,
       false}};
  const int source_of_sid[] = {FPGA_SRC_SAI1, FPGA_SRC_SAI5, FPGA_SRC_SAI3}, channel_of_sid[] = {6, 8, 7};
  for (const Output& o : outputs) {
    for (unsigned sid = 0; sid < 3; ++sid) {
      SCOPED_TRACE(testing::Message() << o.name << " sid " << sid);
      clear_aborts();
      EXPECT_EQ(o.fn(static_cast<int>(sid % 2), sid), 1);
      EXPECT_EQ((std::vector<int>{static_cast<int>(sid % 2), static_cast<int>(sid), source_of_sid[sid], source_of_sid[sid]}),
                (std::vector<int>{o.mode(), o.actual(), o.nsi(), bus.reg(kBus, kFpga, o.route_reg)}));
      for (int ch : {6, 7, 8}) EXPECT_EQ(aborted(ch), o.restarts && ch == channel_of_sid[sid]) << ch;
    }
    bus.clear_records();
    EXPECT_EQ((std::vector<int>{o.fn(0, 3), o.fn(0, 0xFFFFFFFFu), o.actual(), static_cast<int>(bus.transfer_count(kBus, kFpga))}), (std::vector<int>{0, 0, 2, 0}))
        << o.name;  // refused: still stream 2, no bus write
  }
}

}  // namespace
}  // namespace am_unit
