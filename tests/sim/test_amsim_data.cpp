// What the virtual sound card moves: the capture test pattern, the looped input file, the
// recorded output, the time log, and the negotiation the audio engine runs.
#include "test_amsim_support.h"

namespace amsim_test {
namespace {

class AmsimData : public AmsimEnv {};

std::vector<uint8_t> capture(const char* device, const PcmSetup& s, size_t frames) {
  std::vector<uint8_t> buf(frames * s.frame_bytes());
  snd_pcm_t* pcm = open_pcm(device, SND_PCM_STREAM_CAPTURE, s);
  if (pcm == nullptr) return {};
  const long n = read_all(pcm, buf.data(), frames, s.frame_bytes());
  EXPECT_EQ(n, static_cast<long>(frames)) << snd_strerror(static_cast<int>(n));
  snd_pcm_close(pcm);
  return buf;
}

TEST_F(AmsimData, CapturePatternCarriesFrameAndChannelAndRoundTripsThroughOutfile) {
  set_env("AMSIM_OUTFILE_PLAY2", "/tmp/amsim/%d%c.raw");
  set_env("AMSIM_TIMELOG_PLAY2", "/tmp/amsim/%d%c.log");
  struct Row {
    snd_pcm_format_t format;
    unsigned channels;
    unsigned frame_bits;
  };
  for (const Row& c : {Row{SND_PCM_FORMAT_S24_LE, 2, 21}, Row{SND_PCM_FORMAT_S24_LE, 8, 21},
                       Row{SND_PCM_FORMAT_S16_LE, 6, 13}}) {
    SCOPED_TRACE(testing::Message() << c.channels << " ch " << snd_pcm_format_name(c.format));
    PcmSetup s;
    s.format = c.format;
    s.channels = c.channels;
    const size_t frames = 12000;  // more than one buffer, wraps the 16-bit frame field
    const size_t width = static_cast<size_t>(snd_pcm_format_physical_width(s.format)) / 8;
    std::vector<uint8_t> got = capture("hw:1,0", s, frames);
    ASSERT_EQ(got.size(), frames * s.frame_bytes());
    int bad = 0;
    for (size_t f = 0; f < frames; f++) {
      for (unsigned ch = 0; ch < c.channels; ch++) {
        const uint8_t* p = got.data() + f * s.frame_bytes() + ch * width;
        uint32_t v = 0;
        for (size_t i = 0; i < width; i++) v |= static_cast<uint32_t>(p[i]) << (8 * i);
        const uint32_t want = (ch << c.frame_bits) | (f & ((1u << c.frame_bits) - 1));
        if (v != want && bad++ < 5) ADD_FAILURE() << "frame " << f << " ch " << ch << ": " << v;
      }
    }
    EXPECT_EQ(bad, 0);

    snd_pcm_t* play = open_pcm("hw:2,0", SND_PCM_STREAM_PLAYBACK, s);
    ASSERT_NE(play, nullptr);
    const int64_t t0 = now_ns();
    ASSERT_EQ(write_all(play, got.data(), frames, s.frame_bytes()), static_cast<long>(frames));
    EXPECT_EQ(snd_pcm_drain(play), 0);
    const int64_t t1 = now_ns();
    snd_pcm_close(play);
    EXPECT_EQ(am_test::read_file(board("/tmp/amsim/play2.raw")),
              std::string(got.begin(), got.end()));
    // Time log: a start line, one line per 4800 frames exactly 100 ms apart, a stop line.
    const auto lines = read_timelog(board("/tmp/amsim/play2.log"));
    const std::vector<long long> positions = {0, 4800, 9600, 12000};
    ASSERT_EQ(lines.size(), positions.size());
    for (size_t i = 0; i < lines.size(); i++) EXPECT_EQ(lines[i].first, positions[i]);
    EXPECT_GE(lines.front().second, t0);
    EXPECT_NEAR(static_cast<double>(lines[2].second - lines[1].second), 1e8, 2.0);
    EXPECT_LE(lines.back().second, t1);
  }
}

TEST_F(AmsimData, InfileIsCapturedInALoopAndAMissingOneRefusesTheOpen) {
  PcmSetup s;
  s.format = SND_PCM_FORMAT_S16_LE;
  std::vector<uint8_t> pattern(100 * s.frame_bytes());
  for (size_t i = 0; i < pattern.size(); i++) pattern[i] = static_cast<uint8_t>(i * 7 + 3);
  ASSERT_TRUE(write_file(board("/tmp/in3.raw"), pattern.data(), pattern.size()));
  set_env("AMSIM_INFILE_CAP3", "${AUDIO_MANAGER_ROOT}/tmp/in3.raw");
  std::vector<uint8_t> got = capture("hw:3,0", s, 250);
  ASSERT_EQ(got.size(), 250 * s.frame_bytes());
  for (size_t i = 0; i < got.size(); i++) ASSERT_EQ(got[i], pattern[i % pattern.size()]) << i;
  set_env("AMSIM_INFILE_CAP3", "/tmp/missing.raw");
  snd_pcm_t* pcm = nullptr;
  EXPECT_LT(snd_pcm_open(&pcm, "hw:3,0", SND_PCM_STREAM_CAPTURE, 0), 0);
}

// The playback set-up of the audio engine (the largest buffer time, rounded down to 10 ms and
// capped at 200 ms, with a 5 ms period) gets 200 ms buffers for everything the board offers,
// and nothing else is offered.
TEST_F(AmsimData, EngineNegotiationGetsTwoHundredMillisecondBuffers) {
  for (unsigned rate : {32000, 44100, 48000, 88200, 96000, 176400, 192000}) {
    for (snd_pcm_format_t format : {SND_PCM_FORMAT_S16_LE, SND_PCM_FORMAT_S24_LE,
                                    SND_PCM_FORMAT_S32_LE}) {
      for (unsigned channels : {2, 4, 6, 8}) {
        SCOPED_TRACE(testing::Message() << rate << " Hz " << channels << " ch "
                                        << snd_pcm_format_name(format));
        const bool offered =
            rate != 32000 && format != SND_PCM_FORMAT_S32_LE && channels != 4;
        snd_pcm_t* pcm = nullptr;
        ASSERT_EQ(snd_pcm_open(&pcm, "hw:1,0", SND_PCM_STREAM_PLAYBACK, 0), 0);
        snd_pcm_hw_params_t* hw;
        snd_pcm_hw_params_alloca(&hw);
        ASSERT_GE(snd_pcm_hw_params_any(pcm, hw), 0);
        const bool accepted =
            snd_pcm_hw_params_set_access(pcm, hw, SND_PCM_ACCESS_RW_INTERLEAVED) == 0 &&
            snd_pcm_hw_params_set_format(pcm, hw, format) == 0 &&
            snd_pcm_hw_params_set_channels(pcm, hw, channels) == 0 &&
            snd_pcm_hw_params_set_rate(pcm, hw, rate, 0) == 0;
        EXPECT_EQ(accepted, offered);
        if (accepted) {
          int dir = 0;
          unsigned max_time = 0, period = 5000, buffer = 200000;
          snd_pcm_uframes_t period_frames = 0, buffer_frames = 0;
          ASSERT_EQ(snd_pcm_hw_params_get_buffer_time_max(hw, &max_time, &dir), 0);
          EXPECT_GE(max_time, 200000u);
          ASSERT_EQ(snd_pcm_hw_params_set_period_time_near(pcm, hw, &period, &(dir = 0)), 0);
          ASSERT_EQ(snd_pcm_hw_params_set_buffer_time_near(pcm, hw, &buffer, &(dir = 0)), 0);
          ASSERT_EQ(snd_pcm_hw_params(pcm, hw), 0);
          snd_pcm_hw_params_get_period_size(hw, &period_frames, &dir);
          snd_pcm_hw_params_get_buffer_size(hw, &buffer_frames);
          EXPECT_EQ(period_frames, rate / 200);
          EXPECT_EQ(buffer_frames, rate / 5);
        }
        snd_pcm_close(pcm);
      }
    }
  }
}

}  // namespace
}  // namespace amsim_test
