// The new-format handler's HDMI, eARC and S/PDIF decisions and the adopted format, among fakes.
#include "am_unit.h"
#include "qb_audio_oper_format.h"
#include "qb_audio_stream.h"

namespace am_unit {
namespace {

struct Calls {
  std::vector<std::string> list;
  int it6621_state = 2;
  bool edid_present = false;
  T_Edid_Audio_Info_ edid{};
  std::vector<uint8_t> chs;
};
Calls* g_calls = nullptr;

void add(const std::string& s) { g_calls->list.push_back(s); }
std::string fmt(const char* name, int a, int b) { return std::string(name) + "(" + std::to_string(a) + "," + std::to_string(b) + ")"; }

const qb_audio_new_format_ops_t kFakeOps = {
    [](int bit) { add(fmt("chs", bit, 0)); },
    [](qb_audio_info_t* r) { return add(fmt("avp", r->ch, r->ainfo.SampleFrequency)), 1; },
    []() { return g_calls->it6621_state; },
    [](qb_u8_t* rec, int len) { return g_calls->chs.assign(rec, rec + len), add("it6621_chs"), 1; },
    [](int mode, unsigned sid) { return add(fmt("hdmi", mode, static_cast<int>(sid))), 1; },
    [](int mode, unsigned sid) { return add(fmt("earc", mode, static_cast<int>(sid))), 1; },
    [](int mode, unsigned sid) { return add(fmt("spdif", mode, static_cast<int>(sid))), 1; },
    [](int inputs) { return add(fmt("report", inputs, 0)), 1; },
    [](T_Edid_Audio_Info_* list) { return g_calls->edid_present ? (*list = g_calls->edid, 1) : 0; },
    [](const char* command) { return add(std::string("sh:") + command), 0; },
};

class NewFormat : public RoutingTest {
 protected:
  void SetUp() override {
    RoutingTest::SetUp();
    g_calls = &calls;
    qb_audio_new_format_ops_set(&kFakeOps);
    reset();
  }
  void TearDown() override {
    qb_audio_new_format_ops_set(nullptr);
    RoutingTest::TearDown();
  }
  // Stream 1 (source 4, channel 6, stream id 0); no output listens to it (stream id 2 is source 5).
  void reset() {
    qb_audio_oper_default(&ctrl);
    ctrl.file_param_num = 1;
    for (int out : {QB_AUDIO_OUTPUT_ANALOG, QB_AUDIO_OUTPUT_HDMI, QB_AUDIO_OUTPUT_SPDIF, QB_AUDIO_OUTPUT_EARC}) qb_audio_stream_input_select(out, 2, -1);
    calls = Calls{};
  }
  audio_transport_head_t head(int sf, int ch, int type, int chs1 = 0, int code = 0) {
    qb_audio_info r = make_record(sf, ch, type);
    r.ChStat[1] = static_cast<qb_s8_t>(chs1), r.ChStat[2] = 2, r.AUD_DB[0] = static_cast<qb_s8_t>(code);
    audio_info_head_set(&ctrl, &r);
    return ctrl.net.audio_info_head;
  }
  int run(audio_transport_head_t h) { return calls.list.clear(), qb_audio_oper_new_format(&ctrl, &h); }
  bool called(const std::string& s) const { return std::find(calls.list.begin(), calls.list.end(), s) != calls.list.end(); }

  Calls calls;
  qb_audio_oper_ctrl_t ctrl;
};

// Each decision ends with the format adopted (header, channel record, report) and the run ended.
TEST_F(NewFormat, HdmiFallbackDecisionsAndTheAdoptedFormat) {
  T_Edid_Audio_Info_ tv{};  // AC-3 and LPCM 2 channels up to 48 kHz
  tv.u8AudioInfoNum = 2, tv.ptAudioInfo[0].eAudioFomat = ENUM_AC3, tv.ptAudioInfo[1].eAudioFomat = ENUM_LPCM;
  tv.ptAudioInfo[1].u8MaxChannels = 2, tv.ptAudioInfo[1].eSampleRateFlags = static_cast<E_Audio_Samplerate_Flag>(1 | 2 | 4);
  struct Row { const char* name; int fallback, mode; bool edid; int sf, ch, type, chs1, code; std::vector<std::string> calls; };
  const Row rows[] = {
      {"no fallback: back to normal", -1, 1, false, 2, 2, 0x80, 0, 0, {"chs(3,0)", "avp(6,2)", "hdmi(0,0)", "report(0,0)"}},
      {"no edid: stays normal", 1, 1, false, 14, 8, 0x80, 0, 0, {"chs(3,0)", "hdmi(0,0)", "avp(6,14)", "report(0,0)"}},
      {"lpcm the sink takes", 1, 0, true, 2, 2, 0x80, 0, 0, {"chs(3,0)", "avp(6,2)", "report(0,0)"}},
      {"lpcm rate too high", 1, 0, true, 10, 2, 0x80, 0, 0, {"chs(3,0)", "hdmi(1,1)", "report(0,0)"}},
      {"lpcm too many channels", 1, 0, true, 2, 8, 0x80, 0, 0, {"chs(3,0)", "hdmi(1,1)", "report(0,0)"}},
      {"ac3 listed", 2, 0, true, 2, 2, 0x90, 1, 2, {"chs(3,0)", "avp(6,2)", "report(0,0)"}},
      {"e-ac3 not listed", 2, 0, true, 2, 2, 0x90, 1, 3, {"chs(3,0)", "hdmi(1,2)", "report(0,0)"}},
      {"no mix type", 2, 0, true, 2, 2, 0x90, 1, 200, {"chs(3,0)", "avp(6,2)", "report(0,0)"}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    reset();
    qb_audio_stream_input_select(QB_AUDIO_OUTPUT_HDMI, 0, r.fallback);
    set_output_hdmi_stream_mode(r.mode);
    calls.edid_present = r.edid, calls.edid = tv;
    EXPECT_EQ(1, run(head(r.sf, r.ch, r.type, r.chs1, r.code)));
    EXPECT_EQ(r.calls, calls.list);
    EXPECT_EQ((std::vector<int>{1, r.sf, r.code, r.sf, r.ch, 2}), (std::vector<int>{ctrl.in_aborting.load(), ctrl.net.audio_info_head.Sample_Frequency,
              ctrl.net.audio_info_head.Audio_Info_Frame[0], record(6).SampleFrequency, record(6).ValidCh, record(6).io_in_use}));
  }
}

// eARC and S/PDIF share the pass-through rules; only eARC waits for the bridge and is told the
// channel status.
TEST_F(NewFormat, EarcAndSpdifFallbackRulesAndChannelStatus) {
  qb_audio_stream_input_select(QB_AUDIO_OUTPUT_EARC, 0, 1), qb_audio_stream_input_select(QB_AUDIO_OUTPUT_SPDIF, 0, 2);
  struct Row { int chs1, chs2, chs3, code; bool fallback; };
  const Row rows[] = {{2, 2, 0, 0, true},  {1, 2, 0, 20, true}, {1, 2, 0, 12, false}, {0, 3, 0, 0, true},
                      {0, 2, 0, 0, false}, {0, 2, 9, 0, true},  {3, 2, 9, 0, true},   {3, 2, 2, 0, false}};
  calls.it6621_state = 2;
  for (const Row& r : rows) {
    SCOPED_TRACE(testing::Message() << r.chs1 << "/" << r.chs2 << "/" << r.chs3 << "/" << r.code);
    set_output_earc_stream_mode(0), set_output_spdif_stream_mode(0);
    audio_transport_head_t h = head(2, 2, 0x80, r.chs1, r.code);
    h.IEC60958_Channel_Stats[2] = static_cast<uint8_t>(r.chs2), h.IEC60958_Channel_Stats[3] = static_cast<uint8_t>(r.chs3);
    h.Audio_Info_Frame[3] = 0x13;
    run(h);
    EXPECT_EQ((std::pair<bool, bool>{r.fallback, r.fallback}), (std::pair<bool, bool>{called("earc(1,1)"), called("spdif(1,2)")}));
    // Fed from this stream: the bridge gets the five status bytes and info-frame byte 3.
    ASSERT_EQ(6u, calls.chs.size());
    EXPECT_EQ((Bytes{static_cast<uint8_t>(r.chs1), static_cast<uint8_t>(r.chs2), static_cast<uint8_t>(r.chs3), 0x13}),
              (Bytes{calls.chs[1], calls.chs[2], calls.chs[3], calls.chs[5]}));
  }
  EXPECT_GT(ctrl.runtime, 0);
  calls.it6621_state = 1, set_output_earc_stream_mode(1), set_output_spdif_stream_mode(1);  // DTS passes: back to normal
  run(head(2, 2, 0x90, 1, 12));
  EXPECT_EQ((std::vector<std::string>{"chs(2,0)", "it6621_chs", "chs(5,0)", "spdif(0,0)", "report(0,0)"}), calls.list);
}

}  // namespace
}  // namespace am_unit
