// The daemon end to end over its command socket: started under a temporary board root in its own
// network namespace, with fake peers on the loopback ports of the bridge services (8380, 8382),
// the video processor (9991), the scaler (8370) and cmd_core's report port (9995). Commands go in
// as real datagrams; the test watches the emulated FPGA register file and its transfer log, the
// codec program's recorded arguments, the bytes every peer receives and the JSON reports.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "am_test_env.h"
#include "am_test_paths.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr int kCmdPort = 9994;
constexpr int kIt6620Port = 8380;
constexpr int kIt6621Port = 8382;
constexpr int kAvpPort = 9991;
constexpr int kMdinPort = 8370;
constexpr int kReportPort = 9995;
constexpr int kFpga = 0x48;
constexpr int kSet = 2;
constexpr int kGet = 1;
constexpr int kNotify = 3;
constexpr int kExpectMs = 5000;
constexpr int kQuietMs = 300;

Bytes cat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
Bytes words(std::initializer_list<uint32_t> values) {
  Bytes out;
  for (uint32_t v : values) {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&v);
    out.insert(out.end(), p, p + 4);
  }
  return out;
}
Bytes le32(uint32_t v) { return words({v}); }
Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }
// A 16-byte MAC field.
Bytes mac_field(const std::string& mac) {
  Bytes b = text(mac);
  b.resize(16, 0);
  return b;
}
// {outer: {key: value}} as the daemon's peers receive it.
Bytes tlv_message(int32_t outer, int32_t key, const Bytes& value) {
  return cat(words({static_cast<uint32_t>(outer), static_cast<uint32_t>(8 + value.size()),
                    static_cast<uint32_t>(key), static_cast<uint32_t>(value.size())}),
             value);
}
// A channel information payload: channel id and a 20-byte format record (audio on, 24 bits).
Bytes channel_note(int32_t ch, int sf, int validch, int type) {
  Bytes rec(20, 0);
  rec[0] = 1;
  rec[1] = static_cast<uint8_t>(sf);
  rec[2] = static_cast<uint8_t>(validch);
  rec[3] = 24;
  rec[4] = 2;
  rec[8] = static_cast<uint8_t>(type);
  return cat(le32(static_cast<uint32_t>(ch)), rec);
}
std::string entry(const std::string& port, int channels, int hz) {
  return "{\"channels\":" + std::to_string(channels) +
         ",\"encodingType\":\"LPCM\",\"format\":\"LPCM\",\"port\":\"" + port +
         "\",\"sampleFrequency\":" + std::to_string(hz) + ",\"sampleSize\":24,\"state\":\"on\"}";
}

class ControlDaemonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!am_test::have_netns()) {
      GTEST_SKIP() << "needs root and network namespaces";
    }
    root_ = std::make_unique<am_test::TempRoot>(
        std::vector<std::string>{"dev", "tmp", "misc", "home", "customer/bin", "config/logconf"});
    ASSERT_TRUE(root_->ok());
    ASSERT_TRUE(root_->write("/misc/boardInfo.json", "{\"modelNumber\": \"TR-A\"}"));
    ASSERT_TRUE(root_->write("/config/logconf/audio_manager.conf",
                             "log4cpp.rootCategory=INFO, file\n"
                             "log4cpp.category.CATEGORY=INFO\n"
                             "log4cpp.appender.file=FileAppender\n"
                             "log4cpp.appender.file.fileName=/tmp/audio_manager.log\n"
                             "log4cpp.appender.file.layout=PatternLayout\n"
                             "log4cpp.appender.file.layout.ConversionPattern=[%p] %m%n\n"));
    ASSERT_TRUE(root_->write("/dev/i2c-2", std::string(65536, '\0')));
    ASSERT_TRUE(root_->write("/dev/i2c-2.log", ""));
    for (const char* prog : {"audio_codec", "myaplay"}) {
      const std::string path = std::string("/customer/bin/") + prog;
      ASSERT_TRUE(root_->write(path, "#!/bin/sh\necho \"$*\" >> \"$0.args\"\n"));
      ASSERT_EQ(chmod(root_->at(path).c_str(), 0755), 0);
    }
    ns_ = std::make_unique<am_test::NetNs>();
    ASSERT_TRUE(ns_->ok());
    // The test thread joins the namespace to play the peers and cmd_core.
    home_fd_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const int ns_fd = open(("/var/run/netns/" + ns_->name()).c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(home_fd_, 0);
    ASSERT_GE(ns_fd, 0);
    ASSERT_EQ(setns(ns_fd, CLONE_NEWNET), 0);
    close(ns_fd);
    joined_ = true;
    for (int port : {kIt6620Port, kIt6621Port, kAvpPort, kMdinPort, kReportPort}) {
      peers_[port] = std::make_unique<am_test::UdpReceiver>(port);
      ASSERT_TRUE(peers_[port]->ok()) << port;
    }
    cmd_fd_ = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(cmd_fd_, 0);
    daemon_ = std::make_unique<am_test::Process>(
        std::vector<std::string>{std::string(am_test::kBinDir) + "/audio_manager"},
        std::vector<std::string>{"AUDIO_MANAGER_ROOT=" + root_->path(),
                                 "HOME=" + root_->path() + "/home"},
        ns_->name(), root_->path() + "/audio_manager.out");
    ASSERT_TRUE(daemon_->started());
    ASSERT_TRUE(am_test::wait_for([this] { return log_count("audio task thread id") > 0; }, 15000))
        << log_text() << daemon_->output();
  }

  void TearDown() override {
    if (daemon_) {
      EXPECT_TRUE(daemon_->running()) << "the daemon ended during the test\n" << daemon_->output();
    }
    daemon_.reset();
    peers_.clear();
    if (cmd_fd_ >= 0) close(cmd_fd_);
    if (joined_) setns(home_fd_, CLONE_NEWNET);
    if (home_fd_ >= 0) close(home_fd_);
    ns_.reset();
    root_.reset();
  }

  // The log file name is a board path: it lies under the root.
  std::string log_path() const { return root_->at("/tmp/audio_manager.log"); }
  std::string log_text() const { return am_test::read_file(log_path()); }
  int log_count(const std::string& needle) const {
    const std::string all = log_text();
    int n = 0;
    for (size_t at = all.find(needle); at != std::string::npos; at = all.find(needle, at + 1)) ++n;
    return n;
  }
  // Waits until the log holds the text at least `count` times.
  bool wait_log(const std::string& needle, int count = 1) {
    return am_test::wait_for([&] { return log_count(needle) >= count; }, kExpectMs);
  }

  // One command datagram: outer type 2 holding one item of (id << 16 | op) with the payload.
  void send(int id, int op, const Bytes& payload) {
    const Bytes item = cat(cat(le32(static_cast<uint32_t>(id << 16 | op)),
                               le32(static_cast<uint32_t>(payload.size()))),
                           payload);
    const Bytes msg = cat(cat(le32(2), le32(static_cast<uint32_t>(item.size()))), item);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(kCmdPort);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(sendto(cmd_fd_, msg.data(), msg.size(), 0, reinterpret_cast<sockaddr*>(&to),
                     sizeof to),
              static_cast<ssize_t>(msg.size()));
  }
  // Sends a command, then a marker command whose log line shows the first one was handled.
  void send_and_settle(int id, int op, const Bytes& payload) {
    send(id, op, payload);
    const std::string marker = "input_src_mac_get," + std::to_string(++marker_);
    send(1, kGet, Bytes(static_cast<size_t>(marker_), 0));
    ASSERT_TRUE(wait_log(marker + " --[")) << "command " << id << " not handled";
  }

  Bytes next(int port, int timeout_ms = kExpectMs) {
    Bytes out;
    if (!peers_[port]->receive(&out, timeout_ms)) out.clear();
    return out;
  }
  bool quiet(int port) {
    Bytes out;
    return !peers_[port]->receive(&out, kQuietMs);
  }
  std::string next_report() {
    const Bytes d = next(kReportPort);
    if (d.size() < 17) return "";
    EXPECT_EQ(Bytes(d.begin(), d.begin() + 4), le32(2));
    EXPECT_EQ(Bytes(d.begin() + 8, d.begin() + 12), le32(0x00040502));
    EXPECT_EQ(d.back(), 0);
    return std::string(reinterpret_cast<const char*>(d.data() + 16), d.size() - 17);
  }

  uint8_t fpga(int reg) const {
    const std::string bus = am_test::read_file(root_->at("/dev/i2c-2"));
    const size_t at = static_cast<size_t>(kFpga * 256 + reg);
    return at < bus.size() ? static_cast<uint8_t>(bus[at]) : 0;
  }
  std::vector<std::string> codec_calls() const {
    std::istringstream in(am_test::read_file(root_->at("/customer/bin/audio_codec.args")));
    std::vector<std::string> out;
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
  }

  std::unique_ptr<am_test::TempRoot> root_;
  std::unique_ptr<am_test::NetNs> ns_;
  std::unique_ptr<am_test::Process> daemon_;
  std::map<int, std::unique_ptr<am_test::UdpReceiver>> peers_;
  int cmd_fd_ = -1;
  int home_fd_ = -1;
  bool joined_ = false;
  int marker_ = 100;
};

TEST_F(ControlDaemonTest, EveryCommandWithItsRecord) {
  ASSERT_EQ(codec_calls(), std::vector<std::string>{"--start"});

  // Analog volume 0 as the first command runs nothing; 30 runs the codec, a repeat does not.
  send_and_settle(6, kSet, le32(0));
  EXPECT_EQ(log_count("no need set volume of analog"), 1);
  send_and_settle(6, kSet, le32(30));
  send_and_settle(6, kSet, le32(30));
  send_and_settle(7, kSet, le32(2));
  EXPECT_EQ(codec_calls(), (std::vector<std::string>{"--start", "-v 30", "-f 2"}));

  // Analog input level, delay and source selection land in the FPGA.
  send_and_settle(14, kSet, le32(1));
  EXPECT_EQ(fpga(0x50), 1);
  send_and_settle(3, kSet, words({1, 0x1234}));
  EXPECT_EQ(fpga(0x24), 0x34);
  EXPECT_EQ(fpga(0x25), 0x12);
  EXPECT_EQ(log_count("set fpga hdmi channel add:48 reg:25 val:12"), 1);
  send_and_settle(4, kSet, words({0, 0}));
  EXPECT_EQ(fpga(0x11), 2);
  send_and_settle(4, kGet, words({1, 4}));
  EXPECT_EQ(log_count("output_src_select_get, buflen[8], ch[1], src[4]"), 1);
  send_and_settle(2, kSet, words({0, 1, 1}));
  EXPECT_EQ(log_count("set analog output mute --["), 1);
  send_and_settle(5, kSet, words({1, 2}));
  EXPECT_EQ(log_count("output downmix mode param invalid"), 0);

  // The eARC output's ARC mode and the input bridge's requests.
  send_and_settle(18, kSet, words({3, 1, 1}));
  EXPECT_EQ(next(kIt6621Port), tlv_message(8, 0x00030002, le32(2)));
  send_and_settle(19, kSet, le32(1));
  send_and_settle(11, kSet, cat(words({1, 3}), mac_field("AABBCCDDEEFF")));
  EXPECT_EQ(next(kIt6620Port), tlv_message(7, 0x00030002, le32(2)));
  send_and_settle(12, kSet, le32(0x1000));
  EXPECT_EQ(next(kIt6620Port), tlv_message(7, 0x00020002, le32(0x1000)));

  // Stream selections: the HDMI output's selection tells the video processor.
  send_and_settle(9, kSet, words({1, 2, 0}));
  EXPECT_EQ(next(kAvpPort),
            tlv_message(3, 0x80802, text("{\"hdmi_out_audio_src\":\"multi-channel-local\"}")));
  send_and_settle(16, kSet, words({1, 0, 1}));
  EXPECT_EQ(log_count("stream_input_fallback_select_set,stream input select ch[hdmi][1], "
                      "fullback_subid[1]"),
            1);
  send_and_settle(10, kSet, cat(mac_field("020000000001"), words({0, 0})));
  EXPECT_EQ(log_count("stream_input_fromnet_set,stream input from net 24,24"), 1);
  send_and_settle(1, kSet, text("0011223F4455"));
  EXPECT_EQ(log_count("input_src_mac_set,in5 ip:234.63.68.85"), 1);

  // Bridge mode and monitor state: the monitor has no EDID file, so the output stays.
  send_and_settle(13, kSet, le32(2));
  EXPECT_EQ(log_count("it6621 arc/earc status 2"), 1);
  send_and_settle(15, kSet, le32(1));
  EXPECT_EQ(log_count("load edid file /tmp/tv.edid.bin err"), 1);

  // Gets that have nothing to say.
  for (int id : {2, 3, 5, 6, 7, 18}) send_and_settle(id, kGet, words({1, 2, 3}));

  EXPECT_TRUE(quiet(kIt6620Port));
  EXPECT_TRUE(quiet(kIt6621Port));
  EXPECT_TRUE(quiet(kAvpPort));
  EXPECT_TRUE(quiet(kMdinPort));
  EXPECT_EQ(codec_calls().size(), 3u);
}

TEST_F(ControlDaemonTest, ChannelNotificationAndDetailsReports) {
  // The HDMI input turns 8-channel LPCM at 96 kHz: reported alone, the change counted.
  send(8, kNotify, channel_note(3, 10, 8, 0x80));
  EXPECT_EQ(next_report(),
            "{\"status\":{\"input\":[" + entry("hdmi", 8, 96000) + "]}}\n");
  EXPECT_TRUE(wait_log("audio_channel_info_note, channel[video] info update ok, ch[3]"));
  // The same record again: nothing to report.
  send_and_settle(8, kNotify, channel_note(3, 10, 8, 0x80));
  EXPECT_TRUE(quiet(kReportPort));

  // A full request: four inputs, then four outputs that play stream 0.
  send(17, kGet, le32(0xFFFF));
  const std::string details = next_report();
  const std::string stereo48 = entry("analog", 2, 48000);
  EXPECT_EQ(details.find("{\"status\":{\"input\":[" + stereo48 + ","), 0u) << details;
  EXPECT_NE(details.find(entry("hdmi", 8, 96000)), std::string::npos) << details;
  size_t at = details.find("\"output\":[");
  ASSERT_NE(at, std::string::npos) << details;
  for (const char* port : {"\"analog\"", "\"earc\"", "\"hdmi\"", "\"spdif\""}) {
    at = details.find(port, at);
    EXPECT_NE(at, std::string::npos) << port;
  }

  // A network input's note restarts its playback and reports nothing new.
  send_and_settle(8, kNotify, channel_note(7, 2, 2, 0x80));
  EXPECT_TRUE(quiet(kReportPort));
  // An invalid channel is refused.
  send_and_settle(8, kNotify, channel_note(9, 2, 2, 0x80));
  EXPECT_EQ(log_count("invalid ch:9"), 1);
}

TEST_F(ControlDaemonTest, WrongLengthsAndValuesAreRefused) {
  // Record sizes of the set, get and notify handlers.
  struct Row {
    int id, op, size;
  };
  const Row rows[] = {{14, kSet, 4},  {2, kSet, 12},    {3, kSet, 8},   {4, kGet, 8},
                      {5, kSet, 8},   {6, kSet, 4},     {7, kSet, 4},   {8, kNotify, 24},
                      {9, kSet, 12},  {10, kSet, 24},   {11, kSet, 24}, {12, kSet, 4},
                      {16, kSet, 12}, {17, kGet, 4},    {18, kSet, 12}, {19, kSet, 4}};
  for (const Row& r : rows) {
    for (int len : {0, 1, r.size - 1, r.size + 1, 1000}) {
      send_and_settle(r.id, r.op, Bytes(static_cast<size_t>(len), 0x01));
    }
  }
  // Lengths the handlers check with an error line of their own.
  send_and_settle(13, kSet, Bytes{});
  send_and_settle(15, kSet, Bytes{});
  send_and_settle(1, kSet, text("0011223F445"));
  EXPECT_EQ(log_count("output downmix mode param invalid"), 5);
  EXPECT_EQ(log_count("stream output to net param error"), 5);
  EXPECT_EQ(log_count("invalid buflen 3 --["), 1);
  EXPECT_EQ(log_count("details_audio_status_get,5 buffer NULL error"), 1);
  EXPECT_EQ(log_count("invalid param buflen 0"), 2);
  EXPECT_EQ(log_count("input_src_mac_set,mac="), 0);

  // Out-of-range values.
  send_and_settle(3, kSet, words({4, 0x55}));
  send_and_settle(3, kSet, words({0xFFFFFFFF, 0x55}));
  EXPECT_EQ(log_count("output latency set invalid channel"), 2);
  send_and_settle(14, kSet, le32(3));
  EXPECT_EQ(log_count("invalid input analog vrms:3"), 1);
  send_and_settle(4, kSet, words({7, 0}));
  EXPECT_EQ(log_count("output src set invalid channel"), 1);
  send_and_settle(11, kSet, cat(words({5, 1}), mac_field("001122334455")));
  send_and_settle(11, kSet, cat(words({0xFFFFFFFF, 1}), mac_field("001122334455")));
  EXPECT_EQ(log_count("invalid param streamID:5"), 1);
  EXPECT_EQ(log_count("invalid param streamID:-1"), 1);
  send_and_settle(2, kSet, words({4, 0, 1}));
  EXPECT_EQ(log_count("output_mute_ctrl_set, chn[stream][4] mute=1 enable=0"), 1);

  // Nothing reached the delay and level registers, the codec or the peers.
  for (int reg : {0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27, 0x50}) {
    EXPECT_EQ(fpga(reg), 0) << reg;
  }
  EXPECT_EQ(codec_calls(), std::vector<std::string>{"--start"});
  for (int port : {kIt6620Port, kIt6621Port, kAvpPort, kMdinPort, kReportPort}) {
    EXPECT_TRUE(quiet(port)) << port;
  }
}

}  // namespace
