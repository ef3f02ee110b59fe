// The reader on EDIDs built in memory: descriptor decoding, the data block walk, validation, the
// ten-entry limit, hostile files, the getter's contract and the board path of the TV's EDID.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Edid_Parser.h"
#include "edid_test_util.h"

namespace {

using edid_test::Bytes;
using edid_test::base_block;
using edid_test::cea_block;
using edid_test::edid_with;
using edid_test::fix_checksum;
using edid_test::to_data;

struct Loaded {
  int result;
  T_Edid_Audio_Info info;  // the sentinel pattern unless the getter wrote it
  std::string out;         // what the reader printed
};

Loaded finish(EdidParser& parser, int result, std::string out) {
  Loaded l{result, edid_test::sentinel_info(), std::move(out)};
  parser.getEdidAudioInfo(&l.info);
  return l;
}

// Runs init on bytes in memory.
Loaded load_memory(const Bytes& bytes) {
  EdidParser parser;
  testing::internal::CaptureStdout();
  const int result = parser.init(to_data(bytes));
  return finish(parser, result, testing::internal::GetCapturedStdout());
}

// Runs init on the TV's EDID file, written under a temporary root.
Loaded load_file(const Bytes& bytes) {
  am_test::TempRoot root;
  edid_test::write_file(root, EDID_TV_FILE_PATH, bytes);
  EdidParser parser;
  testing::internal::CaptureStdout();
  const int result = parser.init(EDID_TV_FILE_PATH);
  return finish(parser, result, testing::internal::GetCapturedStdout());
}

// An audio data block with the given descriptors (three bytes each).
Bytes audio_block(const Bytes& sads) {
  Bytes b{static_cast<qb_u8_t>(0x20 | sads.size())};
  b.insert(b.end(), sads.begin(), sads.end());
  return b;
}

Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) {
    out.insert(out.end(), p.begin(), p.end());
  }
  return out;
}

// n LPCM descriptors whose third byte counts first, first + 1, ... (to tell them apart).
Bytes numbered_sads(size_t n, qb_u8_t first) {
  Bytes out;
  for (size_t i = 0; i < n; ++i) {
    out.insert(out.end(), {0x09, 0x07, static_cast<qb_u8_t>(first + i)});
  }
  return out;
}

Bytes with_byte(Bytes b, size_t index, qb_u8_t value, bool rechecksum) {
  b[index] = value;
  if (rechecksum) {
    fix_checksum(b, index / 128 * 128);
  }
  return b;
}

// The entries' u8BitFlag values, checked against the count.
void expect_flags(const Loaded& l, const std::vector<qb_u32_t>& flags) {
  ASSERT_EQ(l.result, 1) << l.out;
  ASSERT_EQ(l.info.u8AudioInfoNum, flags.size());
  for (size_t i = 0; i < flags.size(); ++i) {
    EXPECT_EQ(l.info.ptAudioInfo[i].u8BitFlag, flags[i]) << "entry " << i;
  }
}

// LPCM with AC-3, and an extension-type descriptor.
TEST(EdidParser, KnownDescriptorsDecode) {
  const Loaded l = load_file(edid_with(cea_block({0x26, 0x09, 0x07, 0x07, 0x15, 0x07, 0x50, 0x23, 0x7F, 0x7F, 0x83})));
  ASSERT_EQ(l.result, 1);
  ASSERT_EQ(l.info.u8AudioInfoNum, 3);
  const struct {
    E_Audio_Format format;
    qb_u32_t channels, rates, flag;
  } expected[] = {
      {ENUM_LPCM, 2, ENUM_SAMPLERATE_32_FLAG | ENUM_SAMPLERATE_44_1_FLAG | ENUM_SAMPLERATE_48_FLAG, 0x07},
      {ENUM_AC3, 6, 0x07, 640},
      {ENUM_RESERVED15, 8, 0x7F, 16},
  };
  for (size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE("entry " + std::to_string(i));
    EXPECT_EQ(l.info.ptAudioInfo[i].eAudioFomat, expected[i].format);
    EXPECT_EQ(l.info.ptAudioInfo[i].u8MaxChannels, expected[i].channels);
    EXPECT_EQ(l.info.ptAudioInfo[i].eSampleRateFlags, expected[i].rates);
    EXPECT_EQ(l.info.ptAudioInfo[i].u8BitFlag, expected[i].flag);
  }
}

// The meaning of the third byte by format code, for every code a descriptor can carry; the second
// byte is kept with all eight bits, the channel count is the low three bits plus one.
TEST(EdidParser, FlagByteFollowsTheFormatCode) {
  constexpr qb_u8_t kByte3 = 0xA8;
  for (qb_u32_t code = 0; code < 32; ++code) {
    SCOPED_TRACE("format code " + std::to_string(code));
    const qb_u32_t expected = (code >= 2 && code <= 8) ? kByte3 * 8u : code == 15 ? kByte3 >> 3 : kByte3;
    const qb_u8_t b0 = static_cast<qb_u8_t>((code << 3) | (code % 8));
    const Loaded l = load_memory(edid_with(cea_block(audio_block({b0, 0xFF, kByte3}))));
    expect_flags(l, {expected});
    EXPECT_EQ(l.info.ptAudioInfo[0].eAudioFomat, code);
    EXPECT_EQ(l.info.ptAudioInfo[0].u8MaxChannels, code % 8 + 1);
    EXPECT_EQ(l.info.ptAudioInfo[0].eSampleRateFlags, 0xFFu);
  }
}

// Which descriptors the walk visits, by the data block collection and extension byte 2 (-1: just
// past the collection); and the first ten in EDID order when the blocks hold more.
TEST(EdidParser, DataBlockWalkAndTenEntryLimit) {
  const Bytes video = {0x43, 0x10, 0x04, 0x03};
  const Bytes vsdb = {0x65, 0x03, 0x0C, 0x00, 0x10, 0x00};
  const Bytes extended = {0xE3, 0x05, 0xC0, 0x00};
  const Bytes sad1 = audio_block(numbered_sads(1, 1));
  const Bytes sad2 = audio_block(numbered_sads(2, 11));
  const struct {
    const char* name;
    Bytes blocks;
    int dtd_offset;
    std::vector<qb_u32_t> flags;
  } cases[] = {
      {"other blocks are skipped", concat({video, sad1, vsdb, extended}), -1, {1}},
      {"two audio blocks follow each other", concat({sad1, video, sad2}), -1, {1, 11, 12}},
      {"trailing bytes of a block are ignored", {0x27, 0x09, 0x07, 5, 0x09, 0x07, 6, 0xEE}, -1, {5, 6}},
      {"block shorter than a descriptor", {0x22, 0x09, 0x07}, -1, {}},
      {"empty audio block", concat({{0x20}, sad1}), -1, {1}},
      {"offset 0", sad1, 0, {}},
      {"offset 4: no data blocks", sad1, 4, {}},
      {"offset 5: a lone header fits", concat({{0x20}, sad1}), 5, {}},
      {"block reaching past the offset stops the walk", concat({sad1, sad2}), 8 + 3, {1}},
      {"length header past the offset", concat({{0x3F}, sad1}), -1, {}},
      {"offset past the extension ends at the checksum", concat({sad1, sad2}), 255, {1, 11, 12}},
      {"ten and a remainder byte", concat({{0x20 | 31}, numbered_sads(10, 1), {0x00}}), -1,
       {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}},
      {"six and six", concat({audio_block(numbered_sads(6, 1)), audio_block(numbered_sads(6, 7))}), -1,
       {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    expect_flags(load_memory(edid_with(cea_block(c.blocks, c.dtd_offset))), c.flags);
  }
}

// Files that load or not; a refused one leaves the caller's record untouched, a valid one
// without a usable CEA extension has an empty list.
TEST(EdidParser, ValidationOfFiles) {
  const Bytes good = edid_with(cea_block(audio_block(numbered_sads(2, 1))));
  Bytes zero_ext = base_block(1);
  zero_ext.resize(256, 0x00);
  Bytes two_ext = base_block(2);
  const Bytes ext = cea_block(audio_block(numbered_sads(2, 1)));
  two_ext.insert(two_ext.end(), ext.begin(), ext.end());
  const struct {
    const char* name;
    Bytes bytes;
    int result;
    int entries;          // expected list length of a valid EDID
    const char* message;  // printed text expected, or nullptr
  } cases[] = {
      {"good", good, 1, 2, "\n[INFO] EIDI data end\n "},
      {"base block alone", base_block(0), 1, 0,
       "[INFO] EIDI data start\n\r\n0x00,0xff,0xff,0xff,0xff,0xff,0xff,0x00,"},
      {"extension count 2", two_ext, 1, 0, ",\r\n0x"},
      {"extension tag not CEA", edid_with(with_byte(ext, 0, 0x70, true)), 1, 0, nullptr},
      {"no audio block", edid_with(cea_block({0x44, 0x10, 0x04, 0x03, 0x01})), 1, 0, nullptr},
      {"empty file", {}, 0, 0, "[ERROR] ediddata size is 0 "},
      {"short file", Bytes(good.begin(), good.begin() + 100), 0, 0, "[ERROR] ediddata less than 128 byte "},
      {"between blocks", Bytes(good.begin(), good.begin() + 200), 0, 0, nullptr},
      {"257 bytes", concat({good, {0x00}}), 0, 0, "[ERROR] won't fit in edid"},
      {"wrong checksum in the extension", with_byte(good, 200, 0x55, false), 0, 0, nullptr},
      {"wrong checksum in the base block", with_byte(good, 40, 0x55, false), 0, 0, nullptr},
      {"version 2", with_byte(good, 18, 2, true), 0, 0, nullptr},
      {"broken header", with_byte(good, 3, 0xFE, true), 0, 0, nullptr},
      {"all-zero extension", zero_ext, 0, 0, nullptr},
  };
  const T_Edid_Audio_Info untouched = edid_test::sentinel_info();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Loaded l = load_file(c.bytes);
    EXPECT_EQ(l.result, c.result);
    if (c.message != nullptr) {
      EXPECT_NE(l.out.find(c.message), std::string::npos) << l.out;
    }
    if (c.result == 0) {
      EXPECT_EQ(memcmp(&l.info, &untouched, sizeof(untouched)), 0) << "the caller's record was written";
    } else {
      EXPECT_EQ(l.info.u8AudioInfoNum, c.entries);
    }
  }
}

TEST(EdidParser, UnreadablePathsAreRefused) {
  am_test::TempRoot root({"tmp"});
  const std::string long_path = "/" + std::string(99, 'a');  // 100 characters
  for (const char* path : {"/tmp/none.bin", "/tmp", long_path.c_str(), static_cast<const char*>(nullptr)}) {
    EdidParser parser;
    testing::internal::CaptureStdout();
    EXPECT_EQ(parser.init(path), 0);
    const std::string out = testing::internal::GetCapturedStdout();
    if (path != nullptr && std::string(path) != "/tmp") {
      EXPECT_EQ(out.rfind("[ERROR] open file: " + std::string(path) + " fail !\n", 0), 0u) << out;
    }
    EXPECT_FALSE(parser.isEdidVaild());
  }
}

// Not valid until a good init; a failed new reading forgets the old EDID; basic audio follows the
// extension's flag; a store whose length claims more than it holds is refused.
TEST(EdidParser, ParserLife) {
  EdidParser parser;
  EXPECT_FALSE(parser.isEdidVaild());
  T_Edid_Audio_Info info = edid_test::sentinel_info();
  parser.getEdidAudioInfo(&info);
  EXPECT_EQ(info.u8AudioInfoNum, 0xA5);
  testing::internal::CaptureStdout();
  ASSERT_EQ(parser.init(to_data(edid_with(cea_block({}, -1, 0x40)))), 1);
  EXPECT_TRUE(parser.isSupportBaseAudio());
  ASSERT_EQ(parser.init(to_data(edid_with(cea_block({}, -1, 0x30)))), 1);
  EXPECT_FALSE(parser.isSupportBaseAudio());
  ASSERT_EQ(parser.init(to_data(edid_with(cea_block({}, -1, 0x40)))), 1);
  EXPECT_EQ(parser.init(to_data(Bytes(64, 0))), 0);
  EXPECT_FALSE(parser.isEdidVaild());
  EXPECT_FALSE(parser.isSupportBaseAudio());
  parser.getEdidAudioInfo(&info);
  EXPECT_EQ(info.u8AudioInfoNum, 0xA5);

  EDID_Data data = to_data(edid_with(cea_block(audio_block(numbered_sads(2, 1)))));
  data.m_length = 384;
  EXPECT_EQ(parser.init(data), 0);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("[ERROR] won't fit in edid"), std::string::npos);
  EXPECT_EQ(parser.deinit(), 0);
}

}  // namespace
