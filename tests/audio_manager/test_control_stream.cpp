// Stream selection and monitor commands: peer MAC, stream selections, output stream requests with
// their cache and ARC mode, CEC address, the details request and the channel information
// notification.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

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
    if (!IsSkipped()) set_onlyarc(0);
  }
  static void set_onlyarc(uint32_t v) { call(input_earc_onlyarc_ctrl_set, le32(v)); }
  static Bytes output_request(int32_t sid, int32_t source, const std::string& mac) {
    Bytes b = words({static_cast<uint32_t>(sid), static_cast<uint32_t>(source)});
    b.resize(24, 0);
    std::memcpy(b.data() + 8, mac.data(), std::min<size_t>(mac.size(), 16));
    return b;
  }
  static Bytes channel_note(int32_t ch, const qb_audio_info& info) {
    Bytes b = le32(static_cast<uint32_t>(ch));
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&info);
    b.insert(b.end(), p, p + sizeof info);
    return b;
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
  EXPECT_EQ(log.count("input_src_mac_set,in5 ip:234.63.68.85"), 1);
}

TEST_F(StreamControlTest, StreamSelectionsReachTheRoutingState) {
  EXPECT_EQ(call(stream_input_select_set, words({1, 2, 0})), 1);
  EXPECT_EQ(qb_misc_audio_sid_hdmi_get(), 2);
  EXPECT_EQ(qb_misc_audio_fallback_sid_hdmi_get(), 0);
  EXPECT_EQ(log.count("stream_input_select_set,stream input select ch[hdmi][1], subid[2] , "
                      "fallback subsid[0]"),
            1);
  // Selecting the HDMI output tells the video processor that it plays a local source.
  EXPECT_EQ(next(kAvpPort), tlv_message(3, 0x80802, text_bytes(QB_AVP_HDMI_OUT_SRC_TEXT)));
  EXPECT_EQ(call(stream_input_fallback_select_set, words({3, 0, 1})), 1);
  EXPECT_EQ(log.count("stream_input_fallback_select_set,stream input select ch[earc][3], "
                      "fullback_subid[1]"),
            1);
  Bytes from_net(24, 0);
  std::memcpy(from_net.data(), "0011223F4455", 12);
  EXPECT_EQ(call(stream_input_fromnet_set, from_net), 1);
  EXPECT_EQ(log.count("stream_input_fromnet_set,stream input from net 24,24"), 1);
}

TEST_F(StreamControlTest, OutputRequestsAreCachedAndTheArcStreamAlwaysSendsItsMode) {
  struct Case {
    int32_t sid, source;
    const char* mac;
    uint32_t only_arc;
    int result;  // 0: already set or refused
    int arc_mode;  // -1: nothing to the input bridge
    bool invalid;
  };
  const Case cases[] = {
      {2, 0, "AABBCCDDEEFF", 0, 1, -1, false},
      {2, 0, "AABBCCDDEEFF", 0, 0, -1, false},
      {2, 0, "aabbccddeeff", 0, 0, -1, false},  // the MAC's case does not count
      {2, 1, "aabbccddeeff", 0, 1, -1, false},
      {0, 0, "", 0, 0, -1, false},  // the cache starts zeroed
      {1, 3, "001122334455", 0, 1, 1, false},
      {1, 3, "001122334455", 0, 0, 1, false},  // unchanged, the mode is sent all the same
      {1, 3, "001122334455", 5, 0, 2, false},
      {1, 0, "001122334455", 5, 1, 0, false},
      {5, 1, "001122334455", 0, 0, -1, true},
      {-1, 1, "001122334455", 0, 0, -1, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.sid << "/" << c.source << "/" << c.mac);
    set_onlyarc(c.only_arc);
    log.clear();
    EXPECT_EQ(call(stream_output_tonet_set, output_request(c.sid, c.source, c.mac)), c.result);
    EXPECT_EQ(log.count("stream output to net has been set"), c.result == 0 ? 1 : 0);
    EXPECT_EQ(log.has("invalid param streamID:" + std::to_string(c.sid), AM_LOG_LEVEL_ERROR),
              c.invalid);
    if (c.arc_mode >= 0) {
      EXPECT_EQ(next(kIt6620Port), tlv_message(7, 0x00030002, le32(c.arc_mode)));
    }
  }
  EXPECT_TRUE(quiet(kIt6620Port));
}

TEST_F(StreamControlTest, CecAddressIsForwardedToTheInputBridge) {
  EXPECT_EQ(call(cec_phyaddr_set, le32(0x1234)), 1);
  EXPECT_EQ(next(kIt6620Port), tlv_message(7, 0x00020002, le32(0x1234)));
  EXPECT_EQ(log.count("cec_phyaddr_set, cec payaddr[00001234], buflen[4]"), 1);
  // A short payload is logged as far as it goes and not forwarded.
  EXPECT_EQ(call(cec_phyaddr_set, Bytes{0x34, 0x12, 0x00}), 0);
  EXPECT_EQ(log.count("cec_phyaddr_set, cec payaddr[00001234], buflen[3]"), 1);
  EXPECT_TRUE(quiet(kIt6620Port));
}

TEST_F(StreamControlTest, DetailsRequestReportsEveryPortWhateverItAsks) {
  set_update_chs_or(4);  // a stray pending bit is replaced by the four ports
  EXPECT_EQ(call(details_audio_status_get, le32(0xFFFF)), 1);
  const std::string text = next_report();
  size_t at = 0;
  for (const char* port : {"\"port\":\"analog\"", "\"port\":\"earc\"", "\"port\":\"hdmi\"",
                           "\"port\":\"spdif\"", "\"output\"", "\"port\":\"analog\"",
                           "\"port\":\"earc\"", "\"port\":\"hdmi\"", "\"port\":\"spdif\""}) {
    at = text.find(port, at);
    ASSERT_NE(at, std::string::npos) << port << " in " << text;
  }
  EXPECT_EQ(get_update_chs(), 0);
  EXPECT_EQ(log.count("details_audio_status_get,4 chs[ffff]\n"), 1);
}

TEST_F(StreamControlTest, ChannelNotesStoreCountAndReport) {
  // A network input: an unchanged record only reports (nothing pending: nothing sent); a changed
  // one restarts its playback worker.
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
    EXPECT_EQ(record(ch).SampleFrequency, 10);
    EXPECT_EQ(next_report(), "{\"status\":{\"input\":[{\"channels\":8,\"encodingType\":\"LPCM\","
                             "\"format\":\"LPCM\",\"port\":\"" + std::string(port_of[ch]) +
                                 "\",\"sampleFrequency\":96000,\"sampleSize\":24,"
                                 "\"state\":\"on\"}]}}\n");
    EXPECT_EQ(call(audio_channel_info_note, channel_note(ch, info)), 1);
    EXPECT_EQ(g_s32Audio_change.load(), counter + 1);
    EXPECT_TRUE(quiet(kReportPort));
  }
  // The counter skips 0 when it wraps.
  g_s32Audio_change.store(0xFFFFFFFFu);
  EXPECT_EQ(call(audio_channel_info_note, channel_note(1, make_record(0, 2, 0x80))), 1);
  EXPECT_EQ(g_s32Audio_change.load(), 0x123456u);
  // Invalid channels are refused and change nothing.
  for (int32_t ch : {9, 0, -3, 13, 0x7FFFFFFF}) {
    const qb_audio_info before = record(9);
    EXPECT_EQ(call(audio_channel_info_note, channel_note(ch, make_record(10, 8, 0x90))), 0);
    EXPECT_TRUE(log.has("invalid ch:" + std::to_string(ch), AM_LOG_LEVEL_ERROR));
    const qb_audio_info after = record(9);
    EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);
  }
}

TEST_F(StreamControlTest, VideoAndDspNotesRestartOutputsAndShareTheDecoderCode) {
  // A video change restarts the network outputs that capture the HDMI input, directly (first
  // stream) or through the DSP downmix (second stream).
  qb_net_first_stream_select_set(QB_AUDIO_SRC_HDMI);
  qb_net_second_stream_select_set(QB_AUDIO_SRC_HDMI_DOWNMIX);
  qb_net_third_stream_select_set(QB_AUDIO_SRC_ANALOG);
  EXPECT_EQ(call(audio_channel_info_note, channel_note(3, make_record(14, 2, 0x80))), 1);
  EXPECT_EQ(log.count("audio_channel_info_note, channel[video] info update ok, ch[3],1,1,6"), 1);
  EXPECT_EQ(log.count("audio_channel_info_note,capture1 restart:1"), 1);
  EXPECT_EQ(log.count("audio_channel_info_note,capture3 restart:6"), 1);
  EXPECT_EQ(log.count_prefix("audio_channel_info_note,capture2"), 0);
  EXPECT_EQ(record(QB_AUDIO_CHN_NSO1).SampleFrequency, 14);

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
  qb_net_first_stream_select_set(QB_AUDIO_SRC_HDMI);
  qb_net_second_stream_select_set(QB_AUDIO_SRC_ANALOG);
  qb_net_third_stream_select_set(QB_AUDIO_SRC_HDMI);
  qb_misc_audio_status_valid_set(QB_AUDIO_CHN_NSO3, 0);
  dsp.AUD_DB[0] = 20;
  EXPECT_EQ(call(audio_channel_info_note, channel_note(4, dsp)), 1);
  EXPECT_EQ(record(3).AUD_DB[0], 20);
  EXPECT_EQ(record(QB_AUDIO_CHN_NSO1).AUD_DB[0], 20);
  EXPECT_EQ(record(QB_AUDIO_CHN_NSO3).AUD_DB[0], 20);
  EXPECT_NE(record(QB_AUDIO_CHN_NSO5).AUD_DB[0], 20);
  EXPECT_EQ(record(4).AUD_DB[0], 20);
  EXPECT_EQ(qb_misc_audio_status_valid_get(QB_AUDIO_CHN_NSO3), 0);

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
