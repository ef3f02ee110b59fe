// The walk primitives on hostile extensions: whatever the length fields say, every block lies inside
// the data block collection, which itself stays inside the extension before its checksum byte.
#include <gtest/gtest.h>

#include <random>

#include "Edid_Parser.h"
#include "edid.h"
#include "edid_test_util.h"

namespace {

using edid_test::Bytes;

constexpr size_t kExtStart = 128;
constexpr size_t kChecksum = 127;

EDID_Data random_edid(std::mt19937& rng) {
  std::uniform_int_distribution<int> byte(0, 255);
  Bytes ext(128);
  for (qb_u8_t& b : ext) {
    b = static_cast<qb_u8_t>(byte(rng));
  }
  ext[0] = 0x02;
  // bias the headers towards audio blocks so the descriptor walk is exercised
  for (size_t i = 4; i < 127; i += 7) {
    if (byte(rng) < 96) {
      ext[i] = static_cast<qb_u8_t>(0x20 | (ext[i] & 0x1F));
    }
  }
  edid_test::fix_checksum(ext, 0);
  return edid_test::to_data(edid_test::edid_with(ext));
}

TEST(EdidWalk, BlocksStayInsideTheCollection) {
  std::mt19937 rng(20261122);
  for (int round = 0; round < 5000; ++round) {
    const EDID_Data data = random_edid(rng);
    const edid::CEA_Block cea = edid::get_cea_block_from_edid(data);
    ASSERT_EQ(cea.data, data.m_data + kExtStart);
    const size_t end = std::min<size_t>(cea.data[2], kChecksum);
    edid::CEA_Data_Block_Iterator it(cea);
    edid::CEA_Data_Block block;
    size_t expected_at = 4;  // blocks follow each other without gaps
    size_t sads = 0;
    while (it.next(block)) {
      const size_t at = static_cast<size_t>(block.payload - cea.data) - 1;
      ASSERT_EQ(at, expected_at);
      ASSERT_LE(at + 1 + block.length, end) << "round " << round;
      ASSERT_EQ(block.tag, cea.data[at] >> 5);
      expected_at = at + 1 + block.length;
      if (block.tag == edid::CEA_DATA_BLOCK_TAG_AUDIO) {
        sads += block.length / 3;
      }
    }
    ASSERT_FALSE(it.next(block)) << "an exhausted walk stays exhausted";

    edid::SAD_Iterator sad_it(cea);
    edid::SAD sad;
    size_t seen = 0;
    while (sad_it.next(sad)) {
      ASSERT_LT(sad.audioFormatCode, 32u);
      ASSERT_GE(sad.maxChannels, 1u);
      ASSERT_LE(sad.maxChannels, 8u);
      ++seen;
    }
    ASSERT_EQ(seen, sads);

    EdidParser parser;
    testing::internal::CaptureStdout();
    ASSERT_EQ(parser.init(data), 1);
    testing::internal::GetCapturedStdout();
    T_Edid_Audio_Info info{};
    parser.getEdidAudioInfo(&info);
    ASSERT_EQ(info.u8AudioInfoNum, std::min<size_t>(sads, EDID_AUDIO_INFO_MAX_NUM));
  }
}

}  // namespace
