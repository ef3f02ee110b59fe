// The sink's capability list is read no further than its room, whatever count it claims (the
// decoder-code tables themselves are the packet tests').
#include <gtest/gtest.h>

#include <cstring>

#include "qb_audio_oper_format.h"

namespace {

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
