// Channel table: count and rate, compare, code tables, the debug dump, and whole-record copies
// while other threads write.
#include <atomic>
#include <thread>

#include "am_unit.h"
#include "qb_audio_misc_private.h"
#include "qb_audio_misc_stream.h"
#include "qb_audio_stream.h"

namespace am_unit {
namespace {

const qb_audio_info kDefault = {1, 2, 2, 24, 2, 0, 0, 0, static_cast<qb_s8_t>(0x80), 0, {0x11, 0x0F, 0, 0, 0}, {0, 0, 2, 2, 0x0B}};

using ChannelTable = RoutingTest;

TEST_F(ChannelTable, CountRateResetAndCompare) {
  int n = 99, hz = 12345;
  qb_audio_info rec = make_record(3, 3, 0x80);  // 32 kHz, 3 channels
  qb_audio_channel_state_set(1, &rec);
  EXPECT_EQ((std::vector<int>{0, 2, 0, 12345}), (std::vector<int>{qb_audio_channel_state_validch_get(1, &n), n, qb_audio_channel_state_samplefreq_get(1, &hz), hz}));
  rec = make_record(12, 6, 0x80);
  qb_audio_channel_state_set(1, &rec);
  EXPECT_EQ((std::vector<int>{1, 6, 1, 176400}), (std::vector<int>{qb_audio_channel_state_validch_get(1, &n), n, qb_audio_channel_state_samplefreq_get(1, &hz), hz}));
  ASSERT_EQ(qb_audio_channel_state_reset(1), 0);
  EXPECT_EQ(record(1).ChStat[2], 0);
  qb_audio_info a = make_record(14, 8, 0xC0), b = a;
  b.AUD_DB[3] = 0x13;
  EXPECT_EQ(cmp_aiinfo(&a, &b), 0);  // InfoFrame bytes ignored for HBR
  a.Audio_Type = b.Audio_Type = static_cast<qb_s8_t>(0x80);
  EXPECT_EQ(cmp_aiinfo(&a, &b), 1);
}

TEST(ChannelCodes, FrequencyRateMaskAndTypeTables) {
  const int freq[][3] = {{5, 4, 48000}, {1, 4, 22050}, {1, 14, 192000}, {5, 7, 192000}, {5, 2, 0}, {3, 1, 0}};
  for (const auto& c : freq) EXPECT_EQ(get_sample_frequency(c[0], c[1]), c[2]) << c[0] << "," << c[1];
  EXPECT_EQ(get_audio_samplerate1(14) * 10 + get_audio_samplerate1(1), 644);  // 192 kHz; an unknown code counts as 48 kHz
  const int types[][2] = {{-1, 0}, {0, 6}, {1, 6}, {2, 2}, {3, 10}, {4, 12}, {5, 10}, {10, 10}, {11, 7}, {15, 7}, {16, 11}, {40, 11}, {41, 0}};
  for (const auto& c : types) EXPECT_EQ(get_audio_type(c[0]), c[1]) << c[0];
}

TEST_F(ChannelTable, DumpLinesStatusDumpAndPrintout) {
  qb_msic_net_stream_in_earc_set(5), qb_msic_net_stream_in_hdmi_set(4), qb_net_second_stream_select_set(5), qb_net_third_stream_select_set(7);  // the last: no such source
  const std::string path = root.at("/tmp/dump.txt");
  FILE* fp = std::fopen(path.c_str(), "w");
  ASSERT_NE(fp, nullptr);
  dump_misc_param(fp);
  dump_misc_param(nullptr);
  std::fclose(fp);
  std::vector<std::string> lines;
  std::istringstream text(am_test::read_file(path));
  for (std::string l; std::getline(text, l);) lines.push_back(l);
  ASSERT_EQ(lines.size(), 27u);
  EXPECT_EQ(lines[0], "dump misc param begin");
  EXPECT_EQ(lines[1], "chn:[analog][1],Audio_On:1,SampleFrequency:48000,ValidCh:2,SampleSize:24,io_in_use:2,"
                      "enable_upstream:0,DownSampling:0,Mode16bits:0,Audio_Type:128,bSPDIF:0,"
                      "aud_db-0x[11-0f-00-00-00]chn stat-0x[00-00-02-02-0b]");
  EXPECT_EQ(lines[14], "nsi analog<--UNKNOWN:0  hdmi<--sai1:4  earc<--sai3:5  spdif<--UNKNOWN:0");
  EXPECT_EQ(lines[21], "ipadd sao5: deviceid:");
  EXPECT_EQ(lines[22], "net_stream first:[hdmi][1] second:[dsp][5] third:[unknown][7]");
  EXPECT_EQ(lines[24], "spdif fd:0 mmap:(nil) ");  // no receiver mapping in this test
  EXPECT_EQ(lines[26], "");

  qb_audio_info rec = make_record(2, 2, 0x80);
  rec.ChStat[4] = 0x0B;
  testing::internal::CaptureStdout();
  channel_stat_printf(&rec);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "\n01 02 02 18 02 00 00 00 80 00 00 00 00 00 00 00 \n00 00 00 0b \n");
}

TEST_F(ChannelTable, ReadersSeeWholeRecordsAndAddressesWhileOthersWrite) {
  // Engine, command and debug threads write and dump: every copy read here is one record (or text) whole.
  const qb_audio_info a = make_record(2, 2, 0x80);
  qb_audio_info b = make_record(14, 8, 0xC0, 1);
  std::memset(b.AUD_DB, 0x55, sizeof b.AUD_DB);
  const std::string addr_a = "234.48.0.1", addr_b = "234.63.255.254";
  std::atomic<bool> stop{false};
  std::thread engine([&] {
    for (int i = 0; !stop.load(); ++i) {
      qb_audio_channel_state_store(6, (i & 1) ? &a : &b);
      qb_audio_channel_state_reset(12);
      is_qb_audio_output_mute_from_ch(12);
    }
  });
  std::thread command([&] {
    for (int i = 0; !stop.load(); ++i) {
      qb_misc_net_stream_in1_ipaddr_set(((i & 1) ? addr_a : addr_b).c_str());
      if (i % 64 == 0) qb_audio_net_stream_out5_start(1);
    }
  });
  FILE* devnull = std::fopen("/dev/null", "w");
  ASSERT_NE(devnull, nullptr);
  std::thread debug([&] { for (int i = 0; i < 3; ++i) dump_misc_param(devnull); });
  int torn = 0;
  for (int i = 0; i < 20000; ++i) {
    qb_audio_info got;
    qb_audio_channel_state_copy(6, &got);
    torn += (std::memcmp(&got, &a, sizeof got) != 0 && std::memcmp(&got, &b, sizeof got) != 0 &&
             std::memcmp(&got, &kDefault, sizeof got) != 0);
    const std::string text = qb_misc_net_stream_in1_ipaddr_get();
    torn += (text != addr_a && text != addr_b && !text.empty());
  }
  debug.join();
  stop.store(true);
  engine.join(), command.join();
  std::fclose(devnull);
  EXPECT_EQ(torn, 0);
}

}  // namespace
}  // namespace am_unit
