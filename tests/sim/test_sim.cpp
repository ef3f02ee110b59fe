// The simulation rig as the daemon tests rely on it. The virtual sound card (sim/alsa): an xrun
// after a stall that the card recovers from (its failures after some periods drive the stream
// boards' card faults, its pace their steering test). sim/board: create, up, link and teardown
// leave nothing (namespace, process) behind, also after a failed command and with a process still
// running in a board's namespace (linked boards stream in the integration scenarios). netrelay
// drops, corrupts and truncates exactly the datagrams it was told to, and counts what it did.
#include <alsa/asoundlib.h>
#include <dirent.h>
#include "am_test_sys.h"

namespace {

constexpr unsigned kRate = 48000;
constexpr size_t kFrameBytes = 8;  // S24_LE stereo

int64_t now_ns() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

class Amsim : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(root_.ok());
    setenv("HOME", root_.path().c_str(), 1);
    setenv("ALSA_CONFIG_PATH", (std::string("/usr/share/alsa/alsa.conf:") + am_test::kLibDir + "/asound.conf").c_str(), 1);
  }
  am_test::TempRoot root_{{"tmp/amsim", "dev"}};
};

snd_pcm_t* open_pcm(const char* name, snd_pcm_stream_t stream, unsigned buffer_us) {
  snd_pcm_t* pcm = nullptr;
  if (snd_pcm_open(&pcm, name, stream, 0) < 0) return nullptr;
  if (snd_pcm_set_params(pcm, SND_PCM_FORMAT_S24_LE, SND_PCM_ACCESS_RW_INTERLEAVED, 2, kRate, 0, buffer_us) == 0) return pcm;
  snd_pcm_close(pcm);
  return nullptr;
}

// Blocking 5 ms transfers until an error or timeout_s; the error or 0.
long transfer(snd_pcm_t* pcm, double timeout_s, long frames_max = -1) {
  std::vector<uint8_t> buf(240 * kFrameBytes);
  const bool play = snd_pcm_stream(pcm) == SND_PCM_STREAM_PLAYBACK;
  const int64_t end = now_ns() + static_cast<int64_t>(timeout_s * 1e9);
  for (long done = 0; now_ns() < end && (frames_max < 0 || done < frames_max); done += 240) {
    const long n = play ? snd_pcm_writei(pcm, buf.data(), 240) : snd_pcm_readi(pcm, buf.data(), 240);
    if (n < 0) return n;
  }
  return 0;
}

TEST_F(Amsim, StallLongerThanTheBufferGivesEpipeAndTheCardRecovers) {
  struct Row { const char* device; snd_pcm_stream_t stream; const char* stall_file; };
  for (const Row& row : {Row{"hw:1,0", SND_PCM_STREAM_PLAYBACK, "/tmp/amsim/play1.stall"},
                         Row{"hw:2,0", SND_PCM_STREAM_CAPTURE, "/tmp/amsim/cap2.stall"}}) {
    SCOPED_TRACE(row.device);
    snd_pcm_t* pcm = open_pcm(row.device, row.stream, 400000);  // 400 ms of slack; the stall is 1 s
    ASSERT_NE(pcm, nullptr);
    EXPECT_EQ(transfer(pcm, 0.3), 0);
    ASSERT_TRUE(am_test::write_file(root_.at(row.stall_file), "1000"));
    EXPECT_EQ(transfer(pcm, 5.0), -EPIPE);
    EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_XRUN);
    EXPECT_NE(access(root_.at(row.stall_file).c_str(), F_OK), 0) << "removed when the stall ends";
    ASSERT_EQ(snd_pcm_recover(pcm, -EPIPE, 1), 0);
    EXPECT_EQ(transfer(pcm, 0.5), 0);
    EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_RUNNING);
    snd_pcm_close(pcm);
  }
}

const std::string kPrefix = "amb" + std::to_string(getpid()) + "-";

std::vector<std::string> namespaces() {
  std::vector<std::string> found;
  if (DIR* d = opendir("/var/run/netns")) {
    while (dirent* e = readdir(d))
      if (std::strncmp(e->d_name, kPrefix.c_str(), kPrefix.size()) == 0) found.push_back(e->d_name);
    closedir(d);
  }
  return found;
}

TEST(BoardBench, CreateUpLinkAndTeardownLeaveNothingBehind) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  am_test::TempRoot dir;
  ASSERT_TRUE(dir.ok());
  const std::string env = "AM_SIM_STATE=" + dir.path() + "/state AM_SIM_PREFIX=" + kPrefix;
  const std::string board_cmd = std::string(am_test::kSourceDir) + "/sim/board";
  auto board = [&](const std::string& args) {
    return am_test::shell("{ env " + env + " " + board_cmd + " " + args + "; } >>" + dir.path() + "/out 2>&1");
  };
  const std::string root = dir.path() + "/r";
  ASSERT_EQ(0, board("create " + root + " --model TX-A"));
  EXPECT_NE(0, board("create " + root)) << "an existing root is only reused with --force";
  EXPECT_NE(0, board("up bad " + root + " --ip 10.77.0.300/24 --net lan"));
  EXPECT_NE(0, access(("/var/run/netns/" + kPrefix + "bad").c_str(), F_OK)) << "a failed command removes its board";
  ASSERT_EQ(0, board("up a " + root + " --mac 02:00:00:00:00:0a"));
  ASSERT_EQ(0, board("up b " + root + " --mac 02:00:00:00:00:0b"));
  ASSERT_EQ(0, board("link a b")) << am_test::read_file(dir.path() + "/out");
  am_test::Process stray({board_cmd, "exec", "a", "--", "sleep", "300"},
                         {"AM_SIM_STATE=" + dir.path() + "/state", "AM_SIM_PREFIX=" + kPrefix});
  ASSERT_TRUE(am_test::wait_for([&] { return am_test::shell("test -n \"$(ip netns pids " + kPrefix + "a)\"") == 0; }, 10000));
  EXPECT_EQ(3u, namespaces().size()) << "a, b and the network lan";
  EXPECT_EQ(0, board("teardown")) << am_test::read_file(dir.path() + "/out");
  EXPECT_TRUE(am_test::wait_for([&] { return !stray.running(); }, 5000));
  EXPECT_TRUE(namespaces().empty());
  EXPECT_EQ(0, board("teardown")) << "again: nothing to do";
}

constexpr const char* kGroup = "239.78.0.1";
constexpr uint16_t kPort = 59300;
constexpr uint32_t kCount = 12;
constexpr size_t kPayload = 64, kTruncateTo = 6;

std::vector<uint8_t> datagram(uint32_t index) {
  std::vector<uint8_t> d(kPayload);
  for (size_t k = 0; k < d.size(); ++k) d[k] = static_cast<uint8_t>(k * 7 + index);
  std::memcpy(d.data(), &index, sizeof index);
  return d;
}

TEST(NetrelayWire, DropsCorruptsAndTruncatesExactlyWhatItWasTold) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  am_test::TempRoot scratch;
  am_test::NetNs a, n, b;  // sender --eth0/ina-- relay --outb/eth0-- receiver
  ASSERT_TRUE(scratch.ok() && a.ok() && n.ok() && b.ok());
  for (const auto& [ns, port, ip] : {std::make_tuple(&a, "ina", "10.78.0"), std::make_tuple(&b, "outb", "10.78.1")}) {
    const std::string s = "ip -n " + ns->name() + " ", m = "ip -n " + n.name() + " ";
    for (const std::string& cmd : {"ip link add name eth0 netns " + ns->name() + " type veth peer name " + port +
                                       " netns " + n.name(),
                                   s + "addr add " + ip + ".1/24 dev eth0", s + "link set eth0 up",
                                   s + "route add 224.0.0.0/4 dev eth0", m + "addr add " + ip + ".2/24 dev " + port,
                                   m + "link set dev " + port + " up"})
      ASSERT_EQ(0, am_test::shell(cmd)) << cmd;
  }
  struct Row { const char* name; std::vector<std::string> args;
               std::vector<uint32_t> dropped, corrupted, truncated; std::string counts; };
  const Row rows[] = {
      {"untouched", {}, {}, {}, {}, "netrelay received=12 forwarded=12 dropped=0 "},
      {"drop ranges", {"--drop", "3-5,9"}, {3, 4, 5, 9}, {}, {}, " dropped=4 "},
      {"corrupt and truncate", {"--corrupt", "2,5", "--truncate", "5,7"}, {}, {2, 5}, {5, 7}, " corrupted=2 truncated=2"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    am_test::NsSocket rx(b.name()), tx(a.name());
    ASSERT_TRUE(rx.listen(kGroup, kPort));
    const std::string ready = scratch.path() + "/ready";
    unlink(ready.c_str());
    std::vector<std::string> argv = {std::string(am_test::kBinDir) + "/netrelay", "--group", kGroup, "--in", "ina",
                                     "--out", "outb", "--ready", ready, "--count", std::to_string(kCount),
                                     "--corrupt-offset", "4", "--corrupt-len", "2", "--truncate-to",
                                     std::to_string(kTruncateTo)};
    argv.insert(argv.end(), row.args.begin(), row.args.end());
    am_test::Process relay(argv, {}, n.name(), scratch.path() + "/relay.out");
    ASSERT_TRUE(am_test::wait_for([&] { return access(ready.c_str(), F_OK) == 0; }, 10000)) << relay.output();
    for (uint32_t i = 0; i < kCount; ++i, usleep(1000)) ASSERT_TRUE(tx.send(kGroup, kPort, datagram(i)));
    int status = -1;
    ASSERT_TRUE(relay.wait_exit(30000, &status)) << relay.output();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << relay.output();
    EXPECT_NE(relay.output().find(row.counts), std::string::npos) << relay.output();
    std::vector<std::vector<uint8_t>> want;
    auto in = [](const std::vector<uint32_t>& list, uint32_t i) { return std::find(list.begin(), list.end(), i) != list.end(); };
    for (uint32_t i = 0; i < kCount; ++i) {
      if (in(row.dropped, i)) continue;
      std::vector<uint8_t> d = datagram(i);
      if (in(row.corrupted, i)) d[4] = static_cast<uint8_t>(~d[4]), d[5] = static_cast<uint8_t>(~d[5]);
      if (in(row.truncated, i)) d.resize(kTruncateTo);
      want.push_back(d);
    }
    EXPECT_EQ(rx.drain(300), want);
  }
}

}  // namespace
