// The reader against real sinks: every EDID of the corpus in the shared test data is loaded and
// its audio list compared with the descriptors listed below. The expected lists were written down
// from an independent decoder's listing of each file's first extension block (format, maximum
// channels, sample rates, and sample sizes, bit rate or format-dependent byte); the test needs
// nothing but the files. 384-byte EDIDs do not fit the reader's 256-byte store and are refused.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Edid_Parser.h"
#include "am_platform.h"
#include "am_test_paths.h"
#include "edid_test_util.h"

namespace {

struct ExpectedAudio {
  qb_u32_t format;
  qb_u32_t channels;
  qb_u32_t rates;
  qb_u32_t flag;  // u8BitFlag: sample sizes, bit rate in kHz or the format-dependent byte
};

struct CorpusCase {
  const char* file;
  size_t size;
  bool valid;
  std::vector<ExpectedAudio> audio;
};

// Test names carry the file; the parameter itself prints as the file too (short test listings).
void PrintTo(const CorpusCase& c, std::ostream* os) { *os << c.file; }

// File, size in bytes, whether init accepts it, and its audio list in EDID order.
const std::vector<CorpusCase>& corpus() {
  static const std::vector<CorpusCase> kCorpus = {
      {"acer-xv273k-dp", 384, false, {}},
      {"acer-xv273k-dp1-tile0", 384, false, {}},
      {"acer-xv273k-dp2-tile1", 384, false, {}},
      {"apple-cinemahd-30-dvi", 256, true, {}},
      {"asus-vw246-hdmi", 256, true, {{1, 2, 0x07, 7}}},
      {"dell-2408wfp-dp", 128, true, {}},
      {"dell-3007wfp-dvi", 128, true, {}},
      {"dell-e178wfp-vga", 128, true, {}},
      {"dell-p2415q-dp", 256, true, {{1, 2, 0x1f, 7}}},
      {"dell-p2415q-hdmi1.4", 256, true, {{1, 2, 0x1f, 7}}},
      {"dell-p2415q-hdmi2.0", 256, true, {{1, 2, 0x1f, 7}}},
      {"dell-up2715k-dp", 256, true, {{1, 2, 0x07, 7}}},
      {"dell-up2715k-dp-switchresx", 384, false, {}},
      {"dell-up2715k-dp1-tile1", 384, false, {}},
      {"dell-up2715k-dp2-tile0", 256, true, {}},
      {"dell-up2718q-dp", 256, true, {{1, 2, 0x1f, 7}}},
      {"dell-up3218k-dp1-tile0", 384, false, {}},
      {"dell-up3218k-dp2-tile1", 384, false, {}},
      {"elo-4600l-hdmi", 256, true, {{1, 2, 0x07, 7}}},
      {"hdfury-doctorhdmi-3d-hdmi", 256, true, {{1, 2, 0x6e, 7}, {2, 5, 0x04, 1024}, {7, 5, 0x04, 1536}, {6, 5, 0x04, 256}}},
      {"hdfury-doctorhdmi-no3d-hdmi", 256, true, {{1, 2, 0x6e, 7}, {2, 5, 0x04, 1024}, {7, 5, 0x04, 1536}, {6, 5, 0x04, 256}}},
      {"hp-lp2275w-dp", 128, true, {}},
      {"hp-lp2480zx-dp", 128, true, {}},
      {"hp-lp2480zx-hdmi", 256, true, {}},
      {"kogan-kaled24144f-dp", 256, true, {{1, 2, 0x07, 7}}},
      {"kogan-kaled24144f-hdmi", 256, true, {{1, 2, 0x07, 7}}},
      {"lg-32ud99-w-dp", 256, true, {{1, 2, 0x07, 7}}},
      {"lg-32ud99-w-hdmi", 256, true, {{1, 2, 0x07, 7}}},
      {"lg-55uh5c-hdmi", 256, true, {{7, 6, 0x06, 1536}, {2, 6, 0x07, 640}, {1, 2, 0x57, 7}}},
      {"lg-75uh5c-hdmi", 256, true, {{7, 6, 0x06, 1536}, {2, 6, 0x50, 640}, {1, 2, 0x57, 7}}},
      {"lg-88bh7d-hdmi", 256, true, {{7, 6, 0x06, 1536}, {2, 6, 0x07, 640}, {1, 2, 0x57, 7}}},
      {"lg-l206wu-usb-dvi", 128, true, {}},
      {"lg-oled-c9-hdmi", 256, true, {{1, 2, 0x57, 7}, {2, 6, 0x07, 640}, {10, 8, 0x07, 1}, {12, 8, 0x04, 3}, {7, 6, 0x1e, 1536}, {11, 8, 0x7e, 1}}},
      {"lg-oled-cx-hdmi", 256, true, {{1, 2, 0x57, 7}, {2, 6, 0x07, 640}, {10, 8, 0x07, 1}, {12, 8, 0x04, 3}}},
      {"lg-oled55b6v-hdmi", 256, true, {{7, 6, 0x06, 1536}, {2, 6, 0x07, 640}, {1, 2, 0x57, 7}}},
      {"lg-oled55b6v-hdmi-denon-avr-x2300w-hdmi", 256, true, {{1, 8, 0x7f, 7}, {7, 6, 0x1e, 1536}, {2, 6, 0x07, 640}, {11, 8, 0x7e, 3}, {10, 8, 0x06, 3}, {12, 8, 0x7e, 3}, {11, 8, 0x7e, 1}}},
      {"lg-oled55e6v-hdmi", 256, true, {{7, 6, 0x06, 1536}, {2, 6, 0x07, 640}, {1, 2, 0x57, 7}}},
      {"lg-ultrafine-5k-v2-thunderbolt-dp1-tile0", 384, false, {}},
      {"lg-ultrafine-5k-v2-thunderbolt-dp2-tile1", 256, true, {}},
      {"matrox-triplehead2go-dvi", 128, true, {}},
      {"oculus-rift-dk1-hdmi", 256, true, {}},
      {"samsung-qm65h-hdmi", 256, true, {{1, 2, 0x07, 7}}},
      {"samsung-qp82r-8k-hdmi4", 256, true, {{1, 2, 0x07, 7}, {2, 6, 0x07, 640}, {10, 8, 0x07, 0}}},
      {"samsung-ue40d8000yu-hmdi", 256, true, {{1, 2, 0x07, 7}}},
      {"samsung-ue40ku6070-hdmi", 256, true, {{1, 2, 0x07, 7}, {2, 6, 0x07, 640}, {7, 6, 0x04, 1536}}},
      {"samsung-ue48ju7090-hdmi", 256, true, {{1, 2, 0x07, 7}, {2, 6, 0x07, 640}, {7, 6, 0x04, 1536}}},
      {"samsung-ue49ks8005-hdmi", 256, true, {{1, 2, 0x07, 7}, {2, 6, 0x07, 640}, {7, 6, 0x04, 1536}}},
      {"samsung-ue55ks-hdmi", 256, true, {{1, 2, 0x07, 7}, {2, 6, 0x07, 640}, {7, 6, 0x04, 1536}}},
      {"sharp-aquos-hdmi", 256, true, {{1, 2, 0x07, 1}}},
      {"sharp-pn465-dvi", 256, true, {}},
      {"skyworth-50e780u-hdmi", 256, true, {{1, 2, 0x7f, 3}, {2, 2, 0x7f, 192}}},
      {"sony-kd55xd-hdmi", 256, true, {{1, 6, 0x7f, 7}, {2, 6, 0x07, 640}, {7, 6, 0x07, 1504}}},
  };
  return kCorpus;
}

std::string corpus_dir() { return std::string(am_test::kTestDataDir) + "/edid"; }

std::string case_name(const testing::TestParamInfo<CorpusCase>& info) {
  std::string name = info.param.file;
  for (char& c : name) {
    if (!isalnum(static_cast<unsigned char>(c))) {
      c = '_';
    }
  }
  return name;
}

class EdidCorpus : public testing::TestWithParam<CorpusCase> {
 protected:
  void SetUp() override {
    unsetenv(AM_ROOT_ENV);
    am_platform_reload();
  }
};

TEST_P(EdidCorpus, AudioListMatchesTheSinksDescriptors) {
  const CorpusCase& c = GetParam();
  const std::string path = corpus_dir() + "/" + c.file;
  ASSERT_EQ(edid_test::read_file(path).size(), c.size) << path;

  EdidParser parser;
  testing::internal::CaptureStdout();
  const int result = parser.init(path.c_str());
  const std::string out = testing::internal::GetCapturedStdout();
  ASSERT_EQ(result, c.valid ? 1 : 0);
  EXPECT_EQ(parser.isEdidVaild(), c.valid);

  T_Edid_Audio_Info info = edid_test::sentinel_info();
  parser.getEdidAudioInfo(&info);
  if (!c.valid) {
    EXPECT_NE(out.find("[ERROR] won't fit in edid"), std::string::npos) << out;
    const T_Edid_Audio_Info untouched = edid_test::sentinel_info();
    EXPECT_EQ(memcmp(&info, &untouched, sizeof(info)), 0);
    return;
  }
  EXPECT_NE(out.find("[INFO] EIDI data start"), std::string::npos);
  EXPECT_NE(out.find("[INFO] EIDI data end"), std::string::npos);
  ASSERT_EQ(info.u8AudioInfoNum, c.audio.size());
  for (size_t i = 0; i < c.audio.size(); ++i) {
    SCOPED_TRACE("entry " + std::to_string(i));
    const T_Audio_Info& got = info.ptAudioInfo[i];
    EXPECT_EQ(got.eAudioFomat, c.audio[i].format);
    EXPECT_EQ(got.u8MaxChannels, c.audio[i].channels);
    EXPECT_EQ(got.eSampleRateFlags, c.audio[i].rates);
    EXPECT_EQ(got.u8BitFlag, c.audio[i].flag);
  }
  for (size_t i = c.audio.size(); i < EDID_AUDIO_INFO_MAX_NUM; ++i) {
    const T_Audio_Info& got = info.ptAudioInfo[i];
    EXPECT_EQ(got.eAudioFomat | got.eSampleRateFlags | got.u8MaxChannels | got.u8BitFlag, 0u) << i;
  }
}

std::vector<CorpusCase> corpus_of_size(size_t size) {
  std::vector<CorpusCase> out;
  for (const CorpusCase& c : corpus()) {
    if (c.size == size) {
      out.push_back(c);
    }
  }
  return out;
}

// Every truncation of a real two-block EDID is refused except the bare base block, which is valid
// with an empty list.
class EdidCorpusTruncated : public EdidCorpus {};

TEST_P(EdidCorpusTruncated, OnlyWholeBlocksAreAccepted) {
  const CorpusCase& c = GetParam();
  const edid_test::Bytes bytes = edid_test::read_file(corpus_dir() + "/" + c.file);
  ASSERT_EQ(bytes.size(), 256u);
  for (size_t len = 0; len <= bytes.size(); ++len) {
    EdidParser parser;
    testing::internal::CaptureStdout();
    const int result = parser.init(edid_test::to_data(edid_test::Bytes(bytes.begin(), bytes.begin() + len)));
    testing::internal::GetCapturedStdout();
    const bool expect_valid = len == 128 || len == 256;
    ASSERT_EQ(result, expect_valid ? 1 : 0) << "length " << len;
    T_Edid_Audio_Info info = edid_test::sentinel_info();
    parser.getEdidAudioInfo(&info);
    if (len == 128) {
      EXPECT_EQ(info.u8AudioInfoNum, 0u);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(RealSinks, EdidCorpus, testing::ValuesIn(corpus()), case_name);
INSTANTIATE_TEST_SUITE_P(RealSinks, EdidCorpusTruncated, testing::ValuesIn(corpus_of_size(256)), case_name);

}  // namespace
