// Packet-loss statistics: the per-second records of each stream.
#include "am_unit.h"
#include "audio_packet_loss_statistics.h"

namespace am_unit {
namespace {

std::atomic<qb_s64_t> g_now{1000};
qb_s64_t fake_clock() { return g_now.load(); }

class PacketLoss : public ::testing::Test {
 protected:
  void SetUp() override { g_now = 1000, audio_loss_set_clock(fake_clock), audio_loss_info_reset(); }
  void TearDown() override { audio_loss_set_clock(nullptr), audio_loss_info_reset(); }
  static AUDIO_LOSS_INFO_T info(int chn) {
    AUDIO_LOSS_INFO_T out{};
    EXPECT_EQ(audio_loss_info_get(chn, &out), 0);
    return out;
  }
};

TEST_F(PacketLoss, RecordsPerSecondRingAndRefusals) {
  for (auto [chn, bytes] : std::vector<std::pair<int, int>>{{3, 10}, {-1, 10}, {0, -1}, {2, -1000}}) EXPECT_EQ(set_audio_loss_info(chn, bytes), -1) << chn << "," << bytes;
  // Losses of one second share a slot.
  EXPECT_EQ(set_audio_loss_info(1, 1000) + set_audio_loss_info(1, 500), 0);
  AUDIO_LOSS_INFO_T i = info(1);
  EXPECT_EQ((std::vector<long long>{1, 1000, 1500, 1500}),
            (std::vector<long long>{i.idx, i.stLostInfo[0].lossTime, i.stLostInfo[0].lossBytes, static_cast<long long>(i.lossBytesTotal)}));
  EXPECT_EQ(info(0).lossBytesTotal + info(2).lossBytesTotal, 0u);
  // 61 distinct seconds: the first second's slot now holds the 61st; the total counts all (10 + 11 + ... + 70).
  for (int s = 0; s < 61; ++s) {
    g_now = 2000 + s;
    ASSERT_EQ(set_audio_loss_info(0, 10 + s), 0);
  }
  i = info(0);
  EXPECT_EQ((std::vector<long long>{1, 2060, 70, 2001, 2440}), (std::vector<long long>{i.idx, i.stLostInfo[0].lossTime, i.stLostInfo[0].lossBytes,
                                                                                        i.stLostInfo[1].lossTime, static_cast<long long>(i.lossBytesTotal)}));
  // A second's count saturates instead of wrapping.
  EXPECT_EQ(set_audio_loss_info(2, 0x7FFFFFF0) + set_audio_loss_info(2, 0x100), 0);
  EXPECT_EQ((std::pair<long long, uint64_t>{info(2).stLostInfo[0].lossBytes, info(2).lossBytesTotal}), (std::pair<long long, uint64_t>{0x7FFFFFFF, 0x7FFFFFF0ull + 0x100ull}));
}

}  // namespace
}  // namespace am_unit
