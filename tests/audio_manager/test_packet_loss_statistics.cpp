// Packet-loss statistics: the per-second records, the ten-second window, the published file and
// its failure paths, and the drop event sent to cmd_core.
#include <atomic>
#include <thread>

#include "am_unit.h"
#include "audio_packet_loss_statistics.h"
#include "qb_tlv_box.h"

namespace am_unit {
namespace {

std::atomic<qb_s64_t> g_now{1000};
qb_s64_t fake_clock() { return g_now.load(); }

std::string expected_text(uint64_t in0, uint64_t t0, uint64_t in1, uint64_t t1, uint64_t in2, uint64_t t2) {
  const uint64_t v[3][2] = {{in0, t0}, {in1, t1}, {in2, t2}};
  std::string s = "{\"audioDropInfo\":{";
  for (int i = 0; i < 3; ++i) {
    s += std::string(i ? "," : "") + "\"stream" + std::to_string(i) + "\":{\"bytesDropIn10\":" + std::to_string(v[i][0]) +
         ",\"bytesDropTotal\":" + std::to_string(v[i][1]) + "}";
  }
  return s + "}}";
}

class PacketLoss : public ::testing::Test {
 protected:
  void SetUp() override {
    g_now = 1000;
    audio_loss_set_clock(fake_clock);
    audio_loss_info_reset();
  }
  void TearDown() override {
    audio_loss_set_clock(nullptr);
    audio_loss_info_reset();
  }
  static AUDIO_LOSS_INFO_T info(int chn) {
    AUDIO_LOSS_INFO_T out;
    std::memset(&out, 0, sizeof out);
    EXPECT_EQ(audio_loss_info_get(chn, &out), 0);
    return out;
  }
};

TEST_F(PacketLoss, RecordsPerSecondRingAndRefusals) {
  const int bad[][2] = {{3, 10}, {-1, 10}, {0, -1}, {2, -1000}};
  for (const auto& c : bad) EXPECT_EQ(set_audio_loss_info(c[0], c[1]), -1) << c[0] << "," << c[1];
  for (int chn = 0; chn < AUDIO_LOSS_STREAMS; ++chn) EXPECT_EQ(info(chn).lossBytesTotal, 0u);
  AUDIO_LOSS_INFO_T out;
  EXPECT_EQ(audio_loss_info_get(3, &out), -1);
  // Losses of one second share a slot.
  EXPECT_EQ(set_audio_loss_info(1, 1000), 0);
  EXPECT_EQ(set_audio_loss_info(1, 500), 0);
  AUDIO_LOSS_INFO_T i = info(1);
  EXPECT_EQ((std::vector<long long>{1, 1000, 1500, 1500}),
            (std::vector<long long>{i.idx, i.stLostInfo[0].lossTime, i.stLostInfo[0].lossBytes,
                                    static_cast<long long>(i.lossBytesTotal)}));
  EXPECT_EQ(info(0).lossBytesTotal + info(2).lossBytesTotal, 0u);
  // 61 distinct seconds: the first second's slot now holds the 61st; the total counts all.
  uint64_t total = 0;
  for (int s = 0; s < 61; ++s) {
    g_now = 2000 + s;
    ASSERT_EQ(set_audio_loss_info(0, 10 + s), 0);
    total += static_cast<uint64_t>(10 + s);
  }
  i = info(0);
  EXPECT_EQ((std::vector<long long>{1, 2060, 70, 2001}),
            (std::vector<long long>{i.idx, i.stLostInfo[0].lossTime, i.stLostInfo[0].lossBytes, i.stLostInfo[1].lossTime}));
  EXPECT_EQ(i.lossBytesTotal, total);
  // A second's count saturates instead of wrapping.
  EXPECT_EQ(set_audio_loss_info(2, 0x7FFFFFF0), 0);
  EXPECT_EQ(set_audio_loss_info(2, 0x100), 0);
  EXPECT_EQ(info(2).stLostInfo[0].lossBytes, 0x7FFFFFFF);
  EXPECT_EQ(info(2).lossBytesTotal, 0x7FFFFFF0ull + 0x100ull);
}

TEST_F(PacketLoss, FileAndTheTenSecondWindow) {
  am_test::TempRoot root({"tmp"});
  const std::string file = root.at("/tmp/pktdrop.json");
  EXPECT_EQ(check_drop_status(), 0);  // without losses the first check creates the file ...
  EXPECT_EQ(am_test::read_file(file), expected_text(0, 0, 0, 0, 0, 0));
  ASSERT_TRUE(root.write("/tmp/pktdrop.json", "kept"));
  ASSERT_EQ(set_audio_loss_info(0, 0), 0);  // ... later ones leave it; a zero-byte loss does not count
  EXPECT_EQ(check_drop_status(), 0);
  EXPECT_EQ(am_test::read_file(file), "kept");
  ASSERT_EQ(set_audio_loss_info(1, 1000), 0);
  ASSERT_EQ(set_audio_loss_info(1, 500), 0);
  ASSERT_EQ(set_audio_loss_info(2, 7), 0);
  EXPECT_EQ(check_drop_status(), 1);
  EXPECT_EQ(am_test::read_file(file), expected_text(0, 0, 1500, 1500, 7, 7));
  g_now = 1005;
  ASSERT_EQ(set_audio_loss_info(2, 3), 0);
  struct Step { qb_s64_t now; int result; std::string text; };
  const Step steps[] = {{1010, 1, expected_text(0, 0, 1500, 1500, 10, 10)},  // ten seconds old: still in
                        {1011, 1, expected_text(0, 0, 0, 1500, 3, 10)},      // eleven: out
                        {1016, 0, expected_text(0, 0, 0, 1500, 3, 10)}};     // empty window: last text stays
  for (const Step& s : steps) {
    g_now = s.now;
    EXPECT_EQ(check_drop_status(), s.result) << s.now;
    EXPECT_EQ(am_test::read_file(file), s.text) << s.now;
  }
  struct stat st;
  EXPECT_EQ(stat(root.at("/tmp/pktdrop.lock").c_str(), &st), 0);
  EXPECT_NE(stat(root.at("/tmp/pktdrop.json.tmp").c_str(), &st), 0);  // renamed away
}

TEST_F(PacketLoss, FileFailuresKeepThePreviousFileAndReportNothing) {
  const char* blockers[] = {nullptr /* no /tmp */, "/tmp/pktdrop.lock", "/tmp/pktdrop.json.tmp", "/tmp/pktdrop.json"};
  for (const char* blocker : blockers) {
    SCOPED_TRACE(blocker ? blocker : "no /tmp");
    am_test::TempRoot root(blocker ? std::vector<std::string>{"tmp"} : std::vector<std::string>{});
    const bool previous = blocker != nullptr && std::string(blocker) != "/tmp/pktdrop.json";
    ASSERT_TRUE(blocker == nullptr || am_test::make_dirs(root.at(blocker) + "/inside"));
    ASSERT_TRUE(!previous || root.write("/tmp/pktdrop.json", "previous"));
    EXPECT_EQ(write_file("new"), -1);
    EXPECT_EQ(am_test::read_file(root.at("/tmp/pktdrop.json")), previous ? "previous" : "");
    ASSERT_EQ(set_audio_loss_info(0, 100), 0);
    EXPECT_EQ(check_drop_status(), 0);
    EXPECT_EQ(audio_loss_cycle(), 0);
  }
  EXPECT_EQ(write_file(nullptr), -1);
  EXPECT_EQ(get_audio_drop_event().rfind("{\"eventType\":\"DETAILS_CHANGED\",\"timeStamp\":", 0), 0u);
  EXPECT_EQ(report_audio_drop_msg(""), 0);
  EXPECT_EQ(report_audio_drop_msg(nullptr), 0);
}

TEST_F(PacketLoss, ConcurrentRecordsAndChecksKeepExactTotals) {
  am_test::TempRoot root({"tmp"});
  constexpr int kLosses = 20000;
  std::vector<std::thread> receivers;
  for (int chn = 0; chn < AUDIO_LOSS_STREAMS; ++chn) {
    receivers.emplace_back([chn] {
      for (int n = 0; n < kLosses; ++n) set_audio_loss_info(chn, 1 + chn);
    });
  }
  std::atomic<bool> done{false};
  std::thread checker([&] {
    while (!done) {
      g_now.fetch_add(1);
      check_drop_status();
    }
  });
  for (std::thread& t : receivers) t.join();
  done = true;
  checker.join();
  for (int chn = 0; chn < AUDIO_LOSS_STREAMS; ++chn) EXPECT_EQ(info(chn).lossBytesTotal, kLosses * (1u + chn));
}

// The event goes to the daemon's report port 9995 (its own namespace).
TEST_F(PacketLoss, CycleWithLossesSendsOneEventMessage) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  am_test::TempRoot root({"tmp"});
  am_test::NetNs ns;
  ASSERT_TRUE(ns.ok());
  const int rc = ns.run([&] {
    am_test::UdpReceiver cmd_core(AUDIO_LOSS_REPORT_PORT);
    if (!cmd_core.ok()) return 10;
    set_audio_loss_info(1, 1000);
    set_audio_loss_info(1, 500);
    if (audio_loss_cycle() != 1) return 11;
    if (am_test::read_file(root.at("/tmp/pktdrop.json")) != expected_text(0, 0, 1500, 1500, 0, 0)) return 12;
    Bytes datagram;
    if (!cmd_core.receive(&datagram, 5000)) return 13;
    // Outer object item of type 2 holding the string item 0x40503 with its terminator.
    tlv_box_t* outer = tlv_box_parse(datagram.data(), static_cast<qb_s32_t>(datagram.size()));
    tlv_box_t* inner = nullptr;
    char text[256] = {};
    qb_s32_t len = sizeof text;
    const bool ok = outer != nullptr && tlv_box_get_object(outer, 2, &inner) == 0 &&
                    tlv_box_get_string(inner, 0x40503, text, &len) == 0 && len == static_cast<qb_s32_t>(std::strlen(text) + 1);
    if (inner != nullptr) tlv_box_destroy(inner);
    if (outer != nullptr) tlv_box_destroy(outer);
    const std::string event(text);
    const std::string head = "{\"eventType\":\"DETAILS_CHANGED\",\"timeStamp\":";
    const std::string tail = ",\"requestUrl\":\"/api/v1/details/audio/pktDrop\"}";
    if (!ok || event.size() <= head.size() + tail.size() || event.compare(0, head.size(), head) != 0 ||
        event.compare(event.size() - tail.size(), tail.size(), tail) != 0) {
      return 14;
    }
    const std::string stamp = event.substr(head.size(), event.size() - head.size() - tail.size());
    if (stamp.find_first_not_of("0123456789") != std::string::npos || std::abs(std::stol(stamp) - time(nullptr)) > 5) {
      return 15;
    }
    // The window still holds the loss: the next cycle reports again; none once it has passed.
    if (audio_loss_cycle() != 1 || !cmd_core.receive(&datagram, 5000)) return 16;
    g_now += 11;
    if (audio_loss_cycle() != 0 || cmd_core.receive(&datagram, 300)) return 17;
    return 0;
  });
  EXPECT_EQ(rc, 0) << "10 bind 9995, 11 cycle, 12 file, 13 no datagram, 14 message items, 15 time stamp, "
                      "16 second report, 17 report without losses";
}

}  // namespace
}  // namespace am_unit
