// Stream selection and monitor commands: peer MAC, stream selections, output stream requests with
// their cache and ARC mode, CEC address, bridge mode, monitor state, the details request and the
// channel information notification.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "qb_audio_aplay.h"
#include "qb_audio_misc_stream.h"
#include "qb_audio_oper_packet.h"
#include "qb_audio_parse.h"
#include "qb_audio_stream.h"
#include "test_control_helpers.h"

namespace control_test {
namespace {

class StreamControlTest : public ControlTest {
 protected:
  void SetUp() override {
    ControlTest::SetUp();
    if (IsSkipped()) return;
    clear_aborts();
    set_onlyarc(0);
  }
  static void clear_aborts() {
    for (auto& c : qb_audio_aplay_ctrl_get()->pctrl) c.in_aborting = 0;
  }
  static bool aborted(int ch) { return qb_audio_aplay_ctrl_get()->pctrl[ch - 6].in_aborting != 0; }
  static void set_onlyarc(uint32_t v) {
    const Bytes b = le32(v);
    input_earc_onlyarc_ctrl_set(b.data(), 4);
  }
  static int call(int (*fn)(const void*, int), const Bytes& payload) {
    return fn(payload.data(), static_cast<int>(payload.size()));
  }
  static Bytes output_request(int32_t sid, int32_t source, const std::string& mac) {
    Bytes b = words({static_cast<uint32_t>(sid), static_cast<uint32_t>(source)});
    Bytes m(16, 0);
    std::memcpy(m.data(), mac.data(), std::min<size_t>(mac.size(), 16));
    b.insert(b.end(), m.begin(), m.end());
    return b;
  }
  static Bytes channel_note(int32_t ch, const qb_audio_info& info) {
    Bytes b = le32(static_cast<uint32_t>(ch));
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&info);
    b.insert(b.end(), p, p + sizeof info);
    return b;
  }
  static qb_audio_info record(int ch) {
    qb_audio_info r{};
    qb_audio_channel_state_copy(ch, &r);
    return r;
  }
};

TEST_F(StreamControlTest, PeerMacSetsTheGroupOfEveryNetworkInput) {
  EXPECT_EQ(call(input_src_mac_set, text_bytes("0011223F4455")), 1);
  EXPECT_STREQ(qb_misc_net_stream_in1_ipaddr_get(), "234.63.68.85");
  EXPECT_STREQ(qb_misc_net_stream_in3_ipaddr_get(), "234.63.68.85");
  EXPECT_STREQ(qb_misc_net_stream_in5_ipaddr_get(), "234.63.68.85");
  EXPECT_STREQ(qb_misc_net_stream_in1_deviceid_get(), "0011223f4455");
  EXPECT_TRUE(aborted(6) && aborted(7) && aborted(8));
  // The 12 characters carry no terminator: the log shows exactly them.
  EXPECT_EQ(log.count("input_src_mac_set,mac[0011223F4455] len[12]"), 1);
  EXPECT_EQ(log.count("input_src_mac_set,mac=[00:11:22:3f:44:55]"), 1);

  clear_aborts();
  EXPECT_EQ(call(input_src_mac_set, text_bytes("00112233445")), 0);
  EXPECT_STREQ(qb_misc_net_stream_in1_ipaddr_get(), "234.63.68.85");
  EXPECT_FALSE(aborted(6));
}

TEST_F(StreamControlTest, StreamSelectionsReachTheRoutingState) {
  EXPECT_EQ(call(stream_input_select_set, words({1, 2, 0})), 1);
  EXPECT_EQ(qb_misc_audio_sid_hdmi_get(), 2);
  EXPECT_EQ(qb_misc_audio_fallback_sid_hdmi_get(), 0);
  EXPECT_EQ(qb_msic_net_stream_in_hdmi_get(), FPGA_SRC_SAI3);
  EXPECT_EQ(log.count("stream_input_select_set,stream input select ch[hdmi][1], subid[2] , "
                      "fallback subsid[0]"),
            1);
  // Selecting the HDMI output tells the video processor that it plays a local source.
  EXPECT_EQ(next(kAvpPort), tlv_message(3, 0x80802, text_bytes(QB_AVP_HDMI_OUT_SRC_TEXT)));
  EXPECT_EQ(call(stream_input_select_set, words({1, 0})), 0);
  EXPECT_EQ(qb_misc_audio_sid_hdmi_get(), 2);
  EXPECT_EQ(call(stream_input_fallback_select_set, words({3, 0, 1})), 1);
  EXPECT_EQ(log.count("stream_input_fallback_select_set,stream input select ch[earc][3], "
                      "fullback_subid[1]"),
            1);
  EXPECT_EQ(call(stream_input_fallback_select_set, words({3, 0})), 0);
}

TEST_F(StreamControlTest, InputFromNetworkNeedsTheWholeRecord) {
  Bytes req(24, 0);
  std::memcpy(req.data(), "0011223F4455", 12);
  const int32_t sid = 0, sub = 0;
  std::memcpy(req.data() + 16, &sid, 4);
  std::memcpy(req.data() + 20, &sub, 4);
  EXPECT_EQ(call(stream_input_fromnet_set, req), 1);
  EXPECT_EQ(log.count("stream_input_fromnet_set,stream input from net 24,24"), 1);
  req.pop_back();
  EXPECT_EQ(call(stream_input_fromnet_set, req), 0);
}

TEST_F(StreamControlTest, OutputRequestsAreCachedIgnoringTheCaseOfTheMac) {
  EXPECT_EQ(call(stream_output_tonet_set, output_request(2, 0, "AABBCCDDEEFF")), 1);
  EXPECT_EQ(log.count("stream output to net has been set"), 0);
  EXPECT_EQ(call(stream_output_tonet_set, output_request(2, 0, "AABBCCDDEEFF")), 0);
  EXPECT_EQ(call(stream_output_tonet_set, output_request(2, 0, "aabbccddeeff")), 0);
  EXPECT_EQ(log.count("stream output to net has been set"), 2);
  EXPECT_EQ(call(stream_output_tonet_set, output_request(2, 1, "aabbccddeeff")), 1);
  // The cache starts zeroed: stream 0 with source 0 and no MAC counts as already set.
  EXPECT_EQ(call(stream_output_tonet_set, output_request(0, 0, "")), 0);
  // Only the stream that carries the ARC input talks to the input bridge.
  EXPECT_TRUE(quiet(kIt6620Port));
}

TEST_F(StreamControlTest, OutputRequestOnTheArcStreamAlwaysSendsTheArcMode) {
  struct Case {
    uint32_t only_arc;
    int32_t source;
    uint32_t mode;
  };
  const Case cases[] = {{0, 3, 1}, {0, 3, 1}, {5, 3, 2}, {5, 3, 2}, {5, 0, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.only_arc << "/" << c.source);
    set_onlyarc(c.only_arc);
    call(stream_output_tonet_set, output_request(1, c.source, "001122334455"));
    EXPECT_EQ(next(kIt6620Port), tlv_message(7, 0x00030002, le32(c.mode)));
  }
}

TEST_F(StreamControlTest, OutputRequestWithAnInvalidStreamChangesNothing) {
  for (int32_t sid : {5, -1, 3}) {
    log.clear();
    EXPECT_EQ(call(stream_output_tonet_set, output_request(sid, 1, "001122334455")), 0);
    EXPECT_TRUE(log.has("invalid param streamID:" + std::to_string(sid), AM_LOG_LEVEL_ERROR));
    EXPECT_TRUE(log.has("stream output to net has been set", AM_LOG_LEVEL_INFO));
    EXPECT_EQ(log.count_prefix("qb_audio_stream_output_to_net_set"), 0);
  }
  log.clear();
  EXPECT_EQ(call(stream_output_tonet_set, Bytes(23, 0)), 0);
  EXPECT_TRUE(log.has("stream output to net param error", AM_LOG_LEVEL_ERROR));
}

TEST_F(StreamControlTest, CecAddressIsForwardedToTheInputBridge) {
  EXPECT_EQ(call(cec_phyaddr_set, le32(0x1234)), 1);
  EXPECT_EQ(next(kIt6620Port), tlv_message(7, 0x00020002, le32(0x1234)));
  EXPECT_EQ(log.count("cec_phyaddr_set, cec payaddr[00001234], buflen[4]"), 1);
  EXPECT_EQ(call(cec_phyaddr_set, Bytes{0x34, 0x12, 0x00}), 0);
  EXPECT_TRUE(log.has("invalid buflen 3", AM_LOG_LEVEL_ERROR));
  EXPECT_EQ(log.count("cec_phyaddr_set, cec payaddr[00001234], buflen[3]"), 1);
  EXPECT_TRUE(quiet(kIt6620Port));
}

TEST_F(StreamControlTest, BridgeModeAndMonitorStateAreStored) {
  EXPECT_EQ(call(it6621_mode_set, le32(2)), 0);
  EXPECT_EQ(get_it6621_status(), 2);
  EXPECT_EQ(log.count("it6621 arc/earc status 2"), 1);
  EXPECT_EQ(it6621_mode_set(nullptr, 4), 0);
  EXPECT_EQ(call(it6621_mode_set, Bytes{}), 0);
  EXPECT_EQ(log.count("invalid param buflen 0"), 1);
  EXPECT_EQ(get_it6621_status(), 2);
  // A one-byte payload is read as far as it goes.
  EXPECT_EQ(call(it6621_mode_set, Bytes{1}), 0);
  EXPECT_EQ(get_it6621_status(), 1);

  EXPECT_EQ(call(monitor_status_set, le32(3)), 0);
  EXPECT_EQ(get_hdmi_monitor_status(), 3);
  EXPECT_EQ(call(monitor_status_set, Bytes{}), 0);
  EXPECT_EQ(get_hdmi_monitor_status(), 3);
}

TEST_F(StreamControlTest, DetailsRequestReportsEveryPortWhateverItAsks) {
  set_update_chs_or(4);  // a stray pending bit is replaced by the four ports
  EXPECT_EQ(call(details_audio_status_get, le32(0xFFFF)), 1);
  const std::string text = next_report();
  ASSERT_FALSE(text.empty());
  size_t at = 0;
  for (const char* port : {"\"port\":\"analog\"", "\"port\":\"earc\"", "\"port\":\"hdmi\"",
                           "\"port\":\"spdif\"", "\"output\"", "\"port\":\"analog\"",
                           "\"port\":\"earc\"", "\"port\":\"hdmi\"", "\"port\":\"spdif\""}) {
    at = text.find(port, at);
    ASSERT_NE(at, std::string::npos) << port << " in " << text;
  }
  EXPECT_EQ(get_update_chs(), 0);
  EXPECT_EQ(log.count("details_audio_status_get,4 chs[ffff]\n"), 1);
  EXPECT_EQ(call(details_audio_status_get, Bytes(3, 0)), 0);
  EXPECT_TRUE(log.has("details_audio_status_get,3 buffer NULL error\r\n", AM_LOG_LEVEL_ERROR));
  EXPECT_TRUE(quiet(kReportPort));
}

TEST_F(StreamControlTest, NetworkInputNoteRestartsPlaybackOnlyOnAChange) {
  qb_audio_info info = make_record(2, 2, 0x80);
  qb_audio_channel_state_set(7, &info);
  clear_aborts();
  EXPECT_EQ(call(audio_channel_info_note, channel_note(7, info)), 1);
  EXPECT_FALSE(aborted(7));
  EXPECT_TRUE(quiet(kReportPort));  // mask 0 with nothing pending: no report

  info.SampleFrequency = 10;
  EXPECT_EQ(call(audio_channel_info_note, channel_note(7, info)), 1);
  EXPECT_TRUE(aborted(7));
  EXPECT_FALSE(aborted(6) || aborted(8));
  EXPECT_EQ(record(7).SampleFrequency, 10);
}

TEST_F(StreamControlTest, InvalidChannelNoteIsRefused) {
  for (int32_t ch : {9, 0, -3, 13}) {
    log.clear();
    const qb_audio_info before = record(9);
    EXPECT_EQ(call(audio_channel_info_note, channel_note(ch, make_record(10, 8, 0x90))), 0);
    EXPECT_TRUE(log.has("invalid ch:" + std::to_string(ch), AM_LOG_LEVEL_ERROR));
    const qb_audio_info after = record(9);
    EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);
  }
}

TEST_F(StreamControlTest, LocalInputNoteStoresCountsAndReportsItsPort) {
  struct Case {
    int32_t ch;
    const char* port;  // the one input reported
  };
  const Case cases[] = {{1, "analog"}, {2, "earc"}, {3, "hdmi"}, {4, "hdmi"}, {5, "spdif"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.ch);
    drain();
    const qb_u32_t counter = g_s32Audio_change.load();
    qb_audio_info info = make_record(10, 8, 0x80);
    EXPECT_EQ(call(audio_channel_info_note, channel_note(c.ch, info)), 1);
    EXPECT_EQ(g_s32Audio_change.load(), counter + 1);
    EXPECT_EQ(record(c.ch).SampleFrequency, 10);
    const std::string text = next_report();
    EXPECT_NE(text.find(std::string("\"port\":\"") + c.port + "\""), std::string::npos) << text;
    EXPECT_EQ(text.find("},{"), std::string::npos) << "one entry only: " << text;
    // The same record again: no count, and no report with nothing pending.
    EXPECT_EQ(call(audio_channel_info_note, channel_note(c.ch, info)), 1);
    EXPECT_EQ(g_s32Audio_change.load(), counter + 1);
    EXPECT_TRUE(quiet(kReportPort));
  }
}

TEST_F(StreamControlTest, ChangeCounterSkipsZeroOnWrap) {
  g_s32Audio_change.store(0xFFFFFFFFu);
  EXPECT_EQ(call(audio_channel_info_note, channel_note(1, make_record(0, 2, 0x80))), 1);
  EXPECT_EQ(g_s32Audio_change.load(), 0x123456u);
}

TEST_F(StreamControlTest, VideoNoteRestartsTheOutputsThatCaptureIt) {
  qb_net_first_stream_select_set(QB_AUDIO_SRC_HDMI);
  qb_net_second_stream_select_set(QB_AUDIO_SRC_HDMI_DOWNMIX);
  qb_net_third_stream_select_set(QB_AUDIO_SRC_ANALOG);
  const qb_audio_info info = make_record(14, 2, 0x80);
  EXPECT_EQ(call(audio_channel_info_note, channel_note(3, info)), 1);
  EXPECT_EQ(log.count("audio_channel_info_note, channel[video] info update ok, ch[3],1,1,6"), 1);
  EXPECT_EQ(log.count("audio_channel_info_note,capture1 restart:1"), 1);
  EXPECT_EQ(log.count("audio_channel_info_note,capture3 restart:6"), 1);
  EXPECT_EQ(log.count_prefix("audio_channel_info_note,capture2"), 0);
  // The first network output now carries the new HDMI input record.
  EXPECT_EQ(record(QB_AUDIO_CHN_NSO1).SampleFrequency, 14);
}

TEST_F(StreamControlTest, DecoderCodeMovesBetweenTheDspAndTheVideoRecords) {
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
  // that carry the HDMI input, and is reported as a change of the HDMI input.
  qb_net_first_stream_select_set(QB_AUDIO_SRC_HDMI);
  qb_net_second_stream_select_set(QB_AUDIO_SRC_ANALOG);
  qb_net_third_stream_select_set(QB_AUDIO_SRC_HDMI);
  drain();
  dsp.AUD_DB[0] = 20;
  EXPECT_EQ(call(audio_channel_info_note, channel_note(4, dsp)), 1);
  EXPECT_EQ(record(3).AUD_DB[0], 20);
  EXPECT_EQ(record(QB_AUDIO_CHN_NSO1).AUD_DB[0], 20);
  EXPECT_EQ(record(QB_AUDIO_CHN_NSO3).AUD_DB[0], 20);
  EXPECT_NE(record(QB_AUDIO_CHN_NSO5).AUD_DB[0], 20);
  EXPECT_EQ(record(4).AUD_DB[0], 20);
  EXPECT_NE(next_report().find("\"port\":\"hdmi\""), std::string::npos);

  // An LPCM video record keeps its own code.
  video = make_record(2, 2, 0x80);
  video.AUD_DB[0] = 1;
  EXPECT_EQ(call(audio_channel_info_note, channel_note(3, video)), 1);
  dsp.AUD_DB[0] = 30;
  EXPECT_EQ(call(audio_channel_info_note, channel_note(4, dsp)), 1);
  EXPECT_EQ(record(3).AUD_DB[0], 1);
}

}  // namespace
}  // namespace control_test
