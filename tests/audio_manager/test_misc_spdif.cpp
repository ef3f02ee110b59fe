// S/PDIF receiver: a sparse file stands in for "/dev/mem"; the registers are written into it at
// the receiver's physical address and read back through the module's mapping.
#include "qb_audio_misc_private.h"
#include "qb_audio_misc_spdif.h"
#include "qb_audio_misc_stream.h"
#include "am_unit.h"

namespace am_unit {
namespace {

constexpr off_t kBase = 0x30090000;
constexpr uint32_t kNonAudio = 1u << 22;

uint32_t low_word(uint32_t rate_nibble, uint32_t word_nibble) { return (rate_nibble << 20) | (word_nibble << 12); }

class SpdifReceiver : public ::testing::Test {
 protected:
  void SetUp() override {
    mem_ = root_.at("/dev/mem");
    ASSERT_TRUE(root_.write("/dev/mem", ""));
    ASSERT_EQ(truncate(mem_.c_str(), kBase + 0x1000), 0);  // sparse: nothing but the receiver's page
    set_regs(0, low_word(4, 0xD));
  }
  void TearDown() override { qb_audio_misc_uninit(); }

  void set_regs(uint32_t high, uint32_t low) {
    const int fd = open(mem_.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(pwrite(fd, &high, 4, kBase + 0x1C), 4);
    ASSERT_EQ(pwrite(fd, &low, 4, kBase + 0x20), 4);
    close(fd);
  }
  qb_audio_info decode() {
    qb_audio_info rec;
    std::memset(&rec, 0xEE, sizeof rec);  // every field written
    EXPECT_EQ(qb_misc_nxp_spdif_register_map_unpdate(&rec), 1);
    return rec;
  }

  am_test::TempRoot root_{{"dev", "tmp"}};
  am_test::I2cFake bus_;
  std::string mem_;
};

TEST_F(SpdifReceiver, DecodesAndReportsEachChangeOnce) {
  ASSERT_EQ(qb_audio_misc_init(), 1);
  // Rate nibble 4, word-length nibble 0xD, non-audio bit clear: two-channel 48 kHz 24-bit LPCM.
  qb_audio_info rec = decode();
  const qb_audio_info expect = {1, 2, 2, 24, 2, 0, 0, 0, static_cast<qb_s8_t>(0x80), 1, {0x11, 0x0F, 0, 0, 0}, {0, 0, 2, 2, 0x0B}};
  EXPECT_EQ(std::memcmp(&rec, &expect, sizeof rec), 0);
  // The non-audio bit alone decides the type; the other bits of the high word do not matter.
  set_regs(kNonAudio, low_word(4, 0xD));
  rec = decode();
  EXPECT_EQ((Bytes{0x90, 1, 1}), (Bytes{static_cast<uint8_t>(rec.Audio_Type), static_cast<uint8_t>(rec.ChStat[1]), static_cast<uint8_t>(rec.AUD_DB[0])}));
  set_regs(0, low_word(2, 0xB));  // a rate nibble the receiver does not name: "not indicated"
  rec = decode();
  EXPECT_EQ((std::vector<int>{1, 0, 0x03}), (std::vector<int>{rec.SampleFrequency, rec.ChStat[3], static_cast<uint8_t>(rec.AUD_DB[1])}));

  // A change is reported once and stored; the stored record is zero until the first poll.
  set_regs(0, low_word(4, 0xD));
  EXPECT_EQ(qb_misc_audio_spdif_info_get()->Audio_On, 0);
  EXPECT_EQ(is_qb_misc_nxp_spdif_register_info_change(), 1);
  qb_audio_info stored;
  ASSERT_EQ(qb_misc_audio_spdif_info_copy(&stored), 1);
  EXPECT_EQ(stored.SampleFrequency, 2);
  EXPECT_EQ(is_qb_misc_nxp_spdif_register_info_change(), 0);

  set_regs(kNonAudio, low_word(0xC, 0xB));  // an unknown rate is logged on both readings
  EXPECT_EQ(is_qb_misc_nxp_spdif_register_info_change(), 1);
  qb_audio_net_stream_out5_start(QB_AUDIO_CHN_SPDIF), qb_audio_channel_state_copy(QB_AUDIO_CHN_NSO5, &stored);  // the third network output carries it
  EXPECT_EQ((std::vector<int>{0x90, 1, 0x90}), (std::vector<int>{static_cast<uint8_t>(qb_misc_audio_spdif_info_get()->Audio_Type), qb_misc_audio_spdif_info_get()->SampleFrequency, static_cast<uint8_t>(stored.Audio_Type)}));
  EXPECT_EQ(is_qb_misc_nxp_spdif_register_info_change(), 0);
}

TEST_F(SpdifReceiver, MappingReleasedAtStop) {
  ASSERT_EQ(qb_audio_misc_init(), 1);
  const int fd = qb_audio_misc_ctrl().spdif_mreg.fd;
  EXPECT_GT(fd, 0);
  EXPECT_EQ(qb_audio_misc_uninit(), 1);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);  // closed
  // The released mapping is not read any more.
  qb_audio_info rec;
  EXPECT_EQ(qb_misc_nxp_spdif_register_map_unpdate(&rec), 0);
  EXPECT_EQ(is_qb_misc_nxp_spdif_register_info_change(), 0);
  // A descriptor opened meanwhile (it may reuse the number) is not closed by a second stop.
  const int other = open(mem_.c_str(), O_RDONLY);
  ASSERT_GE(other, 0);
  EXPECT_EQ(qb_audio_misc_uninit(), 1);
  ASSERT_EQ(qb_audio_misc_init(), 1);
  EXPECT_NE(fcntl(other, F_GETFD), -1);
  close(other);
  EXPECT_EQ(is_qb_misc_nxp_spdif_register_info_change(), 1);
}

}  // namespace
}  // namespace am_unit
