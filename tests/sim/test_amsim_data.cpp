// What the virtual sound card moves: the capture test pattern, the looped input file, the
// recorded output, the time log, and the negotiation the audio engine runs.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "test_amsim_support.h"

namespace amsim_test {
namespace {

class AmsimData : public AmsimEnv {};

std::vector<uint8_t> capture(const char* device, const PcmSetup& s, size_t frames) {
  std::vector<uint8_t> buf(frames * frame_bytes(s));
  snd_pcm_t* pcm = open_pcm(device, SND_PCM_STREAM_CAPTURE, s);
  if (pcm == nullptr) return {};
  size_t done = 0;
  while (done < frames) {
    snd_pcm_sframes_t n = snd_pcm_readi(pcm, buf.data() + done * frame_bytes(s), frames - done);
    if (n < 0) {
      ADD_FAILURE() << snd_strerror(static_cast<int>(n));
      break;
    }
    done += static_cast<size_t>(n);
  }
  snd_pcm_close(pcm);
  return buf;
}

uint32_t sample_at(const std::vector<uint8_t>& buf, const PcmSetup& s, size_t frame, unsigned ch) {
  size_t width = static_cast<size_t>(snd_pcm_format_physical_width(s.format)) / 8;
  const uint8_t* p = buf.data() + frame * frame_bytes(s) + ch * width;
  uint32_t v = 0;
  for (size_t i = 0; i < width; i++) v |= static_cast<uint32_t>(p[i]) << (8 * i);
  return v;
}

struct PatternCase {
  snd_pcm_format_t format;
  unsigned channels;
  unsigned frame_bits;
};

TEST_F(AmsimData, CapturePatternCarriesFrameAndChannelAndRoundTripsThroughOutfile) {
  set_env("AMSIM_OUTFILE_PLAY2", "/tmp/amsim/%d%c.raw");
  const PatternCase cases[] = {
      {SND_PCM_FORMAT_S24_LE, 2, 21}, {SND_PCM_FORMAT_S24_LE, 8, 21}, {SND_PCM_FORMAT_S16_LE, 6, 13}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.channels);
    PcmSetup s;
    s.format = c.format;
    s.channels = c.channels;
    const size_t frames = 12000;  // more than one buffer, wraps the 16-bit frame field
    std::vector<uint8_t> got = capture("hw:1,0", s, frames);
    ASSERT_EQ(got.size(), frames * frame_bytes(s));
    int bad = 0;
    for (size_t f = 0; f < frames; f++) {
      for (unsigned ch = 0; ch < c.channels; ch++) {
        uint32_t want = (ch << c.frame_bits) | static_cast<uint32_t>(f & ((1u << c.frame_bits) - 1));
        if (sample_at(got, s, f, ch) != want && bad++ < 5)
          ADD_FAILURE() << "frame " << f << " channel " << ch << ": " << sample_at(got, s, f, ch);
      }
    }
    EXPECT_EQ(bad, 0);

    snd_pcm_t* play = open_pcm("hw:2,0", SND_PCM_STREAM_PLAYBACK, s);
    ASSERT_NE(play, nullptr);
    ASSERT_EQ(write_all(play, got.data(), frames, frame_bytes(s)), static_cast<long>(frames));
    EXPECT_EQ(snd_pcm_drain(play), 0);
    snd_pcm_close(play);
    EXPECT_EQ(read_file(board("/tmp/amsim/play2.raw")), got);
  }
}

TEST_F(AmsimData, InfileIsCapturedInALoop) {
  PcmSetup s;
  s.format = SND_PCM_FORMAT_S16_LE;
  std::vector<uint8_t> pattern(100 * frame_bytes(s));
  for (size_t i = 0; i < pattern.size(); i++) pattern[i] = static_cast<uint8_t>(i * 7 + 3);
  ASSERT_TRUE(write_file(board("/tmp/in3.raw"), pattern.data(), pattern.size()));
  set_env("AMSIM_INFILE_CAP3", "${AUDIO_MANAGER_ROOT}/tmp/in3.raw");
  std::vector<uint8_t> got = capture("hw:3,0", s, 250);
  ASSERT_EQ(got.size(), 250 * frame_bytes(s));
  for (size_t i = 0; i < got.size(); i++) {
    ASSERT_EQ(got[i], pattern[i % pattern.size()]) << "byte " << i;
  }
  set_env("AMSIM_INFILE_CAP3", "/tmp/missing.raw");
  snd_pcm_t* pcm = nullptr;
  EXPECT_LT(snd_pcm_open(&pcm, "hw:3,0", SND_PCM_STREAM_CAPTURE, 0), 0);
}

TEST_F(AmsimData, TimelogRecordsPositionAndMonotonicTime) {
  set_env("AMSIM_TIMELOG_PLAY1", "/tmp/amsim/play%c.log");
  PcmSetup s;
  snd_pcm_t* pcm = open_pcm("hw:1,0", SND_PCM_STREAM_PLAYBACK, s);
  ASSERT_NE(pcm, nullptr);
  int64_t t0 = now_ns();
  ASSERT_EQ(write_all(pcm, nullptr, 24000, frame_bytes(s)), 24000);
  EXPECT_EQ(snd_pcm_drain(pcm), 0);
  int64_t t1 = now_ns();
  snd_pcm_close(pcm);

  std::ifstream in(board("/tmp/amsim/play1.log"));
  std::vector<std::pair<long long, long long>> lines;
  long long pos = 0, ns = 0;
  while (in >> pos >> ns) lines.emplace_back(pos, ns);
  ASSERT_GE(lines.size(), 6u);
  EXPECT_EQ(lines.front().first, 0);
  EXPECT_GE(lines.front().second, t0);
  EXPECT_LE(lines.back().second, t1);
  EXPECT_EQ(lines.back().first, 24000);  // the stop line
  for (size_t i = 1; i + 1 < lines.size(); i++) {
    EXPECT_EQ(lines[i].first, static_cast<long long>(i) * 4800);
    EXPECT_NEAR(static_cast<double>(lines[i].second - lines[i - 1].second), 1e8, 2.0);
  }
}

struct NegotiationCase {
  unsigned rate;
  snd_pcm_format_t format;
  unsigned channels;
};

// The playback set-up of the audio engine: the largest buffer time, rounded down to 10 ms and
// capped at 200 ms, with a 5 ms period.
TEST_F(AmsimData, EngineNegotiationGetsTwoHundredMillisecondBuffers) {
  const unsigned rates[] = {44100, 48000, 88200, 96000, 176400, 192000};
  const snd_pcm_format_t formats[] = {SND_PCM_FORMAT_S16_LE, SND_PCM_FORMAT_S24_LE};
  const unsigned channel_counts[] = {2, 6, 8};
  for (unsigned rate : rates) {
    for (snd_pcm_format_t format : formats) {
      for (unsigned channels : channel_counts) {
        SCOPED_TRACE(testing::Message() << rate << " Hz " << channels << " ch "
                                        << snd_pcm_format_name(format));
        snd_pcm_t* pcm = nullptr;
        ASSERT_EQ(snd_pcm_open(&pcm, "hw:1,0", SND_PCM_STREAM_PLAYBACK, 0), 0);
        snd_pcm_hw_params_t* hw;
        snd_pcm_hw_params_alloca(&hw);
        int dir = 0;
        unsigned r = rate, max_time = 0;
        ASSERT_GE(snd_pcm_hw_params_any(pcm, hw), 0);
        ASSERT_EQ(snd_pcm_hw_params_set_access(pcm, hw, SND_PCM_ACCESS_RW_INTERLEAVED), 0);
        ASSERT_EQ(snd_pcm_hw_params_set_format(pcm, hw, format), 0);
        ASSERT_EQ(snd_pcm_hw_params_set_channels(pcm, hw, channels), 0);
        ASSERT_EQ(snd_pcm_hw_params_set_rate_near(pcm, hw, &r, &dir), 0);
        ASSERT_EQ(r, rate);
        ASSERT_EQ(snd_pcm_hw_params_get_buffer_time_max(hw, &max_time, &dir), 0);
        EXPECT_GE(max_time, 200000u);
        unsigned period = 5000, buffer = 200000;
        dir = 0;
        ASSERT_EQ(snd_pcm_hw_params_set_period_time_near(pcm, hw, &period, &dir), 0);
        dir = 0;
        ASSERT_EQ(snd_pcm_hw_params_set_buffer_time_near(pcm, hw, &buffer, &dir), 0);
        ASSERT_EQ(snd_pcm_hw_params(pcm, hw), 0);
        snd_pcm_uframes_t period_frames = 0, buffer_frames = 0;
        snd_pcm_hw_params_get_period_size(hw, &period_frames, &dir);
        snd_pcm_hw_params_get_buffer_size(hw, &buffer_frames);
        EXPECT_EQ(period_frames, rate / 200);
        EXPECT_EQ(buffer_frames, rate / 5);
        snd_pcm_close(pcm);
      }
    }
  }
}

TEST_F(AmsimData, RefusesWhatTheBoardDoesNotOffer) {
  snd_pcm_t* pcm = nullptr;
  ASSERT_EQ(snd_pcm_open(&pcm, "hw:1,0", SND_PCM_STREAM_PLAYBACK, 0), 0);
  snd_pcm_hw_params_t* hw;
  snd_pcm_hw_params_alloca(&hw);
  ASSERT_GE(snd_pcm_hw_params_any(pcm, hw), 0);
  EXPECT_LT(snd_pcm_hw_params_test_format(pcm, hw, SND_PCM_FORMAT_S32_LE), 0);
  EXPECT_LT(snd_pcm_hw_params_test_channels(pcm, hw, 4), 0);
  EXPECT_LT(snd_pcm_hw_params_test_rate(pcm, hw, 32000, 0), 0);
  EXPECT_EQ(snd_pcm_hw_params_test_rate(pcm, hw, 176400, 0), 0);
  snd_pcm_close(pcm);
}

}  // namespace
}  // namespace amsim_test
