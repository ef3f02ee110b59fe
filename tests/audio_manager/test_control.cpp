// Command handlers as peers see them: FPGA writes, bridge messages and status reports; payloads of
// the wrong size, each in a heap block of exactly its size so the sanitizer build sees a read past it.
#include "am_unit.h"
#include "qb_audio_misc_stream.h"
#include "qb_audio_oper_packet.h"
#include "qb_audio_parse.h"
#include "qb_audio_stream.h"

namespace am_unit {
namespace {

// A payload in a heap block of exactly n bytes.
struct Payload {
  Payload(int n, uint8_t fill) : size(n), bytes(new uint8_t[static_cast<size_t>(n)]) { std::memset(bytes.get(), fill, static_cast<size_t>(n)); }
  int call(Handler fn) const { return fn(bytes.get(), size); }
  int size;
  std::unique_ptr<uint8_t[]> bytes;
};

Bytes output_request(int32_t sid, int32_t source, const std::string& mac) {
  Bytes b = words({static_cast<uint32_t>(sid), static_cast<uint32_t>(source)});
  b.resize(24, 0);
  std::memcpy(b.data() + 8, mac.data(), std::min<size_t>(mac.size(), 16));
  return b;
}
std::string entry(const std::string& port, int channels, const std::string& encoding, const std::string& format, int hz) {
  return "{\"channels\":" + std::to_string(channels) + ",\"encodingType\":\"" + encoding + "\",\"format\":\"" + format +
         "\",\"port\":\"" + port + "\",\"sampleFrequency\":" + std::to_string(hz) + ",\"sampleSize\":24,\"state\":\"on\"}";
}
void set_onlyarc(uint32_t v) { call(input_earc_onlyarc_ctrl_set, le32(v)); }

using Control = ControlTest;

TEST_F(Control, MuteActsOnItsPortsGateAndTheInputLevelOnItsRegister) {
  struct Case { uint32_t ch, mute; int result; uint8_t reg, before, after; };
  const Case cases[] = {{0, 1, 1, 0x52, 0xFF, 0xBF}, {0, 2, 1, 0x52, 0x00, 0x40}, {1, 1, 1, 0x52, 0xFF, 0xDF}, {2, 0, 1, 0x53, 0x00, 0x02},
                        {3, 1, 1, 0x52, 0xFF, 0x7F}, {5, 0, 1, 0x52, 0x00, 0x01}, {4, 1, 0, 0x52, 0xFF, 0xFF}, {9, 1, 0, 0x52, 0xFF, 0xFF}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "ch " << c.ch << " mute " << c.mute);
    bus.set_reg(kBus, kFpga, c.reg, c.before);
    bus.clear_records();
    EXPECT_EQ(call(output_mute_ctrl_set, words({c.ch, 7, c.mute})), c.result);
    EXPECT_EQ((std::pair<int, bool>{bus.reg(kBus, kFpga, c.reg), bus.transfer_count(kBus, kFpga) > 0}), (std::pair<int, bool>{c.after, c.result == 1}));
    EXPECT_TRUE(c.ch != 0 || get_output_analog_mute() == (c.mute == 1 ? 1 : 0));
  }
  EXPECT_EQ((std::pair<int, int>{call(input_analog_volume_set, words({1})), bus.reg(kBus, kFpga, 0x50)}), (std::pair<int, int>{1, 1}));
  EXPECT_EQ(call(input_analog_volume_set, words({3})), 0);
}

TEST_F(Control, OutputRequestsAreCachedAndTheArcStreamAlwaysSendsItsMode) {
  struct Case { int32_t sid, source; const char* mac; uint32_t only_arc; int result, arc_mode; };
  const Case cases[] = {{2, 0, "AABBCCDDEEFF", 0, 1, -1}, {2, 0, "AABBCCDDEEFF", 0, 0, -1}, {2, 0, "aabbccddeeff", 0, 0, -1} /* the MAC's case does not count */,
      {2, 1, "aabbccddeeff", 0, 1, -1}, {0, 0, "", 0, 0, -1} /* the cache starts zeroed */, {1, 3, "001122334455", 0, 1, 1},
      {1, 3, "001122334455", 0, 0, 1} /* unchanged, mode sent all the same */, {1, 3, "001122334455", 5, 0, 2}, {1, 0, "001122334455", 5, 1, 0},
      {5, 1, "001122334455", 0, 0, -1}, {-1, 1, "001122334455", 0, 0, -1}};
  set_onlyarc(0);
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.sid << "/" << c.source << "/" << c.mac);
    set_onlyarc(c.only_arc);
    EXPECT_EQ(call(stream_output_tonet_set, output_request(c.sid, c.source, c.mac)), c.result);
    if (c.arc_mode >= 0) { EXPECT_EQ(next(kIt6620Port), tlv_message(7, 0x00030002, le32(static_cast<uint32_t>(c.arc_mode)))); }
  }
  EXPECT_TRUE(quiet(kIt6620Port));
}

class Report : public ControlTest {
 protected:
  void SetUp() override {
    ControlTest::SetUp();
    if (IsSkipped()) return;
    const qb_audio_info rec = make_record(2, 2, 0x80);  // every port: 2-channel LPCM at 48 kHz
    for (int ch = 1; ch <= 8; ++ch) qb_audio_channel_state_set(ch, &rec);
  }
};

TEST_F(Report, DatagramsCarryTheExactText) {
  EXPECT_EQ(reportDetailsAudioStatus(1 << 3), 1);
  EXPECT_EQ(next_report(), "{\"status\":{\"input\":[" + entry("hdmi", 2, "LPCM", "LPCM", 48000) + "]}}\n");
  // Nothing to report: nothing sent. Bits without a port: the pending mask is cleared.
  EXPECT_EQ(reportDetailsAudioStatus(0), 0);
  set_update_chs_or(4), set_update_chs_or(-1), set_update_chs_or(32);  // the last two out of the mask: ignored
  EXPECT_EQ(get_update_chs(), 1 << 4);
  EXPECT_EQ(reportDetailsAudioStatus((1 << 0) | (1 << 4) | (1 << 31)), 0);
  EXPECT_EQ(get_update_chs(), 0);
  EXPECT_EQ(ReportAudioMsg(""), 0);
  EXPECT_TRUE(quiet(kReportPort));
  // An output change describes the stream the output plays: HDMI plays stream 2 (channel 7).
  qb_audio_info rec = make_record(10, 8, 0x90);
  rec.AUD_DB[0] = 12;
  qb_audio_channel_state_set(7, &rec);
  set_output_hdmi_stream_actual_sid(2), set_update_chs_or(3);
  EXPECT_EQ(reportDetailsAudioStatus(0), 1);
  EXPECT_EQ(next_report(), "{\"status\":{\"output\":[" + entry("hdmi", 8, "DTS", "NLPCM", 96000) + "]}}\n");
  EXPECT_EQ(get_update_chs(), 0);
  // The details request reports every port whatever it asks.
  set_output_hdmi_stream_actual_sid(0), set_update_chs_or(4);
  EXPECT_EQ(call(details_audio_status_get, le32(0xFFFF)), 1);
  std::string all;
  for (const char* port : {"analog", "earc", "hdmi", "spdif"}) all += (all.empty() ? "" : ",") + entry(port, 2, "LPCM", "LPCM", 48000);
  EXPECT_EQ(next_report(), "{\"status\":{\"input\":[" + all + "],\"output\":[" + all + "]}}\n");
  EXPECT_EQ(get_update_chs(), 0);
}

// Every handler refuses payloads of the wrong size without touching the bus, the codec or a peer.
TEST_F(Control, WrongLengthsAndOutOfRangeValuesChangeNothing) {
  const std::pair<Handler, int> handlers[] = {{output_mute_ctrl_set, 12}, {output_latency_ctrl_set, 8}, {output_src_select_get, 8}, {output_dwm_mode_set, 8},
      {output_analog_volume_set, 4}, {output_analog_fullscalevrms_set, 4}, {input_analog_volume_set, 4}, {output_earc_enable_ctrl_set, 12},
      {input_earc_onlyarc_ctrl_set, 4}, {stream_input_select_set, 12}, {stream_input_fallback_select_set, 12}, {stream_input_fromnet_set, 24},
      {stream_output_tonet_set, 24}, {cec_phyaddr_set, 4}, {details_audio_status_get, 4}, {audio_channel_info_note, 24}, {output_src_select_set, 8}};
  for (const auto& h : handlers) {
    for (int len : {0, 1, h.second - 1, h.second + 1, 1024}) {
      if (h.first == output_src_select_set && len > h.second) continue;  // read for its first eight bytes
      EXPECT_EQ(Payload(len, 0x5A).call(h.first), 0) << h.second << " len " << len;
    }
    EXPECT_EQ(h.first(nullptr, h.second), 0);
  }
  EXPECT_EQ(bus.transfer_count(kBus, kFpga), 0u);
  EXPECT_EQ(Payload(1, 1).call(it6621_mode_set), 0);  // a one-byte mode is read as far as it goes
  EXPECT_EQ(get_it6621_status(), 1);
  for (int len : {0, 1, 11, 12, 13, 1024}) EXPECT_EQ(Payload(len, 'A').call(input_src_mac_set), len >= 12 ? 1 : 0) << len;
  EXPECT_EQ(Payload(12, 0xFF).call(input_src_mac_set), 1);
  EXPECT_EQ(input_src_mac_set(nullptr, 12), 0);
  EXPECT_EQ(Payload(1024, 0).call(output_src_select_set), 1);
  EXPECT_EQ(call(cec_phyaddr_set, Bytes{0x34, 0x12, 0x00}), 0);
}

}  // namespace
}  // namespace am_unit
