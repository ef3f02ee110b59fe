// The format code tables of the transport header: EDID rate flags, decoder codes to mix types and
// encoding names, audio types to names, sink capabilities to mix types, and the pass-through
// support of the S/PDIF and ARC outputs. Boundaries of every range are checked on both sides.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "qb_audio_oper_codes.h"
#include "test_misc_helpers.h"

namespace {

TEST(CodesTest, SampleFrequencyCodesToEdidRateFlags) {
  const int table[][2] = {{0, 2}, {2, 4}, {3, 1}, {8, 8}, {10, 16}, {12, 32}, {14, 64},
                          {1, 4}, {4, 4}, {9, 4}, {15, 4}, {255, 4}};
  for (const auto& row : table) {
    EXPECT_EQ(get_audio_samplerate(static_cast<qb_u8_t>(row[0])), row[1]) << row[0];
  }
}

TEST(CodesTest, DecoderCodesToMixTypes) {
  const int table[][2] = {{-100, 10}, {-1, 10}, {0, 1},  {1, 1},  {2, 2},  {3, 3},   {4, 4},
                          {10, 4},    {11, 5},  {15, 5}, {16, 6}, {29, 6}, {30, 7},  {40, 7},
                          {41, 10},   {255, 10}};
  for (const auto& row : table) EXPECT_EQ(get_audio_type_from_dsp(row[0]), row[1]) << row[0];
}

TEST(CodesTest, DecoderCodesToEncodingNames) {
  struct Row {
    int lo, hi;
    const char* name;
  };
  const Row rows[] = {{0, 1, "Unknown"},        {2, 2, "Dolby Digit"},
                      {3, 3, "Dolby Digit Plus"}, {4, 4, "Unknown"},
                      {5, 10, "Dolby TrueHD"},   {11, 16, "DTS"},
                      {17, 29, "DTS HD"},        {30, 40, "DTS HD Master"},
                      {41, 255, "Unknown"}};
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
    }
  }
  char out[17];
  EXPECT_EQ(get_dsp_encodingType(nullptr, out), -1);
}

TEST(CodesTest, EncodingNameByPort) {
  qb_audio_info dts = routing_test::make_record(2, 6, 0x80);
  dts.AUD_DB[0] = 12;
  qb_audio_info nlpcm = dts;
  nlpcm.Audio_Type = static_cast<qb_s8_t>(0x90);
  struct Row {
    int port;
    const qb_audio_info* rec;
    const char* name;
  };
  const Row rows[] = {
      {3, &dts, "DTS"},     {6, &dts, "DTS"},        {7, &dts, "DTS"},    {8, &dts, "DTS"},
      {1, &dts, "LPCM"},    {2, &dts, "LPCM"},       {5, &dts, "LPCM"},   {1, &nlpcm, "Unknown"},
      {5, &nlpcm, "Unknown"}, {4, &dts, "Unknown"},  {0, &dts, "Unknown"}, {9, &dts, "Unknown"},
  };
  for (const Row& r : rows) {
    char out[17] = {};
    EXPECT_EQ(get_encodingType(r.port, r.rec, out), 0);
    EXPECT_STREQ(out, r.name) << r.port;
  }
  char out[17];
  EXPECT_EQ(get_encodingType(3, &dts, nullptr), -1);
  EXPECT_EQ(get_encodingType(3, nullptr, out), -1);
}

TEST(CodesTest, AudioTypeNames) {
  const std::pair<int, const char*> rows[] = {{0x80, "LPCM"}, {0x90, "NLPCM"}, {0xA0, "DSD"},
                                              {0xC0, "HBR"},  {0x00, "UNKNOWN"}, {0x81, "UNKNOWN"}};
  for (const auto& r : rows) EXPECT_STREQ(audio_type_name(r.first), r.second) << r.first;
}

TEST(CodesTest, SinkCapabilitiesToMixTypes) {
  struct Row {
    E_Audio_Format format;
    qb_u8_t flag;
    int mix;
  };
  const Row rows[] = {
      {ENUM_DTS, 0xFF, 5},   {ENUM_DTS_HD, 0x07, 9}, {ENUM_DTS_HD, 0x04, 9},
      {ENUM_DTS_HD, 0x03, 8}, {ENUM_DTS_HD, 0x01, 7}, {ENUM_DTS_HD, 0x00, 6},
      {ENUM_DTS_HD, 0xF8, 6}, {ENUM_AC3, 0, 2},       {ENUM_DDP, 0, 3},
      {ENUM_MAT, 0, 4},      {ENUM_AAC, 0, 1},       {ENUM_LPCM, 7, 10},
      {ENUM_MPEG1, 0, 10},   {ENUM_HBR, 0, 10},      {ENUM_UNKNOWN, 0, 10},
  };
  for (const Row& r : rows) {
    EXPECT_EQ(get_aud_cap(r.format, r.flag), r.mix) << r.format << "/" << int(r.flag);
  }
}

TEST(CodesTest, SinkSupportOfAMixType) {
  T_Edid_Audio_Info_ list;
  std::memset(&list, 0, sizeof list);
  list.u8AudioInfoNum = 3;
  list.ptAudioInfo[0] = {ENUM_LPCM, ENUM_SAMPLERATE_48_FLAG, 2, 7};
  list.ptAudioInfo[1] = {ENUM_AC3, ENUM_SAMPLERATE_48_FLAG, 6, 640};
  list.ptAudioInfo[2] = {ENUM_DTS_HD, ENUM_SAMPLERATE_48_FLAG, 8, 0x02};  // up to 8 (HDX)
  list.ptAudioInfo[3] = {ENUM_DDP, ENUM_SAMPLERATE_48_FLAG, 8, 0};       // beyond the count
  const int want[][2] = {{0, 0}, {1, 0}, {2, 1}, {3, 0}, {4, 0}, {5, 1},
                         {6, 1}, {7, 1}, {8, 1}, {9, 0}, {10, 0}, {-1, 0}};
  for (const auto& w : want) EXPECT_EQ(aud_support(w[0], &list), w[1]) << w[0];
  EXPECT_EQ(aud_support(2, nullptr), 0);
  // A count beyond the list's room reads no further than its ten entries.
  list.u8AudioInfoNum = 200;
  EXPECT_EQ(aud_support(3, &list), 1);
  EXPECT_EQ(aud_support(1, &list), 0);
}

TEST(CodesTest, PassThroughSupportOfSpdifAndArc) {
  for (int code = -2; code <= 256; ++code) {
    const bool want = (code >= 0 && code <= 4) || (code >= 11 && code <= 15);
    EXPECT_EQ(spdif_is_support(code), want) << code;
    EXPECT_EQ(arc_is_support(code), want) << code;
  }
}

}  // namespace
