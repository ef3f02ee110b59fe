// The transport header: layout, the values the sender writes, the change counter, the channel
// tags and the format code tables.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "qb_audio_oper.h"
#include "qb_audio_oper_packet.h"
#include "test_oper_helpers.h"

namespace {

using Log = engine_test::Log;


TEST(OperPacket, HeaderBytesAreLittleEndianAtTheirOffsets) {
  audio_transport_head_t h;
  std::memset(&h, 0, sizeof(h));
  h.Magic = AUDIO_HEAD_MAGIC;
  h.Packet_Size = 0x0580;
  h.Rolling_Sample_Data_Size_Total = 0x11223344;
  h.IEC60958_Channel_Stats[4] = 0x0B;
  const auto* b = reinterpret_cast<const uint8_t*>(&h);
  EXPECT_EQ(56u, sizeof(h));
  EXPECT_EQ(0x44, b[0]);
  EXPECT_EQ(0x53, b[1]);
  EXPECT_EQ(0x32, b[2]);
  EXPECT_EQ(0x49, b[3]);
  EXPECT_EQ(0x80, b[12]);
  EXPECT_EQ(0x05, b[13]);
  EXPECT_EQ(0x0B, b[51]);
  EXPECT_EQ(0x44, b[52]);
  EXPECT_EQ(0x11, b[55]);
}

TEST(OperPacket, HeadSetCopiesTheRecordAndFixedFields) {
  Log log;
  qb_audio_oper_ctrl_t ctrl;
  qb_audio_oper_default(&ctrl);
  qb_audio_info r = engine_test::record(10, 8, 0x80);
  r.bSPDIF = 1;
  for (int i = 0; i < 5; ++i) {
    r.AUD_DB[i] = static_cast<qb_s8_t>(0xA0 + i);
    r.ChStat[i] = static_cast<qb_s8_t>(0xF0 + i);
  }
  audio_info_head_set(&ctrl, &r);
  const audio_transport_head_t& h = ctrl.audio_info_head;
  EXPECT_EQ(AUDIO_HEAD_MAGIC, h.Magic);
  EXPECT_EQ(3900u, h.From);
  EXPECT_EQ(1, h.Audio_On);
  EXPECT_EQ(2, h.IO_In_Use);
  EXPECT_EQ(10, h.Sample_Frequency);
  EXPECT_EQ(8, h.Channels);
  EXPECT_EQ(24, h.Sample_Size);
  EXPECT_EQ(0x80, h.Audio_Type);
  EXPECT_EQ(0, h.SPDIF);  // always 0, whatever the record says
  EXPECT_EQ(0xA3, h.Audio_Info_Frame[3]);
  EXPECT_EQ(0xF4, h.IEC60958_Channel_Stats[4]);
  EXPECT_EQ(1, log.count("audio_info_head_set,sf:10,chn:8,ss:24,ad:128,spd:0"));
  EXPECT_EQ(1, log.count("audio_info_head_set,IEC60958_Channel_Stats[f0,f1,f2,f3,f4]"));
  // A null record changes nothing.
  const audio_transport_head_t before = ctrl.audio_info_head;
  audio_info_head_set(&ctrl, nullptr);
  EXPECT_EQ(0, std::memcmp(&before, &ctrl.audio_info_head, sizeof(before)));
}

TEST(OperPacket, ChangeCounterSkipsZeroOnWrap) {
  const qb_u32_t saved = g_s32Audio_change.load();
  g_s32Audio_change.store(AUDIO_CHANGE_COUNTER_INIT);
  EXPECT_EQ(0x123457u, audio_change_counter_next());
  g_s32Audio_change.store(0xFFFFFFFEu);
  EXPECT_EQ(0xFFFFFFFFu, audio_change_counter_next());
  EXPECT_EQ(0x123456u, audio_change_counter_next());
  EXPECT_EQ(1u, audio_change_counter_next());
  g_s32Audio_change.store(saved);
}

TEST(OperPacket, ChannelTagsOnTwoAndEightChannelsOnly) {
  uint8_t two[4 * 4];
  std::memset(two, 0x7F, sizeof(two));
  EXPECT_EQ(1, audio_channel_tags_write(two, sizeof(two), 2, 32));
  const uint8_t want2[4] = {0x00, 0x20, 0x00, 0x20};
  for (int s = 0; s < 4; ++s) {
    EXPECT_EQ(want2[s], two[s * 4 + 3]) << s;
    EXPECT_EQ(0x7F, two[s * 4]);  // the 24-bit value is untouched
  }
  uint8_t eight[16 * 4];
  std::memset(eight, 0x55, sizeof(eight));
  EXPECT_EQ(1, audio_channel_tags_write(eight, sizeof(eight), 8, 32));
  for (int s = 0; s < 16; ++s) {
    EXPECT_EQ(AUDIO_CHANNEL_TAGS_8CH[s % 8], eight[s * 4 + 3]) << s;
  }
  uint8_t six[6 * 4];
  std::memset(six, 0x55, sizeof(six));
  EXPECT_EQ(0, audio_channel_tags_write(six, sizeof(six), 6, 32));
  EXPECT_EQ(0, audio_channel_tags_write(two, sizeof(two), 2, 16));
  for (int s = 0; s < 6; ++s) EXPECT_EQ(0x55, six[s * 4 + 3]);
}

TEST(OperPacket, CodeTables) {
  struct {
    int code;
    unsigned rate;
    int flag;
  } const rates[] = {{0, 44100, 2}, {2, 48000, 4}, {3, 48000, 1}, {8, 88200, 8}, {10, 96000, 16},
                     {12, 176400, 32}, {14, 192000, 64}, {1, 48000, 4}, {9, 48000, 4}, {255, 48000, 4}};
  for (const auto& r : rates) {
    EXPECT_EQ(r.rate, audio_code_to_alsa_rate(static_cast<qb_u8_t>(r.code))) << r.code;
    EXPECT_EQ(r.flag, get_audio_samplerate(static_cast<qb_u8_t>(r.code))) << r.code;
  }
  Log log;
  EXPECT_EQ(2u, audio_code_to_alsa_channels(2));
  EXPECT_EQ(6u, audio_code_to_alsa_channels(3));
  for (int c : {4, 5, 6, 7, 8}) EXPECT_EQ(8u, audio_code_to_alsa_channels(static_cast<qb_u8_t>(c)));
  EXPECT_EQ(0, log.count_prefix("ainfo->ValidCh"));
  for (int c : {0, 1, 9, 255}) EXPECT_EQ(8u, audio_code_to_alsa_channels(static_cast<qb_u8_t>(c)));
  EXPECT_EQ(1, log.count("ainfo->ValidCh:9, use default 8 channels"));
  EXPECT_EQ(SND_PCM_FORMAT_S16_LE, audio_code_to_alsa_format(16));
  EXPECT_EQ(SND_PCM_FORMAT_S24_LE, audio_code_to_alsa_format(24));
  EXPECT_EQ(SND_PCM_FORMAT_S24_LE, audio_code_to_alsa_format(32));
}

TEST(OperPacket, DecoderCodeMappingsDifferAtFourAndSixteen) {
  EXPECT_STREQ("Unknown", audio_dsp_encoding_name(4));
  EXPECT_EQ(MIX_AUD_TRUEHD, get_audio_type_from_dsp(4));
  EXPECT_STREQ("DTS", audio_dsp_encoding_name(16));
  EXPECT_EQ(MIX_AUD_DTSHD, get_audio_type_from_dsp(16));
  EXPECT_EQ(MIX_AUD_INVALID, get_audio_type_from_dsp(-1));
  EXPECT_EQ(MIX_AUD_AAC, get_audio_type_from_dsp(0));
  EXPECT_EQ(MIX_AUD_DTDHDMA, get_audio_type_from_dsp(40));
  EXPECT_EQ(MIX_AUD_INVALID, get_audio_type_from_dsp(41));
  EXPECT_STREQ("DTS HD Master", audio_dsp_encoding_name(30));
  EXPECT_STREQ("Unknown", audio_dsp_encoding_name(41));
  for (int code : {0, 1, 2, 3, 4, 11, 12, 13, 14, 15}) EXPECT_TRUE(spdif_is_support(code)) << code;
  for (int code : {5, 10, 16, 20, -1, 255}) EXPECT_FALSE(arc_is_support(code)) << code;
}

TEST(OperPacket, EncodingNamesByPort) {
  Log log;
  qb_audio_info r = engine_test::record(2, 2, 0x90);
  r.AUD_DB[0] = 3;
  char out[17];
  EXPECT_EQ(0, get_encodingType(7, &r, out));
  EXPECT_STREQ("Dolby Digit Plus", out);
  EXPECT_EQ(1, log.count("ainfo->AUD_DB[0]:[3]"));
  EXPECT_EQ(0, get_encodingType(1, &r, out));
  EXPECT_STREQ("Unknown", out);  // NLPCM by type is not passed on
  r.Audio_Type = static_cast<qb_s8_t>(0x80);
  EXPECT_EQ(0, get_encodingType(5, &r, out));
  EXPECT_STREQ("LPCM", out);
  EXPECT_EQ(0, get_encodingType(4, &r, out));
  EXPECT_STREQ("Unknown", out);
  EXPECT_EQ(1, log.count("get_encodingType encodingType:[LPCM]"));
  EXPECT_EQ(-1, get_encodingType(1, nullptr, out));
  EXPECT_EQ(-1, get_encodingType(1, &r, nullptr));
}

TEST(OperPacket, FileParamSetTakesAlsaParametersFromCodes) {
  qb_audio_oper_ctrl_t ctrl;
  qb_audio_oper_default(&ctrl);
  qb_audio_info r = engine_test::record(3, 1, 0x80);
  r.SampleSize = 16;
  _file_param_set(&ctrl, &r);
  EXPECT_EQ(48000u, ctrl.rhwparams.rate);  // 32 kHz plays at 48000
  EXPECT_EQ(8u, ctrl.rhwparams.channels);
  EXPECT_EQ(SND_PCM_FORMAT_S16_LE, ctrl.rhwparams.format);
  EXPECT_EQ(ctrl.rhwparams.rate, ctrl.hwparams.rate);
  EXPECT_EQ(ctrl.rhwparams.channels, ctrl.hwparams.channels);
  EXPECT_EQ(1408, get_pkt_size(&ctrl));
}

}  // namespace
