// The built daemon under a temporary board root in a network namespace of its own, with fake peers
// on the loopback ports of the bridge services, the video processor, the scaler and cmd_core's
// report port: start-up bus writes, accepted commands, channel reports, a datagram
// that is no command, SIGTERM with SIGINT after it; an RX board without log configuration or /tmp
// gets no DSP routes and ends on SIGTSTP.
#include "am_test_sys.h"
#include <sched.h>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr int kCmdPort = 9994, kIt6620Port = 8380, kIt6621Port = 8382, kAvpPort = 9991, kMdinPort = 8370,
              kReportPort = 9995;
constexpr int kPeerPorts[] = {kIt6620Port, kIt6621Port, kAvpPort, kMdinPort, kReportPort};
constexpr int kFpga = 0x48, kGet = 1, kSet = 2, kNotify = 3;
constexpr int kExpectMs = 5000, kQuietMs = 300, kStartMs = 20000, kExitMs = 20000;

const std::vector<std::string> kUnmuteAll = {"W 48 52 FF", "W 48 53 FF", "W 48 55 FF", "W 48 56 FF", "W 48 57 FF",
                                             "W 48 58 FF", "W 48 59 FF", "W 48 5A FF", "W 48 5B FF"};
const std::vector<std::string> kUnmuteAndDspRoutes = [] {
  std::vector<std::string> v = kUnmuteAll;
  return v.push_back("W 48 17 03"), v.push_back("W 48 11 08"), v;
}();

Bytes cat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
Bytes words(std::initializer_list<uint32_t> values) {
  Bytes out;
  for (uint32_t v : values) out.insert(out.end(), reinterpret_cast<uint8_t*>(&v), reinterpret_cast<uint8_t*>(&v) + 4);
  return out;
}
Bytes le32(uint32_t v) { return words({v}); }
Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }
// {outer: {key: value}} as the daemon's peers receive it.
Bytes tlv_message(uint32_t outer, uint32_t key, const Bytes& value) {
  return cat(words({outer, static_cast<uint32_t>(8 + value.size()), key, static_cast<uint32_t>(value.size())}), value);
}
// Channel information: channel id and a 20-byte format record (audio on, 24 bits).
Bytes channel_note(uint32_t ch, uint8_t sf, uint8_t validch) {
  Bytes rec(20, 0);
  rec[0] = 1, rec[1] = sf, rec[2] = validch, rec[3] = 24, rec[4] = 2, rec[8] = 0x80;
  return cat(le32(ch), rec);
}
std::string entry(const std::string& port, int channels, int hz) {
  return "{\"channels\":" + std::to_string(channels) + ",\"encodingType\":\"LPCM\",\"format\":\"LPCM\",\"port\":\"" +
         port + "\",\"sampleFrequency\":" + std::to_string(hz) + ",\"sampleSize\":24,\"state\":\"on\"}";
}
std::vector<std::string> lines_of(const std::string& all) {
  std::vector<std::string> out;
  for (size_t at = 0, nl; (nl = all.find('\n', at)) != std::string::npos; at = nl + 1)
    if (nl > at) out.push_back(all.substr(at, nl - at));
  return out;
}

class Daemon : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
    ASSERT_TRUE(ns_.ok());
    // The test thread joins the namespace to play the peers and cmd_core.
    home_fd_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const int ns_fd = open(("/var/run/netns/" + ns_.name()).c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_TRUE(home_fd_ >= 0 && ns_fd >= 0 && setns(ns_fd, CLONE_NEWNET) == 0);
    close(ns_fd);
    joined_ = true;
    for (int port : kPeerPorts) {
      peers_[port] = std::make_unique<am_test::UdpReceiver>(port);
      ASSERT_TRUE(peers_[port]->ok()) << port;
    }
    cmd_fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(cmd_fd_, 0);
  }
  void TearDown() override {
    daemon_.reset(), peers_.clear(), close(cmd_fd_);
    if (joined_) setns(home_fd_, CLONE_NEWNET);
    close(home_fd_), root_.reset();
  }

  void start(const std::string& model, bool log_config) {
    root_ = std::make_unique<am_test::TempRoot>(log_config ? std::vector<std::string>{"tmp", "home"}
                                                           : std::vector<std::string>{});
    ASSERT_TRUE(am_test::write_board(*root_, model));
    const std::string conf = "/config/logconf/audio_manager.conf";
    ASSERT_TRUE(!log_config || root_->write(conf, am_test::read_file(am_test::kSourceDir + conf)));
    daemon_ = std::make_unique<am_test::Process>(
        std::vector<std::string>{std::string(am_test::kBinDir) + "/audio_manager"},
        std::vector<std::string>{"AUDIO_MANAGER_ROOT=" + root_->path(), "HOME=" + root_->path() + "/home"}, ns_.name(),
        root_->path() + "/daemon.out");
    ASSERT_TRUE(am_test::wait_for([&] { return am_test::count(log(), "audio manager init done") > 0; }, kStartMs)) << log();
  }
  // The log file, or the console output when the board has no log configuration.
  std::string log() const {
    const std::string file = am_test::read_file(root_->at("/tmp/audio_manager.log"));
    return file.empty() ? daemon_->output() : file;
  }
  bool wait_log(const std::string& needle, int count = 1) {
    return am_test::wait_for([&] { return am_test::count(log(), needle) >= count; }, kExpectMs);
  }
  // The first n lines of the bus log (fewer if there are not so many).
  std::vector<std::string> bus(size_t n) const {
    std::vector<std::string> all = lines_of(am_test::read_file(root_->at("/dev/i2c-2.log")));
    return all.resize(std::min(all.size(), n)), all;
  }
  uint8_t fpga(int reg) const {
    const std::string regs = am_test::read_file(root_->at("/dev/i2c-2"));
    const size_t at = static_cast<size_t>(kFpga * 256 + reg);
    return at < regs.size() ? static_cast<uint8_t>(regs[at]) : 0;
  }
  std::vector<std::string> codec_calls() const {
    return lines_of(am_test::read_file(root_->at("/customer/bin/audio_codec.args")));
  }

  void send_raw(const Bytes& msg) {
    sockaddr_in to{};
    to.sin_family = AF_INET, to.sin_port = htons(kCmdPort), to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(sendto(cmd_fd_, msg.data(), msg.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to), ssize_t(msg.size()));
  }
  // One command datagram: outer type 2 holding one item of (id << 16 | op) with the payload.
  void send(int id, int op, const Bytes& payload) {
    const Bytes item = cat(words({static_cast<uint32_t>(id << 16 | op), static_cast<uint32_t>(payload.size())}), payload);
    send_raw(cat(words({2, static_cast<uint32_t>(item.size())}), item));
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
    return peers_[port]->receive(&out, timeout_ms) ? out : Bytes{};
  }
  bool quiet(int port) { return next(port, kQuietMs).empty(); }
  std::string next_report() {
    const Bytes d = next(kReportPort);
    if (d.size() < 17) return "";
    EXPECT_EQ(Bytes(d.begin(), d.begin() + 4), le32(2));
    EXPECT_EQ(Bytes(d.begin() + 8, d.begin() + 12), le32(0x00040502));
    EXPECT_EQ(d.back(), 0);
    return std::string(reinterpret_cast<const char*>(d.data() + 16), d.size() - 17);
  }
  void expect_exit_zero(std::initializer_list<int> signals) {
    for (int sig : signals) daemon_->signal(sig);
    int status = -1;
    ASSERT_TRUE(daemon_->wait_exit(kExitMs, &status)) << "the daemon was suspended or kept running";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }

  am_test::NetNs ns_;
  std::unique_ptr<am_test::TempRoot> root_;
  std::unique_ptr<am_test::Process> daemon_;
  std::map<int, std::unique_ptr<am_test::UdpReceiver>> peers_;
  int cmd_fd_ = -1, home_fd_ = -1, marker_ = 100;
  bool joined_ = false;
};

TEST_F(Daemon, StartCommandsReportsAndShutdown) {
  ASSERT_NO_FATAL_FAILURE(start("TR-A", true));
  {
    SCOPED_TRACE("start-up: codec started, every gate opened, then the DSP routes of boards 1 and 3");
    EXPECT_EQ(codec_calls(), std::vector<std::string>{"--start"});
    EXPECT_EQ(bus(kUnmuteAndDspRoutes.size()), kUnmuteAndDspRoutes);
  }
  {
    SCOPED_TRACE("commands: codec calls, FPGA registers and peer requests");
    send_and_settle(6, kSet, le32(0));  // volume 0 as the first command runs nothing
    send_and_settle(6, kSet, le32(30));
    send_and_settle(6, kSet, le32(30));  // a repeat runs nothing
    send_and_settle(7, kSet, le32(2));
    EXPECT_EQ(codec_calls(), (std::vector<std::string>{"--start", "-v 30", "-f 2"}));
    send_and_settle(14, kSet, le32(1));
    EXPECT_EQ(fpga(0x50), 1);
    send_and_settle(3, kSet, words({1, 0x1234}));
    EXPECT_EQ(fpga(0x24) | fpga(0x25) << 8, 0x1234);
    send_and_settle(4, kSet, words({0, 0}));
    EXPECT_EQ(fpga(0x11), 2);
    send_and_settle(18, kSet, words({3, 1, 1}));
    EXPECT_EQ(next(kIt6621Port), tlv_message(8, 0x00030002, le32(2)));
    send_and_settle(19, kSet, le32(1));
    send_and_settle(11, kSet, cat(words({1, 3}), text(std::string("AABBCCDDEEFF\0\0\0\0", 16))));
    EXPECT_EQ(next(kIt6620Port), tlv_message(7, 0x00030002, le32(2)));
    send_and_settle(12, kSet, le32(0x1000));
    EXPECT_EQ(next(kIt6620Port), tlv_message(7, 0x00020002, le32(0x1000)));
    send_and_settle(9, kSet, words({1, 2, 0}));
    EXPECT_EQ(next(kAvpPort), tlv_message(3, 0x80802, text("{\"hdmi_out_audio_src\":\"multi-channel-local\"}")));
    for (int id : {2, 3, 5, 6, 7, 18}) send_and_settle(id, kGet, words({1, 2, 3}));  // gets with nothing to say
    for (int port : kPeerPorts) EXPECT_TRUE(quiet(port)) << port;
    EXPECT_EQ(codec_calls().size(), 3u);
  }
  {
    SCOPED_TRACE("reports: a changed input alone, nothing for a repeat, every port on a full request");
    send(8, kNotify, channel_note(3, 10, 8));
    EXPECT_EQ(next_report(), "{\"status\":{\"input\":[" + entry("hdmi", 8, 96000) + "]}}\n");
    send_and_settle(8, kNotify, channel_note(3, 10, 8));
    EXPECT_TRUE(quiet(kReportPort));
    send(17, kGet, le32(0xFFFF));
    const std::string details = next_report();
    EXPECT_EQ(details.find("{\"status\":{\"input\":[" + entry("analog", 2, 48000) + ","), 0u) << details;
    EXPECT_NE(details.find(entry("hdmi", 8, 96000)), std::string::npos) << details;
    size_t at = details.find("\"output\":[");
    ASSERT_NE(at, std::string::npos) << details;
    for (const char* port : {"\"analog\"", "\"earc\"", "\"hdmi\"", "\"spdif\""})
      EXPECT_NE(at = details.find(port, at == std::string::npos ? 0 : at), std::string::npos) << port;
    send_and_settle(8, kNotify, channel_note(7, 2, 2));  // a network input: nothing new to report
    send_and_settle(8, kNotify, channel_note(9, 2, 2));  // no such channel
    EXPECT_TRUE(quiet(kReportPort));
  }
  // A datagram that is no command message is dropped and the daemon goes on.
  send_raw({0x03, 0, 0, 0, 0x14, 0, 0, 0, 0x02, 0, 0x02, 0, 0x0C, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0});
  send_and_settle(2, kGet, words({1, 2, 3}));
  SCOPED_TRACE("SIGTERM and, right after it, SIGINT: one shutdown with status 0");
  ASSERT_TRUE(daemon_->running()) << log();
  expect_exit_zero({SIGTERM, SIGINT});
}

TEST_F(Daemon, RxBoardWithoutLogConfigurationGetsNoDspRoutesAndStopsOnSigtstp) {
  ASSERT_NO_FATAL_FAILURE(start("RX", false));
  ASSERT_EQ(bus(kUnmuteAll.size()), kUnmuteAll);
  EXPECT_NE(bus(kUnmuteAll.size() + 1).back(), kUnmuteAndDspRoutes[kUnmuteAll.size()]);
  expect_exit_zero({SIGTSTP});  // ends the daemon for good: it is not suspended
}

}  // namespace
