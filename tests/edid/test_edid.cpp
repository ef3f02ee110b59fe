// The EDID reader: the audio lists of real sinks, the data block walk and its ten-entry limit,
// validation of files and the reader's life cycle.
#include "am_test_sys.h"

#include "Edid_Parser.h"
#include "am_test_edid.h"

namespace {

using Bytes = am_test::EdidBytes;
using am_test::edid_base_block, am_test::edid_fix_checksum, am_test::edid_with;

EDID_Data to_data(const Bytes& bytes) {
  EDID_Data d;
  return d.assign(bytes.data(), bytes.size()), d;
}

// A record filled with a recognisable pattern, to tell whether the getter wrote it.
T_Edid_Audio_Info sentinel() {
  T_Edid_Audio_Info info;
  return std::memset(&info, 0xA5, sizeof(info)), info;
}

struct Loaded {
  int result;
  T_Edid_Audio_Info info;  // the sentinel unless the getter wrote it
  std::string out;         // what the reader printed
  bool untouched() const { return memcmp(&info, &kSentinel, sizeof(info)) == 0; }
  static inline const T_Edid_Audio_Info kSentinel = sentinel();
};

// Runs init on bytes in memory, or on the TV's EDID file under a temporary root.
Loaded load(const Bytes& bytes, bool from_file = false) {
  std::unique_ptr<am_test::TempRoot> root(from_file ? new am_test::TempRoot : nullptr);
  if (from_file) root->write(EDID_TV_FILE_PATH, std::string(bytes.begin(), bytes.end()));
  EdidParser parser;
  testing::internal::CaptureStdout();
  const int result = from_file ? parser.init(EDID_TV_FILE_PATH) : parser.init(to_data(bytes));
  Loaded l{result, sentinel(), testing::internal::GetCapturedStdout()};
  parser.getEdidAudioInfo(&l.info);
  return l;
}

// An audio data block holding two LPCM descriptors.
const Bytes kTwoSads = {0x26, 0x09, 0x07, 0x01, 0x09, 0x07, 0x02};

// ---- real sinks ---------------------------------------------------------------------------------
// Each list was written down from an independent decoder's listing of the file's first extension
// (format, maximum channels, sample rates, sample sizes / bit rate / format-dependent byte).
// 384-byte EDIDs do not fit the reader's 256-byte store and are refused; sister models are left out.
struct Sad { qb_u32_t format, channels, rates, flag; };
struct CorpusCase { const char* file; size_t size; std::vector<Sad> audio; };
void PrintTo(const CorpusCase& c, std::ostream* os) { *os << c.file; }

const Sad kStereo = {1, 2, 0x07, 7}, kStereo5 = {1, 2, 0x1f, 7};
const std::vector<CorpusCase> kCorpus = {
    {"acer-xv273k-dp", 384, {}}, {"apple-cinemahd-30-dvi", 256, {}}, {"asus-vw246-hdmi", 256, {kStereo}},
    {"dell-2408wfp-dp", 128, {}}, {"dell-3007wfp-dvi", 128, {}}, {"dell-e178wfp-vga", 128, {}},
    {"dell-p2415q-dp", 256, {kStereo5}}, {"dell-p2415q-hdmi1.4", 256, {kStereo5}}, {"dell-up2715k-dp", 256, {kStereo}},
    {"dell-up2715k-dp2-tile0", 256, {}}, {"dell-up2718q-dp", 256, {kStereo5}}, {"elo-4600l-hdmi", 256, {kStereo}},
    {"hdfury-doctorhdmi-3d-hdmi", 256, {{1, 2, 0x6e, 7}, {2, 5, 0x04, 1024}, {7, 5, 0x04, 1536}, {6, 5, 0x04, 256}}},
    {"hp-lp2275w-dp", 128, {}}, {"hp-lp2480zx-dp", 128, {}}, {"hp-lp2480zx-hdmi", 256, {}},
    {"kogan-kaled24144f-dp", 256, {kStereo}}, {"lg-32ud99-w-hdmi", 256, {kStereo}}, {"lg-l206wu-usb-dvi", 128, {}},
    {"lg-55uh5c-hdmi", 256, {{7, 6, 0x06, 1536}, {2, 6, 0x07, 640}, {1, 2, 0x57, 7}}},
    {"lg-75uh5c-hdmi", 256, {{7, 6, 0x06, 1536}, {2, 6, 0x50, 640}, {1, 2, 0x57, 7}}},
    {"lg-oled-c9-hdmi", 256, {{1, 2, 0x57, 7}, {2, 6, 0x07, 640}, {10, 8, 0x07, 1}, {12, 8, 0x04, 3}, {7, 6, 0x1e, 1536}, {11, 8, 0x7e, 1}}},
    {"lg-oled-cx-hdmi", 256, {{1, 2, 0x57, 7}, {2, 6, 0x07, 640}, {10, 8, 0x07, 1}, {12, 8, 0x04, 3}}},
    {"lg-oled55b6v-hdmi-denon-avr-x2300w-hdmi", 256, {{1, 8, 0x7f, 7}, {7, 6, 0x1e, 1536}, {2, 6, 0x07, 640}, {11, 8, 0x7e, 3}, {10, 8, 0x06, 3}, {12, 8, 0x7e, 3}, {11, 8, 0x7e, 1}}},
    {"lg-ultrafine-5k-v2-thunderbolt-dp2-tile1", 256, {}}, {"matrox-triplehead2go-dvi", 128, {}},
    {"oculus-rift-dk1-hdmi", 256, {}}, {"samsung-qm65h-hdmi", 256, {kStereo}}, {"sharp-pn465-dvi", 256, {}},
    {"samsung-qp82r-8k-hdmi4", 256, {kStereo, {2, 6, 0x07, 640}, {10, 8, 0x07, 0}}},
    {"samsung-ue40ku6070-hdmi", 256, {kStereo, {2, 6, 0x07, 640}, {7, 6, 0x04, 1536}}},
    {"sharp-aquos-hdmi", 256, {{1, 2, 0x07, 1}}}, {"skyworth-50e780u-hdmi", 256, {{1, 2, 0x7f, 3}, {2, 2, 0x7f, 192}}},
    {"sony-kd55xd-hdmi", 256, {{1, 6, 0x7f, 7}, {2, 6, 0x07, 640}, {7, 6, 0x07, 1504}}},
};

class EdidCorpus : public testing::TestWithParam<CorpusCase> {};

// The audio list of each file, and every truncation of a two-block file refused except the bare
// base block (valid, empty list).
TEST_P(EdidCorpus, AudioListMatchesTheSinksDescriptors) {
  const CorpusCase& c = GetParam();
  const std::string text = am_test::read_file(std::string(am_test::kTestDataDir) + "/edid/" + c.file);
  ASSERT_EQ(text.size(), c.size);
  const Bytes bytes(text.begin(), text.end());
  const Loaded l = load(bytes, true);
  if (c.size > 256) {
    EXPECT_EQ(l.result, 0);
    EXPECT_NE(l.out.find("[ERROR] won't fit in edid"), std::string::npos) << l.out;
    EXPECT_TRUE(l.untouched());
    return;
  }
  ASSERT_EQ(l.result, 1);
  ASSERT_EQ(l.info.u8AudioInfoNum, c.audio.size());
  for (size_t i = 0; i < EDID_AUDIO_INFO_MAX_NUM; ++i) {
    const Sad w = i < c.audio.size() ? c.audio[i] : Sad{0, 0, 0, 0};
    const T_Audio_Info& g = l.info.ptAudioInfo[i];
    EXPECT_EQ((std::vector<qb_u32_t>{g.eAudioFomat, g.u8MaxChannels, g.eSampleRateFlags, g.u8BitFlag}),
              (std::vector<qb_u32_t>{w.format, w.channels, w.rates, w.flag})) << "entry " << i;
  }
  for (size_t len = 0; c.size == 256 && len < bytes.size(); ++len) {
    const Loaded cut = load(Bytes(bytes.begin(), bytes.begin() + len));
    ASSERT_EQ(cut.result, len == 128 ? 1 : 0) << "length " << len;
    ASSERT_EQ(cut.info.u8AudioInfoNum, len == 128 ? 0u : 0xA5u) << "length " << len;
  }
}

INSTANTIATE_TEST_SUITE_P(RealSinks, EdidCorpus, testing::ValuesIn(kCorpus), [](const testing::TestParamInfo<CorpusCase>& i) {
  std::string name = i.param.file;
  for (char& ch : name) ch = isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
  return name;
});

// ---- EDIDs built in memory ------------------------------------------------------------------------

// Files that load or not, through the TV's board path; a refused one leaves the caller's record
// untouched, a valid one without a usable CEA extension has an empty list. The list holds the
// first ten descriptors of the audio blocks lying wholly before the offset in extension byte 2.
TEST(EdidParser, ValidationOfFiles) {
  const Bytes good = edid_with(kTwoSads);
  auto with = [](Bytes b, size_t at, qb_u8_t v, bool rechecksum) {
    b[at] = v;
    return rechecksum ? edid_fix_checksum(b, at / 128 * 128) : b;
  };
  Bytes zero_ext = edid_base_block(1), two_ext = edid_base_block(2), long_file = good, eleven;
  zero_ext.resize(256, 0x00);
  for (int i = 0; i < 11; ++i) {  // two audio blocks of five and six descriptors
    if (i == 0 || i == 5) eleven.push_back(static_cast<qb_u8_t>(0x20 | (i == 0 ? 15 : 18)));
    eleven.insert(eleven.end(), {0x09, 0x07, 0x01});
  }
  two_ext.insert(two_ext.end(), good.begin() + 128, good.end());
  long_file.push_back(0);
  // entries: list length of a valid EDID; message: text printed, or nullptr.
  const struct { const char* name; Bytes bytes; int result, entries; const char* message; } cases[] = {
      {"good", good, 1, 2, "\n[INFO] EIDI data end\n "},
      {"base block alone", edid_base_block(0), 1, 0, "[INFO] EIDI data start\n\r\n0x00,0xff,0xff,0xff,0xff,0xff,0xff,0x00,"},
      {"extension count 2", two_ext, 1, 0, ",\r\n0x"},
      {"extension tag not CEA", with(good, 128, 0x70, true), 1, 0, nullptr},
      {"no audio block", edid_with({0x44, 0x10, 0x04, 0x03, 0x01}), 1, 0, nullptr},
      {"eleven descriptors, ten kept", edid_with(eleven), 1, 10, nullptr},
      {"audio block ending past byte 2", edid_with(kTwoSads, 4 + 6), 1, 0, nullptr},
      {"empty file", {}, 0, 0, "[ERROR] ediddata size is 0 "},
      {"short file", Bytes(good.begin(), good.begin() + 100), 0, 0, "[ERROR] ediddata less than 128 byte "},
      {"257 bytes", long_file, 0, 0, "[ERROR] won't fit in edid"},
      {"wrong checksum in the extension", with(good, 200, 0x55, false), 0, 0, nullptr},
      {"wrong checksum in the base block", with(good, 40, 0x55, false), 0, 0, nullptr},
      {"version 2", with(good, 18, 2, true), 0, 0, nullptr},
      {"broken header", with(good, 3, 0xFE, true), 0, 0, nullptr},
      {"all-zero extension", zero_ext, 0, 0, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Loaded l = load(c.bytes, true);
    EXPECT_EQ(l.result, c.result);
    EXPECT_NE(l.out.find(c.message != nullptr ? c.message : ""), std::string::npos) << l.out;
    EXPECT_TRUE(c.result == 1 ? l.info.u8AudioInfoNum == c.entries : l.untouched()) << "entries or an untouched record";
  }
}

// A missing file or a store claiming more than it holds is refused; a failed new reading forgets
// the old EDID; basic audio follows the extension's flag.
TEST(EdidParser, ParserLife) {
  EdidParser parser;
  T_Edid_Audio_Info info = sentinel();
  parser.getEdidAudioInfo(&info);  // nothing read yet: the record stays as it was
  EXPECT_EQ(info.u8AudioInfoNum, 0xA5);
  testing::internal::CaptureStdout();
  EXPECT_EQ(parser.init("/no/such/edid.bin"), 0);
  EXPECT_EQ(parser.init(static_cast<const char*>(nullptr)), 0);
  EXPECT_EQ(parser.init("/"), 0);  // a folder opens but cannot be read
  EXPECT_EQ(parser.init(("/" + std::string(99, 'a')).c_str()), 0);  // 100 characters: too long a path
  ASSERT_EQ(parser.init(to_data(edid_with({}, -1, 0x30))), 1);
  EXPECT_FALSE(parser.isSupportBaseAudio());
  ASSERT_EQ(parser.init(to_data(edid_with({}, -1, 0x40))), 1);
  EXPECT_TRUE(parser.isSupportBaseAudio());
  EDID_Data data = to_data(edid_with(kTwoSads));
  data.m_length = 384;
  EXPECT_EQ(parser.init(data), 0);
  EXPECT_FALSE(parser.isEdidVaild());
  EXPECT_FALSE(parser.isSupportBaseAudio());
  parser.getEdidAudioInfo(&info);
  EXPECT_EQ(info.u8AudioInfoNum, 0xA5);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("[ERROR] open file: /no/such/edid.bin fail !\n"), std::string::npos) << out;
  EXPECT_NE(out.find("[ERROR] won't fit in edid"), std::string::npos) << out;
  EXPECT_NE(out.find("[ERROR] read file: / fail !\n"), std::string::npos) << out;
}

}  // namespace
