// PCM geometry (period, start chunks, ring and thresholds) and the buffer-level clock steering:
// classification, requests to the genlock service and the sampling cadence.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "qb_audio_buf.h"
#include "qb_audio_oper.h"
#include "qb_audio_oper_steer.h"
#include "qb_si5351.h"
#include "test_oper_helpers.h"

namespace {

using engine_test::Log;

void make_ctrl(qb_audio_oper_ctrl_t* c, unsigned channels, unsigned rate, snd_pcm_format_t format) {
  qb_audio_oper_default(c);
  c->rhwparams = {format, channels, rate};
  c->hwparams = c->rhwparams;
  c->buffer_time = 200000;
}

TEST(OperGeometry, PeriodTimeTable) {
  struct Row {
    unsigned channels, rate;
    snd_pcm_format_t format;
    unsigned buffer_time, period;
  } const rows[] = {
      {2, 48000, SND_PCM_FORMAT_S24_LE, 200000, 5000},  {8, 88200, SND_PCM_FORMAT_S24_LE, 200000, 5000},
      {8, 96000, SND_PCM_FORMAT_S24_LE, 200000, 4000},  {8, 96000, SND_PCM_FORMAT_S16_LE, 200000, 5000},
      {8, 176400, SND_PCM_FORMAT_S24_LE, 200000, 2500}, {8, 192000, SND_PCM_FORMAT_S24_LE, 200000, 2000},
      {8, 192000, SND_PCM_FORMAT_S16_LE, 200000, 4000}, {6, 192000, SND_PCM_FORMAT_S24_LE, 200000, 5000},
      {2, 48000, SND_PCM_FORMAT_S24_LE, 30000, 7500},   {8, 192000, SND_PCM_FORMAT_S24_LE, 30000, 2000},
      {8, 48000, SND_PCM_FORMAT_S24_LE, 30000, 7500},
  };
  for (const Row& r : rows) {
    qb_audio_oper_ctrl_t c;
    make_ctrl(&c, r.channels, r.rate, r.format);
    c.buffer_time = r.buffer_time;
    EXPECT_EQ(r.period, get_period_time_play(&c)) << r.channels << "ch " << r.rate << " " << r.buffer_time;
  }
  Log log;
  qb_audio_oper_ctrl_t c;
    make_ctrl(&c, 2, 48000, SND_PCM_FORMAT_S24_LE);
  c.buffer_time = 30000;
  get_period_time_play(&c);
  EXPECT_EQ(AM_LOG_LEVEL_ERROR, log.level_of("buffer time:30000 less than 40000"));
}

TEST(OperGeometry, StartChunksTable) {
  struct Row {
    unsigned channels, rate;
    snd_pcm_format_t format;
    int chunks;
  } const rows[] = {
      {2, 48000, SND_PCM_FORMAT_S24_LE, 6},   {8, 48000, SND_PCM_FORMAT_S24_LE, 6},
      {8, 96000, SND_PCM_FORMAT_S24_LE, 8},   {8, 96000, SND_PCM_FORMAT_S16_LE, 6},
      {8, 176400, SND_PCM_FORMAT_S16_LE, 7},  {8, 176400, SND_PCM_FORMAT_S24_LE, 14},
      {8, 192000, SND_PCM_FORMAT_S16_LE, 9},  {8, 192000, SND_PCM_FORMAT_S24_LE, 18},
      {6, 192000, SND_PCM_FORMAT_S24_LE, 6},
  };
  for (const Row& r : rows) {
    qb_audio_oper_ctrl_t c;
    make_ctrl(&c, r.channels, r.rate, r.format);
    EXPECT_EQ(r.chunks, get_start_chunks(&c)) << r.channels << "ch " << r.rate;
  }
}

TEST(OperGeometry, WorkedExampleRingAndThresholds) {
  qb_audio_oper_ctrl_t c;
    make_ctrl(&c, 2, 48000, SND_PCM_FORMAT_S24_LE);
  c.chunk_size = 240;
  c.chunk_bytes = 1920;
  c.buffer_frames = 9600;
  EXPECT_EQ(1440u, get_start_threshold_play(&c));
  c.start_delay = 1440;
  ASSERT_EQ(0, set_buffer_param(&c));
  ASSERT_NE(nullptr, c.pAudBuf);
  EXPECT_EQ(70u, c.pAudBuf->slot_count());
  EXPECT_EQ(70, c.maxFrmNum);
  EXPECT_EQ(1920, c.incStartNum);
  EXPECT_EQ(1680, c.incStopNum);
  EXPECT_EQ(960, c.decStartNum);
  EXPECT_EQ(1200, c.decStopNum);
  EXPECT_EQ(2000u, c.adjustWaitCnt);
  EXPECT_EQ(1, c.syncSend);
  ASSERT_NE(nullptr, c.arrChunkNum);
  delete c.pAudBuf;
}

TEST(OperGeometry, RingHasAtLeastSixtySlotsAndStartIsCappedByTheBuffer) {
  qb_audio_oper_ctrl_t c;
    make_ctrl(&c, 2, 48000, SND_PCM_FORMAT_S24_LE);
  c.chunk_size = 240;
  c.chunk_bytes = 1920;
  c.buffer_frames = 1000;
  EXPECT_EQ(1000u, get_start_threshold_play(&c));
  c.start_delay = 241;  // two chunks rounded up: 2 x 10 + 10 = 30, raised to 60
  c.buffer_time = 70000;
  set_buffer_param(&c);
  EXPECT_EQ(60u, c.pAudBuf->slot_count());
  EXPECT_EQ(0, c.syncSend);
  delete c.pAudBuf;
  make_ctrl(&c, 8, 192000, SND_PCM_FORMAT_S24_LE);
  c.chunk_size = 384;
  c.chunk_bytes = 12288;
  c.start_delay = 18 * 384;
  set_buffer_param(&c);
  EXPECT_EQ(190u, c.pAudBuf->slot_count());
  EXPECT_EQ(20 * 384, c.incStartNum);
  EXPECT_EQ(17 * 384, c.decStopNum);
  delete c.pAudBuf;
}

TEST(OperGeometry, DelayBetweenDatagrams) {
  qb_audio_oper_ctrl_t c;
    make_ctrl(&c, 2, 48000, SND_PCM_FORMAT_S24_LE);
  c.period_time = 5000;
  c.chunk_bytes = 1920;
  c.pktSize = 1408;
  EXPECT_EQ(1500, get_delay_usec(&c));  // 3000 us over 2 datagrams
  c.chunk_bytes = 12288;
  EXPECT_EQ(333, get_delay_usec(&c));
  c.period_time = 10;
  EXPECT_EQ(20, get_delay_usec(&c));
}

// A socket connected to a local receiver stands in for the genlock client socket.
class Genlock : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(receiver.ok());
    struct sockaddr_in local;
    socklen_t len = sizeof(local);
    getsockname(receiver.fd(), reinterpret_cast<sockaddr*>(&local), &len);
    client = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_EQ(0, connect(client, reinterpret_cast<sockaddr*>(&local), sizeof(local)));
    make_ctrl(&ctrl, 2, 48000, SND_PCM_FORMAT_S24_LE);
    ctrl.clifd = client;
    ctrl.file_param_num = 2;
    ctrl.chunk_size = 240;
    ctrl.incStopNum = 1680;
    ctrl.decStopNum = 1200;
  }
  void TearDown() override { close(client); }

  // Commands received so far (first word of each request).
  std::vector<int> requests() {
    std::vector<int> out;
    std::vector<uint8_t> d;
    while (receiver.receive(&d, 50)) {
      if (d.size() >= 12) {
        int32_t words[3];
        std::memcpy(words, d.data(), sizeof(words));
        EXPECT_EQ(2, words[1]);  // the engine's channel
        out.push_back(words[0]);
      }
    }
    return out;
  }
  void average(qb_u64_t avg) {
    ctrl.sumLatency = avg * 10;
    ctrl.latencyCnt = 10;
  }

  am_test::UdpReceiver receiver{0};
  int client = -1;
  qb_audio_oper_ctrl_t ctrl;
  Log log;
};

TEST_F(Genlock, AverageIsClassifiedAgainstTheThresholds) {
  struct Row {
    qb_u64_t avg;
    MCLK_STATE_E state;
  } const rows[] = {{1680, MCLK_STATE_INC}, {5000, MCLK_STATE_INC}, {1679, MCLK_STATE_RESET},
                    {1201, MCLK_STATE_RESET}, {1200, MCLK_STATE_DEC}, {0, MCLK_STATE_DEC}};
  for (const Row& r : rows) {
    average(r.avg);
    check_alsa_buffer_status(&ctrl);
    EXPECT_EQ(r.state, ctrl.mclkState) << r.avg;
    EXPECT_EQ(r.avg, ctrl.lastAdjustAvg);
  }
  EXPECT_EQ(1, log.count("mclk ch:2 status switch check to increase, avgVal:1680"));
  EXPECT_EQ(1, log.count("mclk ch:2 status switch increase to reset, avgVal:1679"));
  EXPECT_EQ(1, log.count("mclk ch:2 status switch reset to decrease, avgVal:1200"));
  EXPECT_STREQ("unknown", get_mclk_status(static_cast<MCLK_STATE_E>(7)));
}

TEST_F(Genlock, EveryEvaluationSendsItsRequestEvenWithoutAChange) {
  check_5351_status(&ctrl);  // check: nothing
  ctrl.mclkState = MCLK_STATE_INC;
  check_5351_status(&ctrl);
  check_5351_status(&ctrl);
  ctrl.mclkState = MCLK_STATE_DEC;
  check_5351_status(&ctrl);
  ctrl.mclkState = MCLK_STATE_RESET;
  check_5351_status(&ctrl);
  EXPECT_EQ((std::vector<int>{QB_SI5351_SET_INC, QB_SI5351_SET_INC, QB_SI5351_SET_DEC, QB_SI5351_SET_RESET}),
            requests());
}

TEST_F(Genlock, FirstEvaluationAfterTenSamplesThenEveryTen) {
  playback_steer_t steer{};
  for (int s = 0; s < 9; ++s) playback_latency_add_sample(&ctrl, 1700, 0);
  steer.written_chunks = 5;
  playback_steer_pass(&ctrl, &steer);
  EXPECT_EQ(MCLK_STATE_CHECK, ctrl.mclkState);  // nine samples: no evaluation
  playback_latency_add_sample(&ctrl, 1700, 0);
  playback_steer_pass(&ctrl, &steer);
  EXPECT_EQ(MCLK_STATE_INC, ctrl.mclkState);
  EXPECT_EQ(0u, ctrl.latencyCnt);
  EXPECT_EQ(0u, ctrl.sumLatency);
  EXPECT_EQ(std::vector<int>{QB_SI5351_SET_INC}, requests());
  // No chunks written in a pass: no evaluation even with ten samples.
  for (int s = 0; s < 10; ++s) playback_latency_add_sample(&ctrl, 1000, 0);
  steer.written_chunks = 0;
  playback_steer_pass(&ctrl, &steer);
  EXPECT_EQ(MCLK_STATE_INC, ctrl.mclkState);
}

TEST_F(Genlock, SampleAddsParkedChunksAndWarnsOnAShallowDevice) {
  playback_latency_add_sample(&ctrl, 900, 3);
  EXPECT_EQ(900u + 3u * 240u, ctrl.sumLatency);
  EXPECT_EQ(1, log.count("ch:2, sndDelay=900 bufSize=3"));
  playback_latency_add_sample(&ctrl, 960, 0);
  EXPECT_EQ(1, log.count_prefix("ch:2, sndDelay"));
  EXPECT_EQ(2u, ctrl.latencyCnt);
}

TEST_F(Genlock, SampleWithoutDeviceIsSkippedButCountersRestart) {
  playback_steer_t steer{};
  steer.recv_calls = 30;
  steer.written_chunks = kSteerSampleChunks;
  playback_steer_pass(&ctrl, &steer);
  EXPECT_EQ(1, log.count("snd_pcm_avail_delay err"));
  EXPECT_EQ(0u, ctrl.latencyCnt);
  EXPECT_EQ(0u, steer.recv_calls);
  EXPECT_EQ(0u, steer.written_chunks);
}

TEST_F(Genlock, OneTimeResetIsSentOnceWhileInResetState) {
  playback_steer_t steer{};
  ctrl.mclkState = MCLK_STATE_RESET;
  for (int s = 0; s < 4; ++s) playback_latency_add_sample(&ctrl, 1400, 0);
  playback_steer_pass(&ctrl, &steer);
  EXPECT_TRUE(requests().empty());  // four samples are not enough
  playback_latency_add_sample(&ctrl, 1400, 0);
  playback_steer_pass(&ctrl, &steer);
  playback_steer_pass(&ctrl, &steer);
  EXPECT_EQ(std::vector<int>{QB_SI5351_SET_RESET}, requests());
  // In another state the chance passes without a request.
  playback_steer_t other{};
  ctrl.mclkState = MCLK_STATE_INC;
  playback_steer_pass(&ctrl, &other);
  EXPECT_TRUE(other.reset_sent);
  EXPECT_TRUE(requests().empty());
}

}  // namespace
