// The streaming engines on the virtual card: a capture engine streams the card's pattern through
// the impairing relay to a playback engine in another namespace. A dropped, a truncated and a
// corrupted datagram each play as exactly their 1408 bytes of silence, aligned and counted; a gap
// above 5120 bytes ends the run; a new format is adopted and ends it. On the card alone: playback
// negotiation and a short write padded to a whole chunk.
#include "am_test_sys.h"
#include "audio_packet_loss_statistics.h"
#include "qb_audio_buf.h"
#include "qb_audio_main.h"
#include "qb_audio_misc.h"
#include "qb_audio_oper.h"
#include "qb_audio_oper_playback.h"

namespace {

constexpr const char* kGroup = "239.77.0.2";
constexpr uint32_t kFrameMask = 0x1FFFFF;  // the pattern's frame counter in S24_LE samples
constexpr int kRate48k = 2, kRate96k = 10;  // sample frequency codes of the format record
constexpr int kEndedByItself = 100;
constexpr long kHeaderBytes = 56;
constexpr size_t kDatagramFrames = 176;  // 1408 bytes of stereo 32-bit audio
constexpr uint32_t kChunkFrames = 240;

std::string amsim_conf() { return std::string(am_test::kLibDir) + "/asound.conf"; }
bool have_card() { return access(amsim_conf().c_str(), R_OK) == 0; }
// ALSA through the virtual card, with a private HOME under the board root.
void use_card(const am_test::TempRoot& root) {
  setenv("ALSA_CONFIG_PATH", ("/usr/share/alsa/alsa.conf:" + amsim_conf()).c_str(), 1);
  setenv("HOME", root.at("/home").c_str(), 1);
}

// Answers every request on 127.0.0.1:11000, as the genlock service does.
void fake_genlock(std::atomic<bool>* stop) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET, addr.sin_port = htons(11000), addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  const timeval tv = {0, 100000};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
  for (char buf[64]; !stop->load();) {
    socklen_t len = sizeof(addr);
    const ssize_t n = recvfrom(fd, buf, sizeof(buf), 0, reinterpret_cast<sockaddr*>(&addr), &len);
    if (n > 0) sendto(fd, buf, static_cast<size_t>(n), 0, reinterpret_cast<sockaddr*>(&addr), len);
  }
  close(fd);
}

// One engine run of at most `ms` (inside a namespace). Capture: the run's result (100 - result
// when negative). Playback at 48 kHz: 100 when the run ended by itself, else 0; the loss statistics
// then go to /tmp/pktdrop.json. Playback at another rate: 0 when the run ended on the 48 kHz header
// and the channel now holds that format.
int run_engine(bool capture, int ms, int rate_code = kRate48k) {
  audio_board_id_set(1);
  qb_audio_misc_init();
  qb_audio_info r{};
  r.Audio_On = 1, r.ValidCh = 2, r.SampleSize = 24, r.io_in_use = 2, r.ChStat[2] = 2;
  r.SampleFrequency = static_cast<qb_s8_t>(capture ? kRate48k : rate_code);
  r.Audio_Type = static_cast<qb_s8_t>(0x80);
  qb_audio_channel_state_set(capture ? QB_AUDIO_CHN_NSO1 : QB_AUDIO_CHN_NSI1, &r);
  static qb_audio_oper_ctrl_t ctrl;
  std::atomic<bool> stop{false};
  std::thread genlock(fake_genlock, &stop);
  std::atomic<int> result{99};
  std::thread engine([&] {
    result = capture ? qb_audio_oper_capture(&ctrl, "hw:1,0", kGroup) : qb_audio_oper_playback(&ctrl, "hw:1,0", kGroup);
  });
  for (int waited = 0; waited < ms && result.load() == 99; waited += 10) usleep(10000);
  const bool ended_by_itself = result.load() != 99;
  qb_audio_oper_abort(&ctrl);
  engine.join(), stop = true, genlock.join();
  if (capture) return result.load() < 0 ? 100 - result.load() : result.load();
  if (rate_code != kRate48k) {
    qb_audio_info now;
    qb_audio_channel_state_copy(QB_AUDIO_CHN_NSI1, &now);
    return now.SampleFrequency == kRate48k && ctrl.net.audio_info_head.Sample_Frequency == kRate48k ? 0 : 98;
  }
  check_drop_status();
  return ended_by_itself ? kEndedByItself : 0;
}

// The played file: the pattern in order, with `gaps` runs of exactly one datagram's zero frames
// that keep the frame count; an underrun may drop whole chunks, anything else is a fault.
void expect_bridged_gaps(const std::string& played, size_t gaps) {
  const auto* s = reinterpret_cast<const uint8_t*>(played.data());
  const size_t frames = played.size() / 8;
  auto sample = [&](size_t f, int ch) { uint32_t v; std::memcpy(&v, s + f * 8 + ch * 4, 4); return v; };
  auto silent = [&](size_t f) { return sample(f, 0) == 0 && sample(f, 1) == 0; };
  size_t f = 0;
  while (f < frames && silent(f)) ++f;
  ASSERT_LT(f, frames) << "nothing played";
  uint32_t want = sample(f, 0) & kFrameMask;
  size_t zero_runs = 0, good = 0;
  while (f < frames) {
    if (silent(f)) {
      size_t n = 0;
      while (f + n < frames && silent(f + n)) ++n;
      if (f + n == frames) break;  // the end of the stream
      EXPECT_EQ(kDatagramFrames, n) << "zero frames at frame " << f;
      ++zero_runs;
      want = (want + static_cast<uint32_t>(n)) & kFrameMask;
      f += n;
      continue;
    }
    if ((sample(f, 0) & kFrameMask) != want) {
      ASSERT_EQ(0u, ((sample(f, 0) & kFrameMask) - want) % kChunkFrames) << "frame " << f;
      want = sample(f, 0) & kFrameMask;
    }
    ASSERT_EQ(want | (1u << 21) | (0x20u << 24), sample(f, 1)) << "channel 1 aligned at frame " << f;  // tag 0x20
    want = (want + 1) & kFrameMask;
    ++good;
    ++f;
  }
  EXPECT_EQ(gaps, zero_runs);
  EXPECT_GT(good, 48000u) << "a second of audio";
}

TEST(StreamEngine, ThroughTheRelayLossIsBridgedALongGapEndsTheRunANewFormatIsAdopted) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  if (!have_card()) GTEST_SKIP() << "the virtual sound card is not built";
  const std::string relay_bin = std::string(am_test::kBinDir) + "/netrelay";
  if (access(relay_bin.c_str(), X_OK) != 0) GTEST_SKIP() << "no netrelay";
  am_test::TempRoot root({"dev", "tmp", "home", "misc"});
  am_test::NetNs tx, mid, rx;
  ASSERT_TRUE(root.ok() && tx.ok() && mid.ok() && rx.ok());
  // tx.eth0 <-> mid.vt and mid.vr <-> rx.eth0; the relay in mid forwards vt to vr.
  const std::string t = "ip -n " + tx.name() + " ", m = "ip -n " + mid.name() + " ", r = "ip -n " + rx.name() + " ";
  for (const std::string& cmd :
       {t + "link add eth0 type veth peer name vt netns " + mid.name(),
        r + "link add eth0 type veth peer name vr netns " + mid.name(), t + "addr add 10.78.1.1/24 dev eth0",
        m + "addr add 10.78.1.2/24 dev vt", r + "addr add 10.78.2.1/24 dev eth0", m + "addr add 10.78.2.2/24 dev vr",
        t + "link set eth0 up", r + "link set eth0 up", m + "link set vt up", m + "link set vr up",
        t + "route add 224.0.0.0/4 dev eth0", r + "route add 224.0.0.0/4 dev eth0"})
    ASSERT_EQ(0, am_test::shell(cmd)) << cmd;
  use_card(root);
  setenv("AMSIM_OUTFILE_PLAY1", "/tmp/play1.raw", 1);
  // One stream through a relay with these impairments: the receiver joins the group first; the
  // sender runs long enough to pass the last impaired datagram however slowly it starts. The
  // relay's counters into *relay.
  auto stream = [&](const std::vector<std::string>& impair, int rate_code, std::map<std::string, std::string>* relay) {
    unlink(root.at("/tmp/ready").c_str()), unlink(root.at("/tmp/pktdrop.json").c_str());
    std::vector<std::string> argv = {relay_bin, "--group", kGroup, "--in", "vt", "--out", "vr", "--ready", root.at("/tmp/ready")};
    argv.insert(argv.end(), impair.begin(), impair.end());
    am_test::Process relay_process(argv, {}, mid.name(), root.at("/tmp/relay.out"));
    if (!am_test::wait_for([&] { return access(root.at("/tmp/ready").c_str(), F_OK) == 0; }, 10000)) return -1;
    std::atomic<int> code{-1};
    std::thread receiver([&] { code = rx.run([&] { return run_engine(false, 12000, rate_code); }, 30000); });
    usleep(1500 * 1000);
    tx.run([] { return run_engine(true, 5000); }, 30000);
    receiver.join();
    relay_process.signal(SIGTERM), relay_process.wait_exit(10000);
    *relay = am_test::key_values(relay_process.output(), "netrelay ");
    return code.load();
  };
  auto reported_loss = [&] {
    const std::string json = am_test::read_file(root.at("/tmp/pktdrop.json"));
    const size_t at = json.find("\"bytesDropTotal\":");
    return at == std::string::npos ? -1L : std::atol(json.c_str() + at + std::strlen("\"bytesDropTotal\":"));
  };
  std::map<std::string, std::string> relay;
  // Datagrams alternate 1408 and 512 bytes (chunks of 1920): 300, 500 and 700 carry 1408 each;
  // 900-907 are 4 x 1408 + 4 x 512 = 7680 bytes. 500 is cut below its header, 700 has its
  // Packet_Size field inverted.
  {
    SCOPED_TRACE("loss bridged by exactly the lost bytes, malformed datagrams dropped, a gap above 5120 ends the run");
    EXPECT_EQ(kEndedByItself, stream({"--drop", "300,900-907", "--truncate", "500", "--truncate-to", "40", "--corrupt", "700",
                                      "--corrupt-offset", "12", "--corrupt-len", "2"}, kRate48k, &relay));
    EXPECT_EQ(3 * 1408 + 7680, reported_loss()) << am_test::read_file(root.at("/tmp/relay.out"));
    expect_bridged_gaps(am_test::read_file(root.at("/tmp/play1.raw")), 3);
  }
  {
    // 301 and 304 are lost, 310 comes after 311: bridged as lost, then its counter goes backwards.
    SCOPED_TRACE("drop and reorder: the statistics count the bytes the relay dropped or held back, once");
    EXPECT_EQ(kEndedByItself, stream({"--drop", "301,304", "--reorder", "310"}, kRate48k, &relay));
    const long relay_bytes = std::atol(relay["dropped_bytes"].c_str()) + std::atol(relay["reordered_bytes"].c_str()) -
                             kHeaderBytes * (std::atol(relay["dropped"].c_str()) + std::atol(relay["reordered"].c_str()));
    EXPECT_EQ(512 + 2 * 1408, relay_bytes) << am_test::read_file(root.at("/tmp/relay.out"));
    EXPECT_EQ(relay_bytes, reported_loss());
  }
  {
    SCOPED_TRACE("a receiver expecting 96 kHz adopts the 48 kHz header, which ends its run");
    EXPECT_EQ(0, stream({}, kRate96k, &relay));
  }
  unsetenv("AMSIM_OUTFILE_PLAY1");
}

class Card : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!have_card()) GTEST_SKIP() << "the virtual sound card is not built";
    use_card(root);
  }
  // Opens the card and negotiates; set_params_play's result (-100 when the card did not open).
  int open_and_set() {
    qb_audio_oper_default(&ctrl);
    ctrl.pcm_name = "hw:1,0", ctrl.pcm.stream = SND_PCM_STREAM_PLAYBACK;
    ctrl.pcm.open_mode = SND_PCM_NONBLOCK, ctrl.file_param_num = 1;
    return qb_audio_oper_general_init(&ctrl) != 0 ? -100 : set_params_play(&ctrl);
  }
  void TearDown() override { if (ctrl.init || ctrl.pcm.handle != nullptr) qb_audio_oper_general_uninit(&ctrl); }
  am_test::TempRoot root{{"dev", "tmp", "home"}};
  qb_audio_oper_ctrl_t ctrl;
};

TEST_F(Card, NegotiationFollowsTheLargestBufferTheCardOffersAndAShortWriteIsPadded) {
  struct Row { const char* max_buffer_bytes; int result; unsigned buffer_time, period_time, chunk_size; };
  const Row rows[] = {
      {"", 0, 200000, 5000, 240},      // the card sets no limit
      {"13440", 0, 30000, 7500, 360},  // 35 ms: rounded down to 30 ms, with longer periods
      {"3832", -1, 0, 0, 0},           // 9979 us: below 10 ms nothing can play
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.max_buffer_bytes);
    if (*row.max_buffer_bytes != '\0') setenv("AMSIM_MAX_BUFFER_BYTES_PLAY1", row.max_buffer_bytes, 1);
    EXPECT_EQ(row.result, open_and_set());
    if (row.result == 0) {
      EXPECT_EQ(std::make_tuple(row.buffer_time, row.period_time, unsigned(row.chunk_size)),
                std::make_tuple(ctrl.pcm.buffer_time, ctrl.pcm.period_time, unsigned(ctrl.pcm.chunk_size)));
    }
    qb_audio_oper_general_uninit(&ctrl);
  }
  unsetenv("AMSIM_MAX_BUFFER_BYTES_PLAY1");
  ASSERT_EQ(0, open_and_set());
  EXPECT_EQ(1440, ctrl.pcm.start_delay);
  EXPECT_EQ(70u, ctrl.pAudBuf->slot_count());
  std::vector<uint8_t> chunk(ctrl.pcm.chunk_bytes, 0x11);
  EXPECT_EQ(static_cast<snd_pcm_sframes_t>(ctrl.pcm.chunk_size), pcm_write(&ctrl, chunk.data(), 100));
  EXPECT_EQ(0x11, chunk[100 * 8 - 1]);
  EXPECT_EQ(0x00, chunk[100 * 8]);  // S24_LE silence is zero
  EXPECT_EQ(0, pcm_write(&ctrl, chunk.data(), 0));
}

}  // namespace
