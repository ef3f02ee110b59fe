// The reader on EDIDs built in memory: descriptor decoding, the data block walk, validation, the
// ten-entry limit, hostile files, the getter's contract and the board path of the TV's EDID.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "Edid_Parser.h"
#include "am_platform.h"
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
  T_Edid_Audio_Info info;
  std::string out;  // what the reader printed
};

// Runs init on bytes in memory and reads the list back (zeroed first).
Loaded load_memory(const Bytes& bytes) {
  EdidParser parser;
  Loaded l{};
  testing::internal::CaptureStdout();
  l.result = parser.init(to_data(bytes));
  l.out = testing::internal::GetCapturedStdout();
  parser.getEdidAudioInfo(&l.info);
  return l;
}

// Runs init on a file holding bytes.
Loaded load_file(const Bytes& bytes) {
  edid_test::TempDir dir;
  const std::string path = dir.write("edid.bin", bytes);
  EdidParser parser;
  Loaded l{};
  l.info = edid_test::sentinel_info();
  testing::internal::CaptureStdout();
  l.result = parser.init(path.c_str());
  l.out = testing::internal::GetCapturedStdout();
  parser.getEdidAudioInfo(&l.info);
  return l;
}

// An audio data block header for n payload bytes.
qb_u8_t audio_header(size_t n) { return static_cast<qb_u8_t>(0x20 | n); }

// An audio data block with the given descriptors (three bytes each).
Bytes audio_block(const Bytes& sads) {
  Bytes b{audio_header(sads.size())};
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

// n LPCM descriptors whose third byte counts 1, 2, ... from first (to tell them apart).
Bytes numbered_sads(size_t n, qb_u8_t first) {
  Bytes out;
  for (size_t i = 0; i < n; ++i) {
    out.insert(out.end(), {0x09, 0x07, static_cast<qb_u8_t>(first + i)});
  }
  return out;
}

class EdidParserTest : public testing::Test {
 protected:
  void SetUp() override {
    unsetenv(AM_ROOT_ENV);
    am_platform_reload();
  }
  void TearDown() override {
    unsetenv(AM_ROOT_ENV);
    am_platform_reload();
  }
};

// ---- descriptor decoding ----------------------------------------------------------------------

// The two descriptor examples every reader must get right: LPCM with AC-3, and an extension type.
TEST_F(EdidParserTest, KnownDescriptorsDecode) {
  const Loaded l = load_memory(edid_with(cea_block({0x26, 0x09, 0x07, 0x07, 0x15, 0x07, 0x50, 0x23, 0x7F, 0x7F, 0x83})));
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
TEST_F(EdidParserTest, FlagByteFollowsTheFormatCode) {
  constexpr qb_u8_t kByte3 = 0xA8;
  for (qb_u32_t code = 0; code < 32; ++code) {
    SCOPED_TRACE("format code " + std::to_string(code));
    qb_u32_t expected = kByte3;
    if (code >= 2 && code <= 8) {
      expected = kByte3 * 8u;
    } else if (code == 15) {
      expected = kByte3 >> 3;
    }
    const qb_u8_t b0 = static_cast<qb_u8_t>((code << 3) | (code % 8));
    const Loaded l = load_memory(edid_with(cea_block(audio_block({b0, 0xFF, kByte3}))));
    ASSERT_EQ(l.result, 1);
    ASSERT_EQ(l.info.u8AudioInfoNum, 1);
    EXPECT_EQ(l.info.ptAudioInfo[0].eAudioFomat, code);
    EXPECT_EQ(l.info.ptAudioInfo[0].u8MaxChannels, code % 8 + 1);
    EXPECT_EQ(l.info.ptAudioInfo[0].eSampleRateFlags, 0xFFu);
    EXPECT_EQ(l.info.ptAudioInfo[0].u8BitFlag, expected);
  }
}

// ---- the data block walk ----------------------------------------------------------------------

struct WalkCase {
  const char* name;
  Bytes blocks;     // the data block collection
  int dtd_offset;   // extension byte 2; -1: just past the collection
  std::vector<qb_u32_t> flags;  // expected u8BitFlag of each entry (numbered LPCM descriptors)
};

TEST_F(EdidParserTest, DataBlockWalk) {
  const Bytes video = {0x43, 0x10, 0x04, 0x03};                    // video block, 3 VICs
  const Bytes vsdb = {0x65, 0x03, 0x0C, 0x00, 0x10, 0x00};          // vendor-specific block
  const Bytes ext = {0xE3, 0x05, 0xC0, 0x00};                       // extended-tag block
  const Bytes sad1 = audio_block(numbered_sads(1, 1));
  const Bytes sad2 = audio_block(numbered_sads(2, 11));
  const std::vector<WalkCase> cases = {
      {"other blocks are skipped", concat({video, sad1, vsdb, ext}), -1, {1}},
      {"two audio blocks follow each other", concat({sad1, video, sad2}), -1, {1, 11, 12}},
      {"trailing bytes of a block are ignored", {0x27, 0x09, 0x07, 5, 0x09, 0x07, 6, 0xEE}, -1, {5, 6}},
      {"block shorter than a descriptor", {0x22, 0x09, 0x07}, -1, {}},
      {"empty audio block", concat({{0x20}, sad1}), -1, {1}},
      {"no extension data blocks (offset 0)", sad1, 0, {}},
      {"offset 4: no data blocks", sad1, 4, {}},
      {"offset 5: a lone header fits", concat({{0x20}, sad1}), 5, {}},
      {"block reaching past the offset stops the walk", concat({sad1, sad2}), 8 + 3, {1}},
      {"offset inside the first block", concat({sad1, sad2}), 6, {}},
      {"length header past the offset", concat({{0x3F}, sad1}), -1, {}},
      {"offset past the extension ends at the checksum", concat({sad1, sad2}), 255, {1, 11, 12}},
  };
  for (const WalkCase& c : cases) {
    SCOPED_TRACE(c.name);
    const Loaded l = load_memory(edid_with(cea_block(c.blocks, c.dtd_offset)));
    ASSERT_EQ(l.result, 1);
    ASSERT_EQ(l.info.u8AudioInfoNum, c.flags.size());
    for (size_t i = 0; i < c.flags.size(); ++i) {
      EXPECT_EQ(l.info.ptAudioInfo[i].u8BitFlag, c.flags[i]) << i;
    }
  }
}

// With an offset past the extension, a block is read up to the checksum byte and no further.
TEST_F(EdidParserTest, OffsetPastExtensionNeverReachesTheChecksum) {
  // filler blocks (vendor-specific, 31 bytes of payload) up to offset 100, then an audio block
  Bytes blocks;
  while (blocks.size() + 32 <= 96) {
    blocks.push_back(0x7F);
    blocks.insert(blocks.end(), 31, 0x11);
  }
  const size_t header_at = 4 + blocks.size();
  const size_t room = 127 - header_at - 1;  // payload bytes that end right before the checksum byte
  Bytes fits = blocks;
  fits.push_back(audio_header(room));
  const Bytes sads = numbered_sads(room / 3, 1);
  fits.insert(fits.end(), sads.begin(), sads.end());
  fits.resize(fits.size() + room % 3, 0);
  Bytes over = blocks;
  over.push_back(audio_header(room + 1));
  over.insert(over.end(), sads.begin(), sads.end());
  over.resize(over.size() + room % 3 + 1, 0);

  const Loaded ok = load_memory(edid_with(cea_block(fits, 200)));
  ASSERT_EQ(ok.result, 1);
  EXPECT_EQ(ok.info.u8AudioInfoNum, room / 3);
  const Loaded cut = load_memory(edid_with(cea_block(over, 200)));
  ASSERT_EQ(cut.result, 1);
  EXPECT_EQ(cut.info.u8AudioInfoNum, 0);
}

// ---- the ten-entry limit ----------------------------------------------------------------------

TEST_F(EdidParserTest, SurplusDescriptorsAreDropped) {
  struct Case {
    const char* name;
    Bytes blocks;
    size_t count;
  };
  const std::vector<Case> cases = {
      {"ten in one block", audio_block(numbered_sads(10, 1)), 10},
      {"ten and a remainder byte", concat({{audio_header(31)}, numbered_sads(10, 1), {0x00}}), 10},
      {"six and six", concat({audio_block(numbered_sads(6, 1)), audio_block(numbered_sads(6, 7))}), 10},
      {"four blocks of three", concat({audio_block(numbered_sads(3, 1)), audio_block(numbered_sads(3, 4)),
                                       audio_block(numbered_sads(3, 7)), audio_block(numbered_sads(3, 10))}),
       10},
      {"nine", audio_block(numbered_sads(9, 1)), 9},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Loaded l = load_memory(edid_with(cea_block(c.blocks)));
    ASSERT_EQ(l.result, 1);
    ASSERT_EQ(l.info.u8AudioInfoNum, c.count);
    for (size_t i = 0; i < c.count; ++i) {
      EXPECT_EQ(l.info.ptAudioInfo[i].u8BitFlag, i + 1) << "the first ten in EDID order, entry " << i;
    }
  }
}

// ---- validation -------------------------------------------------------------------------------

struct ValidityCase {
  const char* name;
  Bytes bytes;
  int result;
  const char* message;  // printed text expected, or nullptr
};

Bytes with_byte(Bytes b, size_t index, qb_u8_t value, bool rechecksum) {
  b[index] = value;
  if (rechecksum) {
    fix_checksum(b, index / 128 * 128);
  }
  return b;
}

TEST_F(EdidParserTest, ValidationOfFiles) {
  const Bytes good = edid_with(cea_block(audio_block(numbered_sads(2, 1))));
  Bytes zero_ext = base_block(1);
  zero_ext.resize(256, 0x00);
  const std::vector<ValidityCase> cases = {
      {"good", good, 1, "[INFO] EIDI data start"},
      {"base block alone", base_block(0), 1, nullptr},
      {"empty file", {}, 0, "[ERROR] ediddata size is 0 "},
      {"short file", Bytes(good.begin(), good.begin() + 100), 0, "[ERROR] ediddata less than 128 byte "},
      {"between blocks", Bytes(good.begin(), good.begin() + 200), 0, nullptr},
      {"257 bytes", concat({good, {0x00}}), 0, "[ERROR] won't fit in edid"},
      {"384 bytes", concat({good, cea_block({})}), 0, "[ERROR] won't fit in edid"},
      {"wrong checksum in the extension", with_byte(good, 200, 0x55, false), 0, nullptr},
      {"wrong checksum in the base block", with_byte(good, 40, 0x55, false), 0, nullptr},
      {"version 2", with_byte(good, 18, 2, true), 0, nullptr},
      {"broken header", with_byte(good, 3, 0xFE, true), 0, nullptr},
      {"all-zero extension", zero_ext, 0, nullptr},
      {"garbage", Bytes(256, 0x5A), 0, nullptr},
  };
  for (const ValidityCase& c : cases) {
    SCOPED_TRACE(c.name);
    const Loaded l = load_file(c.bytes);
    EXPECT_EQ(l.result, c.result);
    if (c.message != nullptr) {
      EXPECT_NE(l.out.find(c.message), std::string::npos) << l.out;
    }
    if (c.result == 0) {
      const T_Edid_Audio_Info untouched = edid_test::sentinel_info();
      EXPECT_EQ(memcmp(&l.info, &untouched, sizeof(untouched)), 0) << "the caller's record was written";
    }
  }
}

// Valid EDIDs that carry no CEA extension the reader takes: valid, empty list.
TEST_F(EdidParserTest, NoCeaExtensionGivesAnEmptyList) {
  const Bytes audio = cea_block(audio_block(numbered_sads(2, 1)));
  Bytes two_ext = base_block(2);
  two_ext.insert(two_ext.end(), audio.begin(), audio.end());
  const Bytes other_tag = edid_with(with_byte(audio, 0, 0x70, true));
  for (const Bytes& b : {two_ext, other_tag, edid_with(cea_block({0x44, 0x10, 0x04, 0x03, 0x01}))}) {
    const Loaded l = load_file(b);
    ASSERT_EQ(l.result, 1);
    EXPECT_EQ(l.info.u8AudioInfoNum, 0);
  }
}

TEST_F(EdidParserTest, HexDumpOfTheLoadedBytes) {
  const Loaded l = load_file(base_block(0));
  ASSERT_EQ(l.result, 1);
  EXPECT_EQ(l.out.rfind("[INFO] EIDI data start\n\r\n0x00,0xff,0xff,0xff,0xff,0xff,0xff,0x00,", 0), 0u) << l.out;
  EXPECT_NE(l.out.find(",\r\n0x"), std::string::npos);
  EXPECT_NE(l.out.find("\n[INFO] EIDI data end\n "), std::string::npos);
}

// ---- paths ------------------------------------------------------------------------------------

TEST_F(EdidParserTest, UnreadablePathsAreRefused) {
  edid_test::TempDir dir;
  const std::string missing = dir.path() + "/none.bin";
  const std::string long_path = "/" + std::string(99, 'a');  // 100 characters
  struct Case {
    const char* name;
    const char* path;
    const char* message;
  };
  const std::vector<Case> cases = {
      {"missing file", missing.c_str(), "[ERROR] open file: "},
      {"a directory", dir.path().c_str(), nullptr},
      {"path too long for the record", long_path.c_str(), "[ERROR] open file: "},
      {"no path", nullptr, "[ERROR] open file: "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EdidParser parser;
    testing::internal::CaptureStdout();
    EXPECT_EQ(parser.init(c.path), 0);
    const std::string out = testing::internal::GetCapturedStdout();
    if (c.message != nullptr) {
      EXPECT_NE(out.find(c.message), std::string::npos) << out;
    }
    EXPECT_FALSE(parser.isEdidVaild());
  }
}

// The TV's EDID is looked up under the platform root.
TEST_F(EdidParserTest, TvEdidPathResolvesUnderTheRoot) {
  edid_test::TempDir root;
  root.write("tmp/tv.edid.bin", edid_with(cea_block(audio_block(numbered_sads(3, 1)))));
  setenv(AM_ROOT_ENV, root.path().c_str(), 1);
  am_platform_reload();
  EdidParser parser;
  testing::internal::CaptureStdout();
  const int result = parser.init(EDID_TV_FILE_PATH);
  testing::internal::GetCapturedStdout();
  ASSERT_EQ(result, 1);
  T_Edid_Audio_Info info{};
  parser.getEdidAudioInfo(&info);
  EXPECT_EQ(info.u8AudioInfoNum, 3);
  EXPECT_STREQ(EDID_TV_FILE_PATH, "/tmp/tv.edid.bin");
}

// ---- the parser's life ------------------------------------------------------------------------

TEST_F(EdidParserTest, FreshParserIsNotValidAndCopiesNothing) {
  EdidParser parser;
  EXPECT_FALSE(parser.isEdidVaild());
  EXPECT_FALSE(parser.isSupportBaseAudio());
  T_Edid_Audio_Info info = edid_test::sentinel_info();
  parser.getEdidAudioInfo(&info);
  const T_Edid_Audio_Info untouched = edid_test::sentinel_info();
  EXPECT_EQ(memcmp(&info, &untouched, sizeof(info)), 0);
  parser.getEdidAudioInfo(nullptr);
  EXPECT_EQ(parser.deinit(), 0);
}

// A failed new reading leaves the parser not valid, whatever it held before.
TEST_F(EdidParserTest, FailedReinitForgetsTheOldEdid) {
  EdidParser parser;
  testing::internal::CaptureStdout();
  ASSERT_EQ(parser.init(to_data(edid_with(cea_block(audio_block(numbered_sads(2, 1)))))), 1);
  EXPECT_TRUE(parser.isSupportBaseAudio());
  EXPECT_EQ(parser.init(to_data(Bytes(64, 0))), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_FALSE(parser.isEdidVaild());
  EXPECT_FALSE(parser.isSupportBaseAudio());
  T_Edid_Audio_Info info = edid_test::sentinel_info();
  parser.getEdidAudioInfo(&info);
  EXPECT_EQ(info.u8AudioInfoNum, 0xA5);
}

TEST_F(EdidParserTest, BasicAudioFlagFollowsTheExtension) {
  EdidParser with;
  EdidParser without;
  testing::internal::CaptureStdout();
  ASSERT_EQ(with.init(to_data(edid_with(cea_block({}, -1, 0x40)))), 1);
  ASSERT_EQ(without.init(to_data(edid_with(cea_block({}, -1, 0x30)))), 1);
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(with.isSupportBaseAudio());
  EXPECT_FALSE(without.isSupportBaseAudio());
}

// A store whose length field claims more than it holds is refused without reading past it.
TEST_F(EdidParserTest, OversizedStoreIsRefused) {
  EDID_Data data = to_data(edid_with(cea_block(audio_block(numbered_sads(2, 1)))));
  data.m_length = 384;
  EdidParser parser;
  testing::internal::CaptureStdout();
  EXPECT_EQ(parser.init(data), 0);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("[ERROR] won't fit in edid"), std::string::npos);
  EXPECT_FALSE(parser.isEdidVaild());
}

// Once init has returned, several threads read the same list.
TEST_F(EdidParserTest, ConcurrentReadersSeeTheSameList) {
  EdidParser parser;
  testing::internal::CaptureStdout();
  ASSERT_EQ(parser.init(to_data(edid_with(cea_block(audio_block(numbered_sads(7, 1)))))), 1);
  testing::internal::GetCapturedStdout();
  std::vector<std::thread> readers;
  std::vector<int> bad(4, 0);
  for (size_t t = 0; t < bad.size(); ++t) {
    readers.emplace_back([&parser, &bad, t] {
      for (int i = 0; i < 2000; ++i) {
        T_Edid_Audio_Info info{};
        parser.getEdidAudioInfo(&info);
        if (info.u8AudioInfoNum != 7 || info.ptAudioInfo[6].u8BitFlag != 7) {
          ++bad[t];
        }
      }
    });
  }
  for (std::thread& r : readers) {
    r.join();
  }
  EXPECT_EQ(bad, std::vector<int>(4, 0));
}

}  // namespace
