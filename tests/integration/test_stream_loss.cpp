// End to end through the impairing relay: a dropped datagram is played as exactly as many zero
// bytes, the stream stays aligned and the loss is counted; a gap above 5120 bytes ends the run.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "am_log.h"
#include "audio_packet_loss_statistics.h"
#include "qb_audio_main.h"
#include "qb_audio_misc.h"
#include "qb_audio_oper.h"
#include "test_stream_helpers.h"

namespace {

constexpr const char* kGroup = "239.77.0.2";
constexpr uint32_t kFrameMask = 0x1FFFFF;

int sh(const std::string& cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()); }

// tx.eth0 <-> mid.vt and mid.vr <-> rx.eth0; the relay in mid forwards vt to vr.
bool wire(const am_test::NetNs& tx, const am_test::NetNs& mid, const am_test::NetNs& rx) {
  const std::string t = "ip -n " + tx.name() + " ", m = "ip -n " + mid.name() + " ", r = "ip -n " + rx.name() + " ";
  return sh(t + "link add eth0 type veth peer name vt netns " + mid.name()) == 0 &&
         sh(r + "link add eth0 type veth peer name vr netns " + mid.name()) == 0 &&
         sh(t + "addr add 10.78.1.1/24 dev eth0") == 0 && sh(m + "addr add 10.78.1.2/24 dev vt") == 0 &&
         sh(r + "addr add 10.78.2.1/24 dev eth0") == 0 && sh(m + "addr add 10.78.2.2/24 dev vr") == 0 &&
         sh(t + "link set eth0 up") == 0 && sh(r + "link set eth0 up") == 0 && sh(m + "link set vt up") == 0 &&
         sh(m + "link set vr up") == 0 && sh(t + "route add 224.0.0.0/4 dev eth0") == 0 &&
         sh(r + "route add 224.0.0.0/4 dev eth0") == 0;
}

qb_audio_info stereo_48k() {
  qb_audio_info r;
  std::memset(&r, 0, sizeof(r));
  r.Audio_On = 1;
  r.SampleFrequency = 2;
  r.ValidCh = 2;
  r.SampleSize = 24;
  r.io_in_use = 2;
  r.Audio_Type = static_cast<qb_s8_t>(0x80);
  r.ChStat[2] = 2;
  return r;
}

// One engine run of at most `ms`; the capture run's result, or for playback the loss recorded
// for stream 0 in units of 128 bytes (at most 99), plus 100 when the run ended by itself.
int run(bool capture, int ms) {
  audio_board_id_set(1);
  qb_audio_misc_init();
  const qb_audio_info r = stereo_48k();
  qb_audio_channel_state_set(capture ? QB_AUDIO_CHN_NSO1 : QB_AUDIO_CHN_NSI1, &r);
  static qb_audio_oper_ctrl_t ctrl;
  std::atomic<int> result{99};
  std::thread engine([&] {
    result = capture ? qb_audio_oper_capture(&ctrl, "hw:1,0", kGroup) : qb_audio_oper_playback(&ctrl, "hw:1,0", kGroup);
  });
  int waited = 0;
  for (; waited < ms && result.load() == 99; waited += 10) usleep(10000);
  const bool ended_by_itself = result.load() != 99;
  qb_audio_oper_abort(&ctrl);
  engine.join();
  if (capture) return result.load() < 0 ? 100 - result.load() : result.load();
  AUDIO_LOSS_INFO_T info;
  std::memset(&info, 0, sizeof(info));
  audio_loss_info_get(0, &info);
  const int units = info.lossBytesTotal % 128 != 0 ? 99 : static_cast<int>(info.lossBytesTotal / 128);
  return (ended_by_itself ? 100 : 0) + (units < 99 ? units : 99);
}

class Loss : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
    if (!stream_test::have_card()) GTEST_SKIP() << "the virtual sound card is not built";
    if (access((std::string(am_test::kBinDir) + "/netrelay").c_str(), X_OK) != 0) GTEST_SKIP() << "no netrelay";
    ASSERT_TRUE(tx.ok() && mid.ok() && rx.ok());
    ASSERT_TRUE(wire(tx, mid, rx));
    stream_test::use_card(root);
    setenv("AMSIM_OUTFILE_PLAY1", "/tmp/play1.raw", 1);
  }
  // Streams for about three seconds through the relay dropping `drops`; the receiver's code.
  int stream_through(const std::vector<std::string>& impairments) {
    std::vector<std::string> argv = {std::string(am_test::kBinDir) + "/netrelay", "--group", kGroup, "--in", "vt",
                                     "--out", "vr", "--ready", root.at("/tmp/relay.ready")};
    argv.insert(argv.end(), impairments.begin(), impairments.end());
    am_test::Process relay(argv, {}, mid.name(), root.at("/tmp/relay.out"));
    EXPECT_TRUE(am_test::wait_for([&] { return access(root.at("/tmp/relay.ready").c_str(), F_OK) == 0; }, 5000));
    std::atomic<int> code{-1};
    std::thread receiver([&] { code = rx.run([] { return run(false, 7000); }, 25000); });
    usleep(1500 * 1000);
    tx.run([] { return run(true, 3000); }, 25000);
    receiver.join();
    return code.load();
  }

  // The played file: the pattern in order, with `gaps` runs of exactly 176 zero frames (1408 bytes)
  // that keep the frame count.
  void expect_bridged_gaps(size_t gaps) {
    const std::string played = am_test::read_file(root.at("/tmp/play1.raw"));
    const auto* s = reinterpret_cast<const uint8_t*>(played.data());
    const size_t frames = played.size() / 8;
    auto sample = [&](size_t f, int ch) {
      uint32_t v;
      std::memcpy(&v, s + f * 8 + ch * 4, 4);
      return v;
    };
    size_t f = 0;
    while (f < frames && sample(f, 0) == 0 && sample(f, 1) == 0) ++f;
    ASSERT_LT(f, frames);
    uint32_t want = sample(f, 0) & kFrameMask;
    size_t zero_runs = 0;
    size_t good = 0;
    while (f < frames) {
      if (sample(f, 0) == 0 && sample(f, 1) == 0) {
        size_t n = 0;
        while (f + n < frames && sample(f + n, 0) == 0 && sample(f + n, 1) == 0) ++n;
        if (f + n == frames) break;  // the end of the stream
        EXPECT_EQ(176u, n) << "1408 bytes of stereo 32-bit audio at frame " << f;
        ++zero_runs;
        want = (want + static_cast<uint32_t>(n)) & kFrameMask;  // the bridged frames keep the count
        f += n;
        continue;
      }
      if ((sample(f, 0) & kFrameMask) != want) {
        // An underrun drops whole chunks; anything else is a fault.
        ASSERT_EQ(0u, ((sample(f, 0) & kFrameMask) - want) % 240) << "frame " << f;
        want = sample(f, 0) & kFrameMask;
      }
      ASSERT_EQ(want | (1u << 21) | (0x20u << 24), sample(f, 1)) << "channel 1 aligned at frame " << f;
      want = (want + 1) & kFrameMask;
      ++good;
      ++f;
    }
    EXPECT_EQ(gaps, zero_runs);
    EXPECT_GT(good, 48000u);
  }

  am_test::TempRoot root{{"dev", "tmp", "home", "misc"}};
  am_test::NetNs tx, mid, rx;
};

TEST_F(Loss, DroppedDatagramIsPlayedAsExactlyThatManyZeroBytes) {
  const int code = stream_through({"--drop", "300"});  // chunks of 1920 bytes: datagram 300 carries 1408
  EXPECT_EQ(1408 / 128, code) << "one datagram of 1408 bytes counted, the run went on";
  expect_bridged_gaps(1);
}

TEST_F(Loss, MalformedDatagramsAreDroppedOneByOne) {
  // 300 cut below the header; 400 with its Packet_Size field inverted.
  const int code = stream_through({"--truncate", "300", "--truncate-to", "40", "--corrupt", "400",
                                   "--corrupt-offset", "12", "--corrupt-len", "2"});
  EXPECT_EQ(2 * 1408 / 128, code);
  expect_bridged_gaps(2);
}

TEST_F(Loss, GapAbove5120BytesEndsTheRun) {
  const int code = stream_through({"--drop", "300-307"});  // 4 x 1408 + 4 x 512 = 7680 bytes
  EXPECT_EQ(100 + 7680 / 128, code) << "the run ended by itself and recorded the 7680-byte gap";
}

}  // namespace
