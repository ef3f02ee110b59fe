// Packet-loss statistics: the per-second records, the ten-second window, the published file and
// its failure paths, the drop event and its TLV message.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "am_test_env.h"
#include "audio_packet_loss_statistics.h"
#include "qb_tlv_box.h"
#include "test_frame_log_capture.h"

namespace {

std::atomic<qb_s64_t> g_now{1000};
qb_s64_t fake_clock() { return g_now.load(); }

using am_test_frame::LogCapture;

std::string expected_text(uint64_t in0, uint64_t t0, uint64_t in1, uint64_t t1, uint64_t in2,
                          uint64_t t2) {
  return "{\"audioDropInfo\":{\"stream0\":{\"bytesDropIn10\":" + std::to_string(in0) +
         ",\"bytesDropTotal\":" + std::to_string(t0) + "},\"stream1\":{\"bytesDropIn10\":" +
         std::to_string(in1) + ",\"bytesDropTotal\":" + std::to_string(t1) +
         "},\"stream2\":{\"bytesDropIn10\":" + std::to_string(in2) +
         ",\"bytesDropTotal\":" + std::to_string(t2) + "}}}";
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
    std::memset(&out, 0, sizeof(out));
    EXPECT_EQ(audio_loss_info_get(chn, &out), 0);
    return out;
  }
};

TEST_F(PacketLoss, RecordsPerSecondRingAndRefusals) {
  LogCapture log;
  const int bad[][2] = {{3, 10}, {-1, 10}, {0, -1}, {2, -1000}};
  for (const auto& c : bad) EXPECT_EQ(set_audio_loss_info(c[0], c[1]), -1) << c[0] << "," << c[1];
  EXPECT_EQ(log.count("invalid chn:3 bytes:10 --["), 1);
  EXPECT_EQ(log.count("invalid chn:0 bytes:-1 --["), 1);
  for (int chn = 0; chn < AUDIO_LOSS_STREAMS; ++chn) EXPECT_EQ(info(chn).lossBytesTotal, 0u);
  AUDIO_LOSS_INFO_T out;
  EXPECT_EQ(audio_loss_info_get(3, &out), -1);

  // Losses of one second share a slot.
  EXPECT_EQ(set_audio_loss_info(1, 1000), 0);
  EXPECT_EQ(set_audio_loss_info(1, 500), 0);
  AUDIO_LOSS_INFO_T i = info(1);
  EXPECT_EQ(i.idx, 1);
  EXPECT_EQ(i.stLostInfo[0].lossTime, 1000);
  EXPECT_EQ(i.stLostInfo[0].lossBytes, 1500);
  EXPECT_EQ(i.lossBytesTotal, 1500u);
  EXPECT_EQ(info(0).lossBytesTotal + info(2).lossBytesTotal, 0u);

  // 61 distinct seconds: the first second's slot now holds the 61st; the total counts all.
  uint64_t total = 0;
  for (int s = 0; s < 61; ++s) {
    g_now = 2000 + s;
    ASSERT_EQ(set_audio_loss_info(0, 10 + s), 0);
    total += static_cast<uint64_t>(10 + s);
  }
  i = info(0);
  EXPECT_EQ(i.idx, 1);
  EXPECT_EQ(i.stLostInfo[0].lossTime, 2060);
  EXPECT_EQ(i.stLostInfo[0].lossBytes, 70);
  EXPECT_EQ(i.stLostInfo[1].lossTime, 2001);
  EXPECT_EQ(i.lossBytesTotal, total);

  // A second's count saturates instead of wrapping.
  EXPECT_EQ(set_audio_loss_info(2, 0x7FFFFFF0), 0);
  EXPECT_EQ(set_audio_loss_info(2, 0x100), 0);
  EXPECT_EQ(info(2).stLostInfo[0].lossBytes, 0x7FFFFFFF);
  EXPECT_EQ(info(2).lossBytesTotal, 0x7FFFFFF0ull + 0x100ull);
}

TEST_F(PacketLoss, FileAndTheTenSecondWindow) {
  am_test::TempRoot root({"tmp"});
  ASSERT_TRUE(root.ok());
  const std::string file = root.at("/tmp/pktdrop.json");
  // Without losses the first check creates the file; later checks leave it alone.
  EXPECT_EQ(check_drop_status(), 0);
  EXPECT_EQ(am_test::read_file(file), expected_text(0, 0, 0, 0, 0, 0));
  ASSERT_TRUE(root.write("/tmp/pktdrop.json", "kept"));
  ASSERT_EQ(set_audio_loss_info(0, 0), 0);  // a zero-byte loss does not count
  EXPECT_EQ(check_drop_status(), 0);
  EXPECT_EQ(am_test::read_file(file), "kept");

  ASSERT_EQ(set_audio_loss_info(1, 1000), 0);
  ASSERT_EQ(set_audio_loss_info(1, 500), 0);
  ASSERT_EQ(set_audio_loss_info(2, 7), 0);
  EXPECT_EQ(check_drop_status(), 1);
  EXPECT_EQ(am_test::read_file(file), expected_text(0, 0, 1500, 1500, 7, 7));
  g_now = 1005;
  ASSERT_EQ(set_audio_loss_info(2, 3), 0);
  g_now = 1010;  // the loss at 1000 is ten seconds old: still in the window
  EXPECT_EQ(check_drop_status(), 1);
  EXPECT_EQ(am_test::read_file(file), expected_text(0, 0, 1500, 1500, 10, 10));
  g_now = 1011;  // eleven seconds: out; the loss at 1005 still counts
  EXPECT_EQ(check_drop_status(), 1);
  EXPECT_EQ(am_test::read_file(file), expected_text(0, 0, 0, 1500, 3, 10));
  g_now = 1016;  // nothing left in the window: the last text stays visible
  EXPECT_EQ(check_drop_status(), 0);
  EXPECT_EQ(am_test::read_file(file), expected_text(0, 0, 0, 1500, 3, 10));
  struct stat st;
  EXPECT_EQ(stat(root.at("/tmp/pktdrop.lock").c_str(), &st), 0);
  EXPECT_NE(stat(root.at("/tmp/pktdrop.json.tmp").c_str(), &st), 0);  // renamed away
}

struct FailCase {
  const char* name;
  const char* blocker;  // board path made a folder (or nullptr: no /tmp at all)
  const char* log;
};

TEST_F(PacketLoss, FileFailuresAreLoggedAndKeepThePreviousFile) {
  const FailCase cases[] = {
      {"no /tmp", nullptr, "pktdrop.lock err"},
      {"lock file is a folder", "/tmp/pktdrop.lock", "pktdrop.lock err"},
      {"temporary file is a folder", "/tmp/pktdrop.json.tmp", "pktdrop.json.tmp err"},
      {"file is a non-empty folder", "/tmp/pktdrop.json", "rename "},
  };
  for (const FailCase& c : cases) {
    SCOPED_TRACE(c.name);
    am_test::TempRoot root(c.blocker ? std::vector<std::string>{"tmp"} : std::vector<std::string>{});
    ASSERT_TRUE(root.ok());
    if (c.blocker != nullptr) {
      ASSERT_TRUE(am_test::make_dirs(root.at(c.blocker) + "/inside"));
    }
    if (c.blocker != nullptr && std::string(c.blocker) != "/tmp/pktdrop.json") {
      ASSERT_TRUE(root.write("/tmp/pktdrop.json", "previous"));
    }
    LogCapture log;
    EXPECT_EQ(write_file("new"), -1);
    EXPECT_GE(log.count(c.log), 1);
    if (c.blocker != nullptr && std::string(c.blocker) != "/tmp/pktdrop.json") {
      EXPECT_EQ(am_test::read_file(root.at("/tmp/pktdrop.json")), "previous");
    }
    // A cycle that cannot write its file reports nothing.
    ASSERT_EQ(set_audio_loss_info(0, 100), 0);
    EXPECT_EQ(check_drop_status(), 0);
    EXPECT_EQ(audio_loss_cycle(), 0);
  }
  EXPECT_EQ(write_file(nullptr), -1);
}

TEST_F(PacketLoss, EventTextAndEmptyEvent) {
  const std::string event = get_audio_drop_event();
  const std::string head = "{\"eventType\":\"DETAILS_CHANGED\",\"timeStamp\":";
  const std::string tail = ",\"requestUrl\":\"/api/v1/details/audio/pktDrop\"}";
  ASSERT_GT(event.size(), head.size() + tail.size()) << event;
  EXPECT_EQ(event.substr(0, head.size()), head);
  EXPECT_EQ(event.substr(event.size() - tail.size()), tail);
  const std::string stamp = event.substr(head.size(), event.size() - head.size() - tail.size());
  EXPECT_EQ(stamp.find_first_not_of("0123456789"), std::string::npos) << stamp;
  EXPECT_NEAR(std::stod(stamp), static_cast<double>(time(nullptr)), 5.0);
  EXPECT_EQ(report_audio_drop_msg(""), 0);  // nothing to send
  EXPECT_EQ(report_audio_drop_msg(nullptr), 0);
}

TEST_F(PacketLoss, ConcurrentRecordsAndChecksKeepExactTotals) {
  am_test::TempRoot root({"tmp"});
  ASSERT_TRUE(root.ok());
  constexpr int kLosses = 20000;
  std::vector<std::thread> receivers;
  for (int chn = 0; chn < AUDIO_LOSS_STREAMS; ++chn) {
    receivers.emplace_back([chn] {
      for (int n = 0; n < kLosses; ++n) {
        set_audio_loss_info(chn, 1 + chn);
      }
    });
  }
  std::atomic<bool> done{false};
  std::thread checker([&] {
    while (!done) {
      g_now.fetch_add(1);
      check_drop_status();
    }
  });
  for (std::thread& t : receivers) {
    t.join();
  }
  done = true;
  checker.join();
  for (int chn = 0; chn < AUDIO_LOSS_STREAMS; ++chn) {
    EXPECT_EQ(info(chn).lossBytesTotal, static_cast<uint64_t>(kLosses) * static_cast<uint64_t>(1 + chn));
  }
}

// Needs root and network namespaces: the event goes to the daemon's report port 9995.
TEST_F(PacketLoss, CycleWithLossesSendsOneEventMessage) {
  if (!am_test::have_netns()) {
    GTEST_SKIP() << "needs root and network namespaces (receives on 127.0.0.1:9995 in its own namespace)";
  }
  am_test::TempRoot root({"tmp"});
  ASSERT_TRUE(root.ok());
  am_test::NetNs ns;
  ASSERT_TRUE(ns.ok());
  const int rc = ns.run([&] {
    am_test::UdpReceiver cmd_core(AUDIO_LOSS_REPORT_PORT);
    if (!cmd_core.ok()) {
      return 10;
    }
    LogCapture log;
    set_audio_loss_info(1, 1000);
    set_audio_loss_info(1, 500);
    if (audio_loss_cycle() != 1 || log.count("report audio drop event --[") != 1 ||
        log.count("Send Msg To cmd_core port:[9995]-[{\"eventType\":\"DETAILS_CHANGED\"") != 1) {
      return 11;
    }
    if (am_test::read_file(root.at("/tmp/pktdrop.json")) != expected_text(0, 0, 1500, 1500, 0, 0)) {
      return 12;
    }
    std::vector<uint8_t> datagram;
    if (!cmd_core.receive(&datagram, 5000)) {
      return 13;
    }
    // Outer object item of type 2 holding the string item 0x40503 with its terminator.
    tlv_box_t* outer = tlv_box_parse(datagram.data(), static_cast<qb_s32_t>(datagram.size()));
    tlv_box_t* inner = nullptr;
    char text[256] = {};
    qb_s32_t len = sizeof(text);
    const bool ok = outer != nullptr && tlv_box_get_object(outer, 2, &inner) == 0 &&
                    tlv_box_get_string(inner, 0x40503, text, &len) == 0 &&
                    std::string(text).find("\"requestUrl\":\"/api/v1/details/audio/pktDrop\"") != std::string::npos &&
                    len == static_cast<qb_s32_t>(std::strlen(text) + 1);
    if (inner != nullptr) tlv_box_destroy(inner);
    if (outer != nullptr) tlv_box_destroy(outer);
    if (!ok) {
      return 14;
    }
    // The window still holds the loss: the next cycle reports again; none once it has passed.
    if (audio_loss_cycle() != 1 || !cmd_core.receive(&datagram, 5000)) {
      return 16;
    }
    g_now += 11;
    if (audio_loss_cycle() != 0 || cmd_core.receive(&datagram, 300)) {
      return 17;
    }
    return 0;
  });
  EXPECT_EQ(rc, 0) << "10 bind 9995, 11 cycle/logs, 12 file, 13 no datagram, 14 message items, "
                      "16 second report, 17 report without losses";
}

}  // namespace
