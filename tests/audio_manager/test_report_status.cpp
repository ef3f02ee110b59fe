// Status reports to cmd_core: which ports a report covers, the exact JSON text, the datagram
// layout and the pending output mask.
#include <gtest/gtest.h>

#include <string>

#include "qb_audio_oper_report.h"
#include "qb_audio_stream.h"
#include "test_control_helpers.h"

namespace control_test {
namespace {

class ReportTest : public ControlTest {
 protected:
  void SetUp() override {
    ControlTest::SetUp();
    if (IsSkipped()) return;
    // Every input and network stream plays 2-channel LPCM at 48 kHz, 24 bits.
    for (int ch : {1, 2, 3, 4, 5, 6, 7, 8}) {
      const qb_audio_info rec = make_record(2, 2, 0x80);
      qb_audio_channel_state_set(ch, &rec);
    }
    log.clear();
  }
  static std::string entry(const std::string& port, int channels, const std::string& encoding,
                           const std::string& format, int hz, int size) {
    return "{\"channels\":" + std::to_string(channels) + ",\"encodingType\":\"" + encoding +
           "\",\"format\":\"" + format + "\",\"port\":\"" + port +
           "\",\"sampleFrequency\":" + std::to_string(hz) + ",\"sampleSize\":" +
           std::to_string(size) + ",\"state\":\"on\"}";
  }
};

TEST_F(ReportTest, HdmiInputAloneHasTheExactText) {
  EXPECT_EQ(reportDetailsAudioStatus(1 << 3), 1);
  const Bytes d = next(kReportPort);
  const std::string text = report_text(d);
  EXPECT_EQ(text, "{\"status\":{\"input\":[" + entry("hdmi", 2, "LPCM", "LPCM", 48000, 24) +
                      "]}}\n");
  EXPECT_EQ(d.size(), 17 + text.size());
  EXPECT_EQ(log.count("audio change ch_types : input:[0x8] output:[0x0]"), 1);
  EXPECT_EQ(log.count("Send Msg To cmd_core port:[9995]-[" + text + "]"), 1);
}

TEST_F(ReportTest, NothingToReportSendsNothing) {
  EXPECT_EQ(reportDetailsAudioStatus(0), 0);
  EXPECT_TRUE(log.lines().empty());
  // Bits without a port: the text is empty, nothing is sent, the pending mask is cleared.
  set_update_chs_or(4);
  set_update_chs_or(-1);  // out of the mask: ignored
  set_update_chs_or(32);
  EXPECT_EQ(get_update_chs(), 1 << 4);
  EXPECT_EQ(reportDetailsAudioStatus((1 << 0) | (1 << 4) | (1 << 31)), 0);
  EXPECT_EQ(get_update_chs(), 0);
  EXPECT_EQ(ReportAudioMsg(""), 0);
  EXPECT_TRUE(quiet(kReportPort));
}

TEST_F(ReportTest, OutputChangeDescribesTheStreamTheOutputPlays) {
  // The HDMI output plays stream 2 (network input channel 7), which carries 8-channel DTS.
  qb_audio_info rec = make_record(10, 8, 0x90);
  rec.AUD_DB[0] = 12;
  qb_audio_channel_state_set(7, &rec);
  set_output_hdmi_stream_actual_sid(2);
  set_update_chs_or(3);
  EXPECT_EQ(reportDetailsAudioStatus(0), 1);
  EXPECT_EQ(next_report(), "{\"status\":{\"output\":[" +
                               entry("hdmi", 8, "DTS", "NLPCM", 96000, 24) + "]}}\n");
  EXPECT_EQ(get_update_chs(), 0);
  EXPECT_EQ(log.count_prefix("GetOutputReportMsg:"), 2);  // the entry line and the record dump
}

TEST_F(ReportTest, EncodingNamesFollowTheFormat) {
  struct Case {
    int ch, type, aud_db0;
    const char* format;
    const char* encoding;
    bool lpcm_line;
  };
  const Case cases[] = {
      {3, 0x80, 2, "LPCM", "LPCM", true},  // decoder says Dolby, the format wins
      {3, 0x90, 2, "NLPCM", "Dolby Digit", false},
      {3, 0xC0, 35, "HBR", "DTS HD Master", false},
      {2, 0x90, 2, "NLPCM", "Unknown", false},  // the eARC input names only LPCM
      {1, 0xA0, 0, "DSD", "Unknown", false},
      {5, 0x12, 0, "UNKNOWN", "Unknown", false},
  };
  const char* port_of[] = {"", "analog", "earc", "hdmi", "", "spdif"};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.ch << "/" << c.type);
    log.clear();
    qb_audio_info rec = make_record(0, 6, c.type);
    rec.AUD_DB[0] = static_cast<qb_s8_t>(c.aud_db0);
    qb_audio_channel_state_set(c.ch, &rec);
    EXPECT_EQ(reportDetailsAudioStatus(1 << c.ch), 1);
    EXPECT_EQ(next_report(), "{\"status\":{\"input\":[" +
                                 entry(port_of[c.ch], 6, c.encoding, c.format, 44100, 24) +
                                 "]}}\n");
    EXPECT_EQ(log.count_prefix("encodingType change from ["), c.lpcm_line ? 1 : 0);
  }
}

TEST_F(ReportTest, InputsThenOutputsInPortOrderWithoutStreamlessOutputs) {
  std::string text;
  GetReportMsg(text, QB_REPORT_ALL_PORTS, QB_REPORT_ALL_PORTS);
  std::string all[4];
  const char* ports[] = {"analog", "earc", "hdmi", "spdif"};
  for (int i = 0; i < 4; ++i) all[i] = entry(ports[i], 2, "LPCM", "LPCM", 48000, 24);
  const std::string inputs = all[0] + "," + all[1] + "," + all[2] + "," + all[3];
  EXPECT_EQ(text, "{\"status\":{\"input\":[" + inputs + "],\"output\":[" + inputs + "]}}\n");
  // Outputs playing no stream (-1) or an unknown one have no entry.
  set_output_hdmi_stream_actual_sid(-1);
  set_output_earc_stream_actual_sid(7);
  GetReportMsg(text, 0, QB_REPORT_ALL_PORTS);
  EXPECT_EQ(text, "{\"status\":{\"output\":[" + all[0] + "," + all[3] + "]}}\n");
  GetReportMsg(text, 0, 0);
  EXPECT_EQ(text, "");
}

}  // namespace
}  // namespace control_test
