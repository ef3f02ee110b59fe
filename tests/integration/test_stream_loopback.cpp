// End to end: a capture engine in one network namespace streams the virtual card's test pattern to
// a playback engine in another; the receiver's card must play a contiguous, bit-exact copy.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "am_log.h"
#include "am_platform.h"
#include "am_test_env.h"
#include "am_test_paths.h"
#include "qb_audio_main.h"
#include "qb_audio_misc.h"
#include "qb_audio_oper.h"
#include "test_stream_helpers.h"

namespace {

constexpr const char* kGroup = "239.77.0.1";
constexpr uint32_t kFrameMask = 0x1FFFFF;  // the pattern's frame counter in S24_LE samples

std::string amsim_conf() { return std::string(am_test::kLibDir) + "/asound.conf"; }

bool have_card() { return access(amsim_conf().c_str(), R_OK) == 0; }

int sh(const std::string& cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()); }

// eth0 in both namespaces on one veth pair, with the multicast route.
bool link_namespaces(const am_test::NetNs& a, const am_test::NetNs& b) {
  return sh("ip -n " + a.name() + " link add eth0 type veth peer name eth0 netns " + b.name()) == 0 &&
         sh("ip -n " + a.name() + " addr add 10.77.9.1/24 dev eth0") == 0 &&
         sh("ip -n " + b.name() + " addr add 10.77.9.2/24 dev eth0") == 0 &&
         sh("ip -n " + a.name() + " link set eth0 up") == 0 && sh("ip -n " + b.name() + " link set eth0 up") == 0 &&
         sh("ip -n " + a.name() + " route add 224.0.0.0/4 dev eth0") == 0 &&
         sh("ip -n " + b.name() + " route add 224.0.0.0/4 dev eth0") == 0;
}

void use_card(const am_test::TempRoot& root) {
  setenv("ALSA_CONFIG_PATH", ("/usr/share/alsa/alsa.conf:" + amsim_conf()).c_str(), 1);
  setenv("HOME", root.at("/home").c_str(), 1);
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

std::atomic<int> g_underruns{0};
void count_underruns(int, const char* message, void*) {
  if (std::strncmp(message, "prepare ok after xrun, continue", 31) == 0) ++g_underruns;
}

// Runs one engine for `ms` milliseconds, then stops it. The capture run's result (offset by 100
// when negative), or the number of underruns the playback run recovered from.
int run_engine_for(bool capture, int ms, int receiver_rate_code = 2) {
  am_log_set_observer(count_underruns, nullptr);
  audio_board_id_set(1);
  qb_audio_misc_init();
  qb_audio_info r = stereo_48k();
  if (!capture) r.SampleFrequency = static_cast<qb_s8_t>(receiver_rate_code);
  qb_audio_channel_state_set(capture ? QB_AUDIO_CHN_NSO1 : QB_AUDIO_CHN_NSI1, &r);
  static qb_audio_oper_ctrl_t ctrl;
  std::atomic<bool> stop{false};
  std::thread genlock(stream_test::fake_genlock, &stop);
  std::atomic<int> result{99};
  std::thread engine([&] {
    result = capture ? qb_audio_oper_capture(&ctrl, "hw:1,0", kGroup) : qb_audio_oper_playback(&ctrl, "hw:1,0", kGroup);
  });
  for (int waited = 0; waited < ms && result.load() == 99; waited += 10) usleep(10000);
  qb_audio_oper_abort(&ctrl);
  engine.join();
  if (!capture && receiver_rate_code != 2) {
    // The run must have ended by itself on the new format, which the channel now holds.
    qb_audio_info now;
    qb_audio_channel_state_copy(QB_AUDIO_CHN_NSI1, &now);
    stop = true;
    genlock.join();
    return now.SampleFrequency == 2 && ctrl.audio_info_head.Sample_Frequency == 2 ? 0 : 98;
  }
  stop = true;
  genlock.join();
  if (!capture) {
    return result.load() == 0 ? (g_underruns.load() < 50 ? g_underruns.load() : 50) : 99;
  }
  return result.load() < 0 ? 100 - result.load() : result.load();
}

TEST(StreamLoopback, ReceiverPlaysAContiguousBitExactCopyOfThePattern) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  if (!have_card()) GTEST_SKIP() << "the virtual sound card is not built";
  am_test::TempRoot root({"dev", "tmp", "home", "misc"});
  ASSERT_TRUE(root.ok());
  am_test::NetNs tx;
  am_test::NetNs rx;
  ASSERT_TRUE(tx.ok() && rx.ok());
  ASSERT_TRUE(link_namespaces(tx, rx));
  use_card(root);
  setenv("AMSIM_OUTFILE_PLAY1", "/tmp/play1.raw", 1);

  std::atomic<int> underruns{-1};
  std::thread receiver([&] { underruns = rx.run([] { return run_engine_for(false, 6000); }, 20000); });
  usleep(1500 * 1000);  // the receiver joins the group first
  const int sent = tx.run([] { return run_engine_for(true, 3000); }, 20000);
  receiver.join();
  ASSERT_GE(underruns.load(), 0);
  ASSERT_LT(underruns.load(), 50);
  EXPECT_EQ(101, sent) << "the capture run ends through its stop flag (-1)";

  const std::string played = am_test::read_file(root.at("/tmp/play1.raw"));
  ASSERT_GT(played.size(), 48000u * 8u) << "at least one second played";
  const auto* s = reinterpret_cast<const uint8_t*>(played.data());
  const size_t frames = played.size() / 8;
  auto sample = [&](size_t f, int ch) {
    uint32_t v;
    std::memcpy(&v, s + f * 8 + ch * 4, 4);
    return v;
  };
  size_t first = 0;
  while (first < frames && sample(first, 0) == 0 && sample(first, 1) == 0) ++first;
  ASSERT_LT(first, frames);
  const uint32_t f0 = sample(first, 0) & kFrameMask;
  // Every frame is a pattern frame in order; an underrun the receiver recovered from drops the
  // chunk it was writing, so the copy may skip whole chunks there and nowhere else.
  size_t good = 0;
  int skips = 0;
  uint32_t want = f0;
  size_t f = first;
  for (; f < frames; ++f) {
    const uint32_t c0 = sample(f, 0);
    const uint32_t c1 = sample(f, 1);
    if (c0 == 0 && c1 == 0) break;  // the end of the stream: silence
    if (c0 != want) {
      const uint32_t jump = (c0 - want) & kFrameMask;
      ASSERT_EQ(0u, jump % 240) << "frame " << f << ": a skip of whole chunks only";
      ++skips;
      want = c0;
    }
    ASSERT_EQ(want | (1u << 21) | (0x20u << 24), c1) << "frame " << f;  // channel 1, tag 0x20
    want = (want + 1) & kFrameMask;
    ++good;
  }
  EXPECT_LE(skips, underruns.load()) << "skips only where the device underran";
  EXPECT_GT(good, 48000u * 2u) << "two seconds of contiguous audio";
  for (; f < frames; ++f) {
    ASSERT_EQ(0u, sample(f, 0) | sample(f, 1)) << "only silence after the stream, frame " << f;
  }
}

TEST(StreamLoopback, NewFormatIsAdoptedAndEndsTheRun) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  if (!have_card()) GTEST_SKIP() << "the virtual sound card is not built";
  am_test::TempRoot root({"dev", "tmp", "home", "misc"});
  ASSERT_TRUE(root.ok());
  am_test::NetNs tx;
  am_test::NetNs rx;
  ASSERT_TRUE(tx.ok() && rx.ok());
  ASSERT_TRUE(link_namespaces(tx, rx));
  use_card(root);
  // The receiver expects 96 kHz; the sender sends 48 kHz.
  std::atomic<int> adopted{-1};
  std::thread receiver([&] { adopted = rx.run([] { return run_engine_for(false, 8000, 10); }, 20000); });
  usleep(1500 * 1000);
  tx.run([] { return run_engine_for(true, 2000); }, 20000);
  receiver.join();
  EXPECT_EQ(0, adopted.load()) << "the receiver's run ended on the new header and the channel holds it";
}

}  // namespace
