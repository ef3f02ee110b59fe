// The new-format handler: output decisions for HDMI, eARC, S/PDIF and analog, adoption of the
// format and the end of the run. The bridge, switch, report, EDID and shell calls are fakes.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "qb_audio_oper.h"
#include "qb_audio_oper_format.h"
#include "qb_audio_stream.h"
#include "test_oper_helpers.h"

namespace {

struct Calls {
  std::vector<std::string> list;
  int it6621_state = 2;
  int system_result = 0;
  bool edid_present = false;
  T_Edid_Audio_Info_ edid{};
  std::vector<uint8_t> chs;
};
Calls* g_calls = nullptr;

void add(const std::string& s) { g_calls->list.push_back(s); }
std::string fmt(const char* name, int a, int b) {
  return std::string(name) + "(" + std::to_string(a) + "," + std::to_string(b) + ")";
}

const qb_audio_new_format_ops_t kFakeOps = {
    [](int bit) { add(fmt("chs", bit, 0)); },
    [](qb_audio_info_t* r) {
      add(fmt("avp", r->ch, r->ainfo.SampleFrequency));
      return 1;
    },
    []() { return g_calls->it6621_state; },
    [](qb_u8_t* rec, int len) {
      g_calls->chs.assign(rec, rec + len);
      add("it6621_chs");
      return 1;
    },
    [](int mode, unsigned sid) {
      add(fmt("hdmi", mode, static_cast<int>(sid)));
      return 1;
    },
    [](int mode, unsigned sid) {
      add(fmt("earc", mode, static_cast<int>(sid)));
      return 1;
    },
    [](int mode, unsigned sid) {
      add(fmt("spdif", mode, static_cast<int>(sid)));
      return 1;
    },
    [](int inputs) {
      add(fmt("report", inputs, 0));
      return 1;
    },
    [](T_Edid_Audio_Info_* list) {
      if (!g_calls->edid_present) return 0;
      *list = g_calls->edid;
      return 1;
    },
    [](const char* command) {
      add(std::string("sh:") + command);
      return g_calls->system_result;
    },
};

class NewFormat : public engine_test::RoutingEnv {
 protected:
  void SetUp() override {
    RoutingEnv::SetUp();
    g_calls = &calls;
    qb_audio_new_format_ops_set(&kFakeOps);
    qb_audio_oper_default(&ctrl);
    ctrl.file_param_num = 1;  // stream 1: source 4, channel 6, stream id 0
    // Nothing listens to stream 1 unless a test says so (stream id 2 is source 5).
    for (int out : {QB_AUDIO_OUTPUT_ANALOG, QB_AUDIO_OUTPUT_HDMI, QB_AUDIO_OUTPUT_SPDIF, QB_AUDIO_OUTPUT_EARC}) {
      qb_audio_stream_input_select(out, 2, -1);
    }
    calls.list.clear();
    log.clear();
  }
  void TearDown() override {
    qb_audio_new_format_ops_set(nullptr);
    g_calls = nullptr;
    RoutingEnv::TearDown();
  }
  audio_transport_head_t head(int sf, int ch, int type, int chs1 = 0) {
    qb_audio_info r = engine_test::record(sf, ch, type);
    r.ChStat[1] = static_cast<qb_s8_t>(chs1);
    qb_audio_oper_ctrl_t tmp;
    qb_audio_oper_default(&tmp);
    audio_info_head_set(&tmp, &r);
    return tmp.audio_info_head;
  }
  bool called(const std::string& s) const {
    for (const auto& c : calls.list) {
      if (c == s) return true;
    }
    return false;
  }
  void lpcm_sink(unsigned max_channels, unsigned rate_flags) {
    calls.edid_present = true;
    calls.edid.u8AudioInfoNum = 2;
    calls.edid.ptAudioInfo[0].eAudioFomat = ENUM_AC3;
    calls.edid.ptAudioInfo[1].eAudioFomat = ENUM_LPCM;
    calls.edid.ptAudioInfo[1].u8MaxChannels = max_channels;
    calls.edid.ptAudioInfo[1].eSampleRateFlags = static_cast<E_Audio_Samplerate_Flag>(rate_flags);
  }

  Calls calls;
  qb_audio_oper_ctrl_t ctrl;
};

TEST_F(NewFormat, AdoptsTheFormatAndEndsTheRun) {
  audio_transport_head_t h = head(10, 8, 0x80);
  h.Audio_Info_Frame[0] = 5;
  EXPECT_EQ(1, qb_audio_oper_new_format(&ctrl, &h));
  EXPECT_EQ(1, ctrl.in_aborting.load());
  EXPECT_EQ(10, ctrl.audio_info_head.Sample_Frequency);
  EXPECT_EQ(5, ctrl.audio_info_head.Audio_Info_Frame[0]);
  qb_audio_info ch6;
  ASSERT_EQ(1, qb_audio_channel_state_copy(6, &ch6));
  EXPECT_EQ(10, ch6.SampleFrequency);
  EXPECT_EQ(8, ch6.ValidCh);
  EXPECT_EQ(2, ch6.io_in_use);
  EXPECT_TRUE(called("report(0,0)"));
  EXPECT_EQ(1, log.count("new audio head, aborting"));
  EXPECT_EQ(1, log.count("aplay head change,sf:10,chn:8,ss:24"));
  EXPECT_EQ(1, log.count("saiSrc=4 hdmiSrc=[5:5] earcSrc=[5:5] spdifSrc=[5:5]"));
}

TEST_F(NewFormat, RecordFromHeaderCarriesTheStreamsChannel) {
  audio_transport_head_t h = head(14, 2, 0x90, 1);
  h.SPDIF = 1;
  h.Audio_Info_Frame[4] = 0x44;
  const qb_audio_info_t r = qb_audio_oper_record_from_head(3, &h);
  EXPECT_EQ(8, r.ch);
  EXPECT_EQ(1, r.ainfo.Audio_On);
  EXPECT_EQ(14, r.ainfo.SampleFrequency);
  EXPECT_EQ(1, r.ainfo.bSPDIF);
  EXPECT_EQ(0x44, static_cast<uint8_t>(r.ainfo.AUD_DB[4]));
  EXPECT_EQ(1, r.ainfo.ChStat[1]);
  EXPECT_EQ(0, r.ainfo.DownSampling);
}

TEST_F(NewFormat, AnalogIsMutedForAnythingButStereoLpcm) {
  qb_audio_stream_input_select(QB_AUDIO_OUTPUT_ANALOG, 0, -1);
  struct Row {
    int ch, type;
    bool mute;
  } const rows[] = {{2, 0x80, false}, {8, 0x80, true}, {2, 0x90, true}, {2, 0xC0, true}};
  for (const Row& r : rows) {
    calls.list.clear();
    log.clear();
    audio_transport_head_t h = head(2, r.ch, r.type);
    qb_audio_oper_new_format(&ctrl, &h);
    EXPECT_TRUE(called("chs(1,0)"));
    EXPECT_EQ(r.mute ? 1 : 0, log.count("analog_output_mute() ")) << r.ch << " " << r.type;
    EXPECT_EQ(r.mute ? 0 : 1, log.count("analog_output_unmute()")) << r.ch << " " << r.type;
    EXPECT_EQ(1, static_cast<int>(calls.list.size() - 2)) << "one codec call";  // chs, codec, report
    EXPECT_EQ(0u, calls.list[1].rfind("sh:/customer/bin/audio_codec -v ", 0));
  }
}

TEST_F(NewFormat, UserMutedAnalogStaysSilentAndRunsNoCommand) {
  qb_audio_stream_input_select(QB_AUDIO_OUTPUT_ANALOG, 0, -1);
  set_output_analog_mute(1);
  audio_transport_head_t h = head(2, 2, 0x80);
  EXPECT_EQ(1, qb_audio_oper_new_format(&ctrl, &h));
  for (const auto& c : calls.list) EXPECT_NE(0u, c.rfind("sh:", 0)) << c;
  set_output_analog_mute(0);
}

TEST_F(NewFormat, FailedCodecCommandKeepsTheRunAndTheOldFormat) {
  qb_audio_stream_input_select(QB_AUDIO_OUTPUT_ANALOG, 0, -1);
  calls.system_result = -1;
  const audio_transport_head_t before = ctrl.audio_info_head;
  audio_transport_head_t h = head(2, 6, 0x80);
  EXPECT_EQ(0, qb_audio_oper_new_format(&ctrl, &h));
  EXPECT_EQ(0, ctrl.in_aborting.load());
  EXPECT_EQ(0, std::memcmp(&before, &ctrl.audio_info_head, sizeof(before)));
  EXPECT_FALSE(called("report(0,0)"));
  EXPECT_EQ(1, log.count("audio_head_oper, system[/customer/bin/audio_codec -v 0] fail"));
}

TEST_F(NewFormat, HdmiWithoutFallbackPassesTheRecordAndReturnsToNormal) {
  qb_audio_stream_input_select(QB_AUDIO_OUTPUT_HDMI, 0, -1);
  set_output_hdmi_stream_mode(1);
  audio_transport_head_t h = head(2, 2, 0x80);
  qb_audio_oper_new_format(&ctrl, &h);
  EXPECT_TRUE(called("chs(3,0)"));
  EXPECT_TRUE(called("avp(6,2)"));
  EXPECT_TRUE(called("hdmi(0,0)"));
  EXPECT_EQ(1, log.count(" saiSrc=4 ,  4 ; hdmi stream mode = 1"));
}

TEST_F(NewFormat, HdmiFallbackWithoutEdidStaysOnNormal) {
  qb_audio_stream_input_select(QB_AUDIO_OUTPUT_HDMI, 0, 1);
  set_output_hdmi_stream_mode(1);
  audio_transport_head_t h = head(14, 8, 0x80);
  qb_audio_oper_new_format(&ctrl, &h);
  EXPECT_EQ(1, log.count("load edid file /tmp/tv.edid.bin err"));
  EXPECT_TRUE(called("hdmi(0,0)"));
  EXPECT_TRUE(called("avp(6,14)"));
  EXPECT_EQ(1, log.count("s32Downmix=0"));
}

TEST_F(NewFormat, HdmiLpcmRateDecidesTheFallback) {
  qb_audio_stream_input_select(QB_AUDIO_OUTPUT_HDMI, 0, 1);
  set_output_hdmi_stream_mode(0);
  lpcm_sink(2, 1 | 2 | 4);  // 2 channels up to 48 kHz
  audio_transport_head_t h48 = head(2, 2, 0x80);
  qb_audio_oper_new_format(&ctrl, &h48);
  EXPECT_FALSE(called("hdmi(1,1)"));
  EXPECT_TRUE(called("avp(6,2)"));
  EXPECT_EQ(1, log.count("lpcm tv[maxchannel:2,sample:7] audio[channel:2,sample:4]"));
  calls.list.clear();
  audio_transport_head_t h96 = head(10, 2, 0x80);
  qb_audio_oper_new_format(&ctrl, &h96);
  EXPECT_TRUE(called("hdmi(1,1)"));
  EXPECT_FALSE(called("avp(6,10)"));
  EXPECT_EQ(1, log.count("switch to fallback:1"));
  calls.list.clear();
  audio_transport_head_t h8ch = head(2, 8, 0x80);  // more channels than the sink takes
  qb_audio_oper_new_format(&ctrl, &h8ch);
  EXPECT_TRUE(called("hdmi(1,1)"));
}

TEST_F(NewFormat, HdmiBitstreamNeedsTheSinksCapability) {
  qb_audio_stream_input_select(QB_AUDIO_OUTPUT_HDMI, 0, 2);
  set_output_hdmi_stream_mode(0);
  lpcm_sink(8, 0x7F);
  audio_transport_head_t ac3 = head(2, 2, 0x90, 1);
  ac3.Audio_Info_Frame[0] = 2;  // AC-3: the sink lists it
  qb_audio_oper_new_format(&ctrl, &ac3);
  EXPECT_FALSE(called("hdmi(1,2)"));
  calls.list.clear();
  audio_transport_head_t ddp = head(2, 2, 0x90, 1);
  ddp.Audio_Info_Frame[0] = 3;  // E-AC-3: not listed
  qb_audio_oper_new_format(&ctrl, &ddp);
  EXPECT_TRUE(called("hdmi(1,2)"));
  calls.list.clear();
  audio_transport_head_t bad = head(2, 2, 0x90, 1);
  bad.Audio_Info_Frame[0] = 200;  // no mix type: no fallback
  qb_audio_oper_new_format(&ctrl, &bad);
  EXPECT_FALSE(called("hdmi(1,2)"));
  EXPECT_EQ(1, log.count("cannot get audio fromat form AUD_DB of dsp"));
}

TEST_F(NewFormat, HdmiNotListeningButFedGetsTheRecordOnly) {
  qb_audio_stream_input_select(QB_AUDIO_OUTPUT_HDMI, 0, 1);
  qb_msic_net_stream_in_hdmi_set(4);
  qb_audio_stream_input_select(QB_AUDIO_OUTPUT_HDMI, 2, 1);  // listens to stream id 2 ...
  qb_msic_net_stream_in_hdmi_set(4);                          // ... while still fed from source 4
  audio_transport_head_t h = head(2, 2, 0x80);
  qb_audio_oper_new_format(&ctrl, &h);
  EXPECT_TRUE(called("avp(6,2)"));
  EXPECT_FALSE(called("chs(3,0)"));
}

TEST_F(NewFormat, EarcDecidesOnlyInBridgeStateTwo) {
  qb_audio_stream_input_select(QB_AUDIO_OUTPUT_EARC, 0, 1);
  set_output_earc_stream_mode(0);
  calls.it6621_state = 1;
  audio_transport_head_t hbr = head(2, 8, 0xC0, 2);
  qb_audio_oper_new_format(&ctrl, &hbr);
  EXPECT_TRUE(called("chs(2,0)"));
  EXPECT_FALSE(called("earc(1,1)"));
  EXPECT_EQ(1, log.count("it6621 status:1"));
  calls.it6621_state = 2;
  calls.list.clear();
  qb_audio_oper_new_format(&ctrl, &hbr);
  EXPECT_TRUE(called("earc(1,1)"));
}

TEST_F(NewFormat, EarcFallbackRulesAndChannelStatus) {
  qb_audio_stream_input_select(QB_AUDIO_OUTPUT_EARC, 0, 1);
  struct Row {
    int chs1, chs2, chs3, code;
    bool fallback;
  } const rows[] = {{2, 2, 0, 0, true},  {1, 2, 0, 20, true}, {1, 2, 0, 12, false}, {0, 3, 0, 0, true},
                    {0, 2, 0, 0, false}, {0, 2, 9, 0, true},  {3, 2, 9, 0, true},   {3, 2, 2, 0, false}};
  for (const Row& r : rows) {
    set_output_earc_stream_mode(0);
    calls.list.clear();
    audio_transport_head_t h = head(2, 2, 0x80, r.chs1);
    h.IEC60958_Channel_Stats[2] = static_cast<uint8_t>(r.chs2);
    h.IEC60958_Channel_Stats[3] = static_cast<uint8_t>(r.chs3);
    h.Audio_Info_Frame[0] = static_cast<uint8_t>(r.code);
    h.Audio_Info_Frame[3] = 0x13;
    qb_audio_oper_new_format(&ctrl, &h);
    EXPECT_EQ(r.fallback, called("earc(1,1)")) << r.chs1 << "/" << r.chs2 << "/" << r.chs3 << "/" << r.code;
  }
  // Fed from this stream: the bridge gets the five status bytes and info-frame byte 3.
  ASSERT_EQ(6u, calls.chs.size());
  EXPECT_EQ(3, calls.chs[1]);
  EXPECT_EQ(0x13, calls.chs[5]);
  EXPECT_GT(ctrl.runtime, 0);
}

TEST_F(NewFormat, SpdifFallsBackForDtsHdAndReturnsForDts) {
  qb_audio_stream_input_select(QB_AUDIO_OUTPUT_SPDIF, 0, 2);
  set_output_spdif_stream_mode(0);
  audio_transport_head_t dtshd = head(2, 2, 0x90, 1);
  dtshd.Audio_Info_Frame[0] = 20;
  qb_audio_oper_new_format(&ctrl, &dtshd);
  EXPECT_TRUE(called("chs(5,0)"));
  EXPECT_TRUE(called("spdif(1,2)"));
  EXPECT_EQ(1, log.count("dts-- dsp audio type value:20 spdifSupport:0"));
  set_output_spdif_stream_mode(1);
  calls.list.clear();
  audio_transport_head_t dts = head(2, 2, 0x90, 1);
  dts.Audio_Info_Frame[0] = 12;
  qb_audio_oper_new_format(&ctrl, &dts);
  EXPECT_TRUE(called("spdif(0,0)"));
  EXPECT_FALSE(called("it6621_chs"));
}

TEST(AudCap, SinkCapabilityTable) {
  EXPECT_EQ(MIX_AUD_DTS, get_aud_cap(ENUM_DTS, 0));
  EXPECT_EQ(MIX_AUD_HDX2, get_aud_cap(ENUM_DTS_HD, 0x07));
  EXPECT_EQ(MIX_AUD_HDX, get_aud_cap(ENUM_DTS_HD, 0x03));
  EXPECT_EQ(MIX_AUD_DTDHDMA, get_aud_cap(ENUM_DTS_HD, 0x01));
  EXPECT_EQ(MIX_AUD_DTSHD, get_aud_cap(ENUM_DTS_HD, 0x00));
  EXPECT_EQ(MIX_AUD_AC3, get_aud_cap(ENUM_AC3, 0));
  EXPECT_EQ(MIX_AUD_DDP, get_aud_cap(ENUM_DDP, 0));
  EXPECT_EQ(MIX_AUD_TRUEHD, get_aud_cap(ENUM_MAT, 0));
  EXPECT_EQ(MIX_AUD_AAC, get_aud_cap(ENUM_AAC, 0));
  EXPECT_EQ(MIX_AUD_INVALID, get_aud_cap(ENUM_LPCM, 0));
}

TEST(AudCap, SupportExactForDolbyAtLeastForDts) {
  T_Edid_Audio_Info_ list{};
  list.u8AudioInfoNum = 2;
  list.ptAudioInfo[0].eAudioFomat = ENUM_DTS_HD;
  list.ptAudioInfo[0].u8BitFlag = 0x01;  // master audio
  list.ptAudioInfo[1].eAudioFomat = ENUM_DDP;
  EXPECT_EQ(0, aud_support(MIX_AUD_TRUEHD, nullptr));
  EXPECT_EQ(0, aud_support(MIX_AUD_LPCM, &list));
  EXPECT_EQ(1, aud_support(MIX_AUD_DDP, &list));
  EXPECT_EQ(0, aud_support(MIX_AUD_AC3, &list));  // Dolby needs the exact type
  EXPECT_EQ(1, aud_support(MIX_AUD_DTS, &list));  // DTS family: anything at least as good
  EXPECT_EQ(1, aud_support(MIX_AUD_DTDHDMA, &list));
  EXPECT_EQ(0, aud_support(MIX_AUD_HDX, &list));
  EXPECT_EQ(0, aud_support(MIX_AUD_INVALID, &list));
  list.u8AudioInfoNum = 0;  // entries past the count are not scanned
  EXPECT_EQ(0, aud_support(MIX_AUD_DDP, &list));
}

}  // namespace
