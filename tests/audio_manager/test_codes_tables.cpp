// The decoder-code tables at both ends of every range, the pass-through support over the whole
// code space, and the sink list's count clamped to its room.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "qb_audio_oper.h"
#include "qb_audio_oper_format.h"
#include "qb_audio_oper_packet.h"
#include "test_misc_helpers.h"

namespace {

TEST(CodesTest, DecoderCodeRangesAtBothEnds) {
  struct Row {
    int lo, hi;
    const char* name;
    int mix_lo, mix_hi;  // mix types of lo and hi
  };
  const Row rows[] = {{0, 1, "Unknown", 1, 1},         {2, 2, "Dolby Digit", 2, 2},
                      {3, 3, "Dolby Digit Plus", 3, 3}, {4, 4, "Unknown", 4, 4},
                      {5, 10, "Dolby TrueHD", 4, 4},    {11, 16, "DTS", 5, 6},
                      {17, 29, "DTS HD", 6, 6},         {30, 40, "DTS HD Master", 7, 7},
                      {41, 255, "Unknown", 10, 10}};
  routing_test::LogRecorder log;
  for (const Row& r : rows) {
    for (int code : {r.lo, r.hi}) {
      qb_audio_info rec = routing_test::make_record(2, 2, 0x90);
      rec.AUD_DB[0] = static_cast<qb_s8_t>(code);
      char out[17];
      std::memset(out, 'x', sizeof out);
      EXPECT_EQ(get_dsp_encodingType(&rec, out), 0);
      EXPECT_STREQ(out, r.name) << code;
      EXPECT_EQ(log.count("ainfo->AUD_DB[0]:[" + std::to_string(code) + "]"), 1) << code;
      log.clear();
      EXPECT_EQ(get_audio_type_from_dsp(code), code == r.lo ? r.mix_lo : r.mix_hi) << code;
    }
  }
  EXPECT_EQ(get_audio_type_from_dsp(-100), MIX_AUD_INVALID);
  char out[17];
  EXPECT_EQ(get_dsp_encodingType(nullptr, out), -1);
}

TEST(CodesTest, PassThroughSupportOverEveryCode) {
  for (int code = -2; code <= 256; ++code) {
    const bool want = (code >= 0 && code <= 4) || (code >= 11 && code <= 15);
    EXPECT_EQ(spdif_is_support(code), want) << code;
    EXPECT_EQ(arc_is_support(code), want) << code;
  }
}

TEST(CodesTest, SinkListIsReadNoFurtherThanItsRoom) {
  T_Edid_Audio_Info_ list;
  std::memset(&list, 0, sizeof list);
  list.ptAudioInfo[9] = {ENUM_DDP, ENUM_SAMPLERATE_48_FLAG, 8, 0};
  list.ptAudioInfo[8] = {ENUM_DTS_HD, ENUM_SAMPLERATE_48_FLAG, 8, 0x04};  // bit 2: HDX2
  list.u8AudioInfoNum = 200;
  EXPECT_EQ(aud_support(MIX_AUD_DDP, &list), 1);
  EXPECT_EQ(aud_support(MIX_AUD_HDX2, &list), 1);
  EXPECT_EQ(aud_support(MIX_AUD_AAC, &list), 0);
  list.u8AudioInfoNum = 9;
  EXPECT_EQ(aud_support(MIX_AUD_DDP, &list), 0);
}

}  // namespace
