// Command handlers as peers see them: FPGA writes, codec program calls, messages to the bridge
// services and the video processor, and status reports to cmd_core; payloads of the wrong size
// and out-of-range values. Each bad payload lives in a heap block of exactly its size, so a read
// past its end is caught by the address sanitizer build.
#include "am_unit.h"
#include "qb_audio_misc_stream.h"
#include "qb_audio_oper_packet.h"
#include "qb_audio_parse.h"
#include "qb_audio_stream.h"

namespace am_unit {
namespace {

// A payload in a heap block of exactly n bytes.
struct Payload {
  Payload(int n, uint8_t fill) : size(n), bytes(new uint8_t[static_cast<size_t>(n)]) {
    std::memset(bytes.get(), fill, static_cast<size_t>(n));
  }
  explicit Payload(const Bytes& b) : Payload(static_cast<int>(b.size()), 0) { std::memcpy(bytes.get(), b.data(), b.size()); }
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
Bytes channel_note(int32_t ch, const qb_audio_info& info) {
  Bytes b = le32(static_cast<uint32_t>(ch));
  const uint8_t* p = reinterpret_cast<const uint8_t*>(&info);
  b.insert(b.end(), p, p + sizeof info);
  return b;
}
std::string entry(const std::string& port, int channels, const std::string& encoding, const std::string& format, int hz) {
  return "{\"channels\":" + std::to_string(channels) + ",\"encodingType\":\"" + encoding + "\",\"format\":\"" + format +
         "\",\"port\":\"" + port + "\",\"sampleFrequency\":" + std::to_string(hz) + ",\"sampleSize\":24,\"state\":\"on\"}";
}
void set_onlyarc(uint32_t v) { call(input_earc_onlyarc_ctrl_set, le32(v)); }

using Control = ControlTest;

TEST_F(Control, MuteActsOnItsPortsGateAndRefusesTheStreamOutput) {
  struct Case { uint32_t ch, mute; int result; uint8_t reg, before, after; };
  const Case cases[] = {
      {0, 1, 1, 0x52, 0xFF, 0xBF}, {0, 2, 1, 0x52, 0x00, 0x40}, {1, 1, 1, 0x52, 0xFF, 0xDF}, {2, 0, 1, 0x53, 0x00, 0x02},
      {3, 1, 1, 0x52, 0xFF, 0x7F}, {5, 0, 1, 0x52, 0x00, 0x01}, {4, 1, 0, 0x52, 0xFF, 0xFF}, {9, 1, 0, 0x52, 0xFF, 0xFF},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "ch " << c.ch << " mute " << c.mute);
    bus.set_reg(kBus, kFpga, c.reg, c.before);
    bus.clear_records();
    EXPECT_EQ(call(output_mute_ctrl_set, words({c.ch, 7, c.mute})), c.result);
    EXPECT_EQ(bus.reg(kBus, kFpga, c.reg), c.after);
    EXPECT_EQ(bus.transfer_count(kBus, kFpga) > 0, c.result == 1);
    EXPECT_TRUE(c.ch != 0 || get_output_analog_mute() == (c.mute == 1 ? 1 : 0));
  }
}

TEST_F(Control, LatencyWritesTheFifteenBitDelayOfEachPort) {
  const std::pair<std::vector<uint32_t>, Writes> cases[] = {
      {{1, 0x1234}, {{0x24, 0x34}, {0x25, 0x12}}}, {{1, 0x8001}, {{0x24, 0x01}, {0x25, 0x00}}},  // bit 15 dropped
      {{0, 0x7FFF}, {{0x22, 0xFF}, {0x23, 0x7F}}}, {{2, 0x0100}, {{0x26, 0x00}, {0x27, 0x01}}},
      {{3, 0xFFFFFFFF}, {{0x20, 0xFF}, {0x21, 0x7F}}}, {{4, 0x10}, {}}, {{5, 0x10}, {}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "ch " << c.first[0] << " time " << c.first[1]);
    bus.clear_records();
    EXPECT_EQ(call(output_latency_ctrl_set, words({c.first[0], c.first[1]})), c.second.empty() ? 0 : 1);
    EXPECT_EQ(fpga_writes(), c.second);
  }
}

TEST_F(Control, LevelsDownmixAndGetsDoNothingElse) {
  EXPECT_EQ(call(input_analog_volume_set, words({1})), 1);
  EXPECT_EQ(bus.reg(kBus, kFpga, 0x50), 1);
  EXPECT_EQ(call(input_analog_volume_set, words({2})), 1);
  EXPECT_EQ(bus.reg(kBus, kFpga, 0x50), 0);
  bus.clear_records();
  EXPECT_EQ(call(input_analog_volume_set, words({3})), 0);
  EXPECT_EQ(bus.transfer_count(kBus, kFpga), 0u);
  bus.fail_next_writes(1);
  EXPECT_EQ(call(input_analog_volume_set, words({1})), 0);
  for (uint32_t ch : {1u, 2u, 3u, 0u}) EXPECT_EQ(call(output_dwm_mode_set, words({ch, ch + 1})), 1);
  EXPECT_EQ((std::vector<unsigned>{2, 3, 4}), (std::vector<unsigned>{qb_misc_audio_downmix_hdmi_get(),
                                                                    qb_misc_audio_downmix_spdif_get(),
                                                                    qb_misc_audio_downmix_earc_get()}));
  bus.clear_records();
  for (Handler fn : {output_mute_ctrl_get, output_latency_ctrl_get, output_dwm_mode_get, output_analog_volume_get,
                     output_analog_fullscalevrms_get, output_earc_enable_ctrl_get}) {
    EXPECT_EQ(call(fn, words({1, 2, 3})), 1);
  }
  EXPECT_EQ(bus.transfer_count(kBus, kFpga), 0u);
  EXPECT_EQ(codec_calls(), "");
  audio_mute_all();
  EXPECT_EQ(fpga_writes(), (Writes{{0x52, 0x00}}));
  bus.clear_records();
  audio_unmute_all();
  EXPECT_EQ(fpga_writes(), (Writes{{0x52, 0xFF}, {0x53, 0xFF}, {0x55, 0xFF}, {0x56, 0xFF}, {0x57, 0xFF}, {0x58, 0xFF},
                                   {0x59, 0xFF}, {0x5A, 0xFF}, {0x5B, 0xFF}}));
}

TEST_F(Control, ArcModesReachTheirBridgeServices) {
  const std::pair<std::vector<uint32_t>, int> cases[] = {{{3, 1, 7}, 2}, {{3, 1, 0}, 1}, {{3, 5, 0}, 0}, {{1, 1, 0}, -1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.second);
    EXPECT_EQ(call(output_earc_enable_ctrl_set, words({c.first[0], c.first[1], c.first[2]})), 1);
    if (c.second < 0) {
      EXPECT_TRUE(quiet(kIt6621Port));
    } else {
      EXPECT_EQ(next(kIt6621Port), tlv_message(8, 0x00030002, le32(static_cast<uint32_t>(c.second))));
    }
  }
  EXPECT_EQ(arc_on_off_ctrl(2), 1);
  EXPECT_EQ(next(kIt6620Port), tlv_message(7, 0x00030002, le32(2)));
  EXPECT_TRUE(quiet(kIt6620Port));
  EXPECT_EQ(call(cec_phyaddr_set, le32(0x1234)), 1);
  EXPECT_EQ(next(kIt6620Port), tlv_message(7, 0x00020002, le32(0x1234)));
}

TEST_F(Control, SourceSelectionRoutesAndResetsTheStreamMode) {
  EXPECT_EQ(call(output_src_select_set, words({0, 0})), 1);
  EXPECT_EQ(bus.reg(kBus, kFpga, FPGA_REG_ROUTE_ANALOG_OUT), FPGA_SRC_PCM1804);
  EXPECT_EQ(qb_misc_audio_info_analog_port_copy().src, 0u);
  set_output_hdmi_stream_mode(1);  // HDMI, S/PDIF and eARC go back to their chosen stream first
  set_output_spdif_stream_mode(1);
  set_output_earc_stream_mode(1);
  EXPECT_EQ(call(output_src_select_set, words({1, 1})), 1);
  EXPECT_EQ(bus.reg(kBus, kFpga, FPGA_REG_ROUTE_HDMI_OUT), FPGA_SRC_HDMI_IN);
  EXPECT_EQ(call(output_src_select_set, words({2, 0})), 1);
  EXPECT_EQ(call(output_src_select_set, words({3, 3})), 1);
  EXPECT_EQ(bus.reg(kBus, kFpga, FPGA_REG_ROUTE_EARC_OUT), FPGA_SRC_IT6620);
  EXPECT_EQ(get_output_hdmi_stream_mode() + get_output_spdif_stream_mode() + get_output_earc_stream_mode(), 0);
  EXPECT_EQ(call(output_src_select_set, words({1, 5})), 0);  // the selection's refusal passes on
  bus.clear_records();
  EXPECT_EQ(call(output_src_select_set, words({6, 0})), 0);
  EXPECT_EQ(bus.transfer_count(kBus, kFpga), 0u);
  EXPECT_EQ(call(output_src_select_get, words({1, 4})), 1);
}

TEST_F(Control, PeerMacAndStreamSelections) {
  EXPECT_EQ(call(input_src_mac_set, text_bytes("0011223F4455")), 1);
  for (auto get : {qb_misc_net_stream_in1_ipaddr_get, qb_misc_net_stream_in3_ipaddr_get, qb_misc_net_stream_in5_ipaddr_get}) {
    EXPECT_STREQ(get(), "234.63.68.85");
  }
  EXPECT_STREQ(qb_misc_net_stream_in1_deviceid_get(), "0011223f4455");
  EXPECT_TRUE(aborted(6) && aborted(7) && aborted(8));
  EXPECT_EQ(call(stream_input_select_set, words({1, 2, 0})), 1);
  EXPECT_EQ(qb_misc_audio_sid_hdmi_get(), 2);
  EXPECT_EQ(qb_misc_audio_fallback_sid_hdmi_get(), 0);
  // Selecting the HDMI output tells the video processor that it plays a local source.
  EXPECT_EQ(next(kAvpPort), tlv_message(3, 0x80802, text_bytes(QB_AVP_HDMI_OUT_SRC_TEXT)));
  EXPECT_EQ(call(stream_input_fallback_select_set, words({3, 0, 1})), 1);
  Bytes from_net(24, 0);
  std::memcpy(from_net.data(), "0011223F4455", 12);
  EXPECT_EQ(call(stream_input_fromnet_set, from_net), 1);
}

TEST_F(Control, OutputRequestsAreCachedAndTheArcStreamAlwaysSendsItsMode) {
  struct Case { int32_t sid, source; const char* mac; uint32_t only_arc; int result, arc_mode; };
  const Case cases[] = {
      {2, 0, "AABBCCDDEEFF", 0, 1, -1}, {2, 0, "AABBCCDDEEFF", 0, 0, -1},
      {2, 0, "aabbccddeeff", 0, 0, -1} /* the MAC's case does not count */, {2, 1, "aabbccddeeff", 0, 1, -1},
      {0, 0, "", 0, 0, -1} /* the cache starts zeroed */, {1, 3, "001122334455", 0, 1, 1},
      {1, 3, "001122334455", 0, 0, 1} /* unchanged, mode sent all the same */, {1, 3, "001122334455", 5, 0, 2},
      {1, 0, "001122334455", 5, 1, 0}, {5, 1, "001122334455", 0, 0, -1}, {-1, 1, "001122334455", 0, 0, -1},
  };
  set_onlyarc(0);
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.sid << "/" << c.source << "/" << c.mac);
    set_onlyarc(c.only_arc);
    EXPECT_EQ(call(stream_output_tonet_set, output_request(c.sid, c.source, c.mac)), c.result);
    if (c.arc_mode >= 0) {
      EXPECT_EQ(next(kIt6620Port), tlv_message(7, 0x00030002, le32(static_cast<uint32_t>(c.arc_mode))));
    }
  }
  EXPECT_TRUE(quiet(kIt6620Port));
}

TEST_F(Control, ChannelNotesStoreCountAndReport) {
  // A network input: an unchanged record changes nothing; a changed one restarts its worker.
  qb_audio_info net = make_record(2, 2, 0x80);
  qb_audio_channel_state_set(7, &net);
  EXPECT_EQ(call(audio_channel_info_note, channel_note(7, net)), 1);
  EXPECT_FALSE(aborted(7));
  net.SampleFrequency = 10;
  EXPECT_EQ(call(audio_channel_info_note, channel_note(7, net)), 1);
  EXPECT_TRUE(aborted(7) && !aborted(6) && !aborted(8));
  EXPECT_EQ(record(7).SampleFrequency, 10);
  EXPECT_TRUE(quiet(kReportPort));
  // Local inputs: a change counts once and reports its port alone (the DSP as the HDMI input).
  const char* port_of[] = {"", "analog", "earc", "hdmi", "hdmi", "spdif"};
  for (int32_t ch = 1; ch <= 5; ++ch) {
    SCOPED_TRACE(ch);
    const qb_u32_t counter = g_s32Audio_change.load();
    const qb_audio_info info = make_record(10, 8, 0x80);
    EXPECT_EQ(call(audio_channel_info_note, channel_note(ch, info)), 1);
    EXPECT_EQ(g_s32Audio_change.load(), counter + 1);
    EXPECT_EQ(next_report(), "{\"status\":{\"input\":[" + entry(port_of[ch], 8, "LPCM", "LPCM", 96000) + "]}}\n");
    EXPECT_EQ(call(audio_channel_info_note, channel_note(ch, info)), 1);
    EXPECT_EQ(g_s32Audio_change.load(), counter + 1);
    EXPECT_TRUE(quiet(kReportPort));
  }
  g_s32Audio_change.store(0xFFFFFFFFu);  // the counter skips 0 when it wraps
  EXPECT_EQ(call(audio_channel_info_note, channel_note(1, make_record(0, 2, 0x80))), 1);
  EXPECT_EQ(g_s32Audio_change.load(), 0x123456u);
  for (int32_t ch : {9, 0, -3, 13, 0x7FFFFFFF}) {  // invalid channels are refused and change nothing
    const qb_audio_info before = record(9);
    EXPECT_EQ(call(audio_channel_info_note, channel_note(ch, make_record(10, 8, 0x90))), 0);
    EXPECT_TRUE(same(before, record(9)));
  }
}

TEST_F(Control, VideoAndDspNotesRestartOutputsAndShareTheDecoderCode) {
  // A video change restarts the network outputs that capture the HDMI input, directly (first
  // stream) or through the DSP downmix (second stream).
  qb_net_first_stream_select_set(QB_AUDIO_SRC_HDMI);
  qb_net_second_stream_select_set(QB_AUDIO_SRC_HDMI_DOWNMIX);
  qb_net_third_stream_select_set(QB_AUDIO_SRC_ANALOG);
  EXPECT_EQ(call(audio_channel_info_note, channel_note(3, make_record(14, 2, 0x80))), 1);
  EXPECT_EQ(record(QB_AUDIO_CHN_NSO1).SampleFrequency, 14);
  EXPECT_EQ((std::vector<int>{1, 0, 1}), (std::vector<int>{capture_abort(0), capture_abort(1), capture_abort(2)}));
  // A non-LPCM HDMI input takes the DSP's decoder code; audio off switches the DSP record off.
  qb_audio_info dsp = make_record(2, 2, 0x80);
  dsp.AUD_DB[0] = 12;
  qb_audio_channel_state_set(4, &dsp);
  qb_audio_info video = make_record(2, 8, 0x90);
  video.AUD_DB[0] = 99;
  video.Audio_On = 0;
  EXPECT_EQ(call(audio_channel_info_note, channel_note(3, video)), 1);
  EXPECT_EQ(record(3).AUD_DB[0], 12);
  EXPECT_EQ(record(4).Audio_On, 0);
  // A DSP change copies its code into the non-LPCM video record and into the network outputs
  // that carry the HDMI input, without marking them.
  qb_net_second_stream_select_set(QB_AUDIO_SRC_ANALOG);
  qb_net_third_stream_select_set(QB_AUDIO_SRC_HDMI);
  qb_misc_audio_status_valid_set(QB_AUDIO_CHN_NSO3, 0);
  dsp.AUD_DB[0] = 20;
  EXPECT_EQ(call(audio_channel_info_note, channel_note(4, dsp)), 1);
  EXPECT_EQ((std::vector<int>{20, 20, 20, 20}), (std::vector<int>{record(3).AUD_DB[0], record(QB_AUDIO_CHN_NSO1).AUD_DB[0],
                                                                  record(QB_AUDIO_CHN_NSO3).AUD_DB[0], record(4).AUD_DB[0]}));
  EXPECT_NE(record(QB_AUDIO_CHN_NSO5).AUD_DB[0], 20);
  EXPECT_EQ(qb_misc_audio_status_valid_get(QB_AUDIO_CHN_NSO3), 0);
  video = make_record(2, 2, 0x80);  // an LPCM video record keeps its own code
  video.AUD_DB[0] = 1;
  EXPECT_EQ(call(audio_channel_info_note, channel_note(3, video)), 1);
  dsp.AUD_DB[0] = 30;
  EXPECT_EQ(call(audio_channel_info_note, channel_note(4, dsp)), 1);
  EXPECT_EQ(record(3).AUD_DB[0], 1);
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
  const Bytes d = next(kReportPort);
  const std::string text = report_text(d);
  EXPECT_EQ(text, "{\"status\":{\"input\":[" + entry("hdmi", 2, "LPCM", "LPCM", 48000) + "]}}\n");
  EXPECT_EQ(d.size(), 17 + text.size());
  // Nothing to report: nothing sent. Bits without a port: the pending mask is cleared.
  EXPECT_EQ(reportDetailsAudioStatus(0), 0);
  set_update_chs_or(4);
  set_update_chs_or(-1);  // out of the mask: ignored
  set_update_chs_or(32);
  EXPECT_EQ(get_update_chs(), 1 << 4);
  EXPECT_EQ(reportDetailsAudioStatus((1 << 0) | (1 << 4) | (1 << 31)), 0);
  EXPECT_EQ(get_update_chs(), 0);
  EXPECT_EQ(ReportAudioMsg(""), 0);
  EXPECT_TRUE(quiet(kReportPort));
  // An output change describes the stream the output plays: HDMI plays stream 2 (channel 7).
  qb_audio_info rec = make_record(10, 8, 0x90);
  rec.AUD_DB[0] = 12;
  qb_audio_channel_state_set(7, &rec);
  set_output_hdmi_stream_actual_sid(2);
  set_update_chs_or(3);
  EXPECT_EQ(reportDetailsAudioStatus(0), 1);
  EXPECT_EQ(next_report(), "{\"status\":{\"output\":[" + entry("hdmi", 8, "DTS", "NLPCM", 96000) + "]}}\n");
  EXPECT_EQ(get_update_chs(), 0);
  // The details request reports every port whatever it asks.
  set_output_hdmi_stream_actual_sid(0);
  set_update_chs_or(4);
  EXPECT_EQ(call(details_audio_status_get, le32(0xFFFF)), 1);
  std::string all;
  for (const char* port : {"analog", "earc", "hdmi", "spdif"}) all += (all.empty() ? "" : ",") + entry(port, 2, "LPCM", "LPCM", 48000);
  EXPECT_EQ(next_report(), "{\"status\":{\"input\":[" + all + "],\"output\":[" + all + "]}}\n");
  EXPECT_EQ(get_update_chs(), 0);
}

TEST_F(Report, EncodingNamesFollowTheFormatAndStreamlessOutputsAreLeftOut) {
  struct Case { int ch, type, aud_db0; const char* format; const char* encoding; };
  const Case cases[] = {
      {3, 0x80, 2, "LPCM", "LPCM"} /* decoder says Dolby, the format wins */, {3, 0x90, 2, "NLPCM", "Dolby Digit"},
      {3, 0xC0, 35, "HBR", "DTS HD Master"}, {2, 0x90, 2, "NLPCM", "Unknown"} /* eARC names only LPCM */,
      {1, 0xA0, 0, "DSD", "Unknown"}, {5, 0x12, 0, "UNKNOWN", "Unknown"},
  };
  const char* port_of[] = {"", "analog", "earc", "hdmi", "", "spdif"};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.ch << "/" << c.type);
    qb_audio_info rec = make_record(0, 6, c.type);
    rec.AUD_DB[0] = static_cast<qb_s8_t>(c.aud_db0);
    qb_audio_channel_state_set(c.ch, &rec);
    EXPECT_EQ(reportDetailsAudioStatus(1 << c.ch), 1);
    EXPECT_EQ(next_report(), "{\"status\":{\"input\":[" + entry(port_of[c.ch], 6, c.encoding, c.format, 44100) + "]}}\n");
  }
  const qb_audio_info rec = make_record(2, 2, 0x80);
  for (int ch = 1; ch <= 5; ++ch) qb_audio_channel_state_set(ch, &rec);
  set_output_hdmi_stream_actual_sid(-1);  // no stream, or an unknown one: no entry
  set_output_earc_stream_actual_sid(7);
  std::string text;
  GetReportMsg(text, 0, QB_REPORT_ALL_PORTS);
  EXPECT_EQ(text, "{\"status\":{\"output\":[" + entry("analog", 2, "LPCM", "LPCM", 48000) + "," +
                      entry("spdif", 2, "LPCM", "LPCM", 48000) + "]}}\n");
  GetReportMsg(text, 0, 0);
  EXPECT_EQ(text, "");
}

// Every handler refuses payloads of the wrong size without touching the bus, the codec or a peer.
TEST_F(Control, WrongLengthsAndOutOfRangeValuesChangeNothing) {
  const std::pair<Handler, int> handlers[] = {
      {output_mute_ctrl_set, 12}, {output_latency_ctrl_set, 8}, {output_src_select_get, 8}, {output_dwm_mode_set, 8},
      {output_analog_volume_set, 4}, {output_analog_fullscalevrms_set, 4}, {input_analog_volume_set, 4},
      {output_earc_enable_ctrl_set, 12}, {input_earc_onlyarc_ctrl_set, 4}, {stream_input_select_set, 12},
      {stream_input_fallback_select_set, 12}, {stream_input_fromnet_set, 24}, {stream_output_tonet_set, 24},
      {cec_phyaddr_set, 4}, {details_audio_status_get, 4}, {audio_channel_info_note, 24}, {output_src_select_set, 8}};
  for (const auto& h : handlers) {
    for (int len : {0, 1, h.second - 1, h.second + 1, 1024}) {
      if (h.first == output_src_select_set && len > h.second) continue;  // read for its first eight bytes
      EXPECT_EQ(Payload(len, 0x5A).call(h.first), 0) << h.second << " len " << len;
    }
    EXPECT_EQ(h.first(nullptr, h.second), 0);
  }
  EXPECT_EQ(bus.transfer_count(kBus, kFpga), 0u);
  // Handlers that take any length read no further than the payload.
  for (Handler fn : {it6621_mode_set, monitor_status_set, input_src_mac_get}) {
    for (int len : {1, 3, 5, 1024}) Payload(len, 0x02).call(fn);
    fn(nullptr, 0);
    fn(nullptr, 100);
  }
  EXPECT_EQ(Payload(Bytes{1}).call(it6621_mode_set), 0);  // a one-byte mode is read as far as it goes
  EXPECT_EQ(get_it6621_status(), 1);
  for (int len : {0, 1, 11}) EXPECT_EQ(Payload(len, 'A').call(input_src_mac_set), 0) << len;
  for (int len : {12, 13, 1024}) EXPECT_EQ(Payload(len, 'A').call(input_src_mac_set), 1) << len;
  EXPECT_EQ(Payload(12, 0xFF).call(input_src_mac_set), 1);
  EXPECT_EQ(input_src_mac_set(nullptr, 12), 0);
  EXPECT_EQ(Payload(1024, 0).call(output_src_select_set), 1);
  EXPECT_EQ(call(cec_phyaddr_set, Bytes{0x34, 0x12, 0x00}), 0);
  clear_aborts();
  bus.clear_records();
  const uint32_t huge = 0xFFFFFFFFu;
  const std::pair<Handler, Bytes> calls[] = {
      {output_mute_ctrl_set, words({huge, huge, huge})}, {output_latency_ctrl_set, words({huge, huge})},
      {output_src_select_set, words({huge, huge})}, {output_src_select_set, words({0, huge})},
      {output_dwm_mode_set, words({huge, huge})}, {input_analog_volume_set, words({huge})},
      {input_analog_volume_set, words({0})}, {output_earc_enable_ctrl_set, words({huge, 1, 1})},
      {stream_input_select_set, words({huge, huge, huge})}, {stream_input_select_set, words({1, 3, huge})},
      {stream_input_fallback_select_set, words({huge, huge, huge})}};
  for (const auto& c : calls) Payload(c.second).call(c.first);
  for (uint32_t sid : {3u, huge, 0x7FFFFFFFu, 0x80000000u}) {  // a MAC field without a terminator
    Bytes req = words({sid, huge});
    req.resize(24, 0xFF);
    EXPECT_EQ(Payload(req).call(stream_output_tonet_set), 0);
  }
  for (qb_u8_t reg : {0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27, 0x50}) EXPECT_EQ(bus.reg(kBus, kFpga, reg), 0) << int(reg);
  EXPECT_EQ(qb_misc_audio_downmix_hdmi_get(), 0u);
  EXPECT_EQ(codec_calls(), "");
  EXPECT_TRUE(quiet(kIt6620Port));
  EXPECT_TRUE(quiet(kIt6621Port));
  EXPECT_TRUE(quiet(kReportPort));
  for (uint32_t ch : {1u, 3u, 4u, 6u, 8u}) {  // network and local inputs take any record bytes
    Bytes note = le32(ch);
    note.resize(24, 0xFF);
    EXPECT_EQ(Payload(note).call(audio_channel_info_note), 1) << ch;
  }
  for (int v : {-1, 0, 3, 0x7FFFFFFF}) {  // the bridge functions take any value
    EXPECT_EQ(set_it6621_status(v), 0);
    EXPECT_EQ(set_hdmi_monitor_status(v), 0);
  }
  EXPECT_EQ(set_avp_hdmi_out_audio_src_param(-1, -1, -1, nullptr), 1);
  qb_audio_info_t rec{};
  std::memset(&rec, 0xFF, sizeof rec);
  EXPECT_EQ(set_avp_hdmi_out_audio_param(&rec), 1);
  qb_u8_t chs[6] = {};
  EXPECT_EQ(it6621_channel_state_set(chs, -6), 0);
  EXPECT_EQ(it6621_channel_state_set(chs, 1024), 0);
}

}  // namespace
}  // namespace am_unit
