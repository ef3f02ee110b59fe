// The audio engines' building blocks: the transport header and code tables, the sender's
// datagrams, the packet ring, the PCM geometry, the clock steering requests and the thread manager.
#include <arpa/inet.h>

#include <chrono>

#include "am_unit.h"
#include "qb_audio_buf.h"
#include "qb_audio_oper.h"
#include "qb_audio_oper_capture.h"
#include "qb_audio_oper_packet.h"
#include "qb_audio_oper_steer.h"
#include "qb_si5351.h"

namespace am_unit {
namespace {

audio_transport_head_t head_of(const Bytes& d) {
  audio_transport_head_t h;
  std::memcpy(&h, d.data(), sizeof h);
  return h;
}

TEST(OperPacket, HeaderBytesAndTheValuesTheSenderWrites) {
  qb_audio_oper_ctrl_t ctrl;
  qb_audio_oper_default(&ctrl);
  qb_audio_info r = make_record(10, 8, 0x80, 1);
  for (int i = 0; i < 5; ++i) {
    r.AUD_DB[i] = static_cast<qb_s8_t>(0xA0 + i);
    r.ChStat[i] = static_cast<qb_s8_t>(0xF0 + i);
  }
  audio_info_head_set(&ctrl, &r);
  audio_transport_head_t h = ctrl.audio_info_head;
  h.Packet_Size = 0x0580;
  h.Rolling_Sample_Data_Size_Total = 0x11223344;
  const auto* b = reinterpret_cast<const uint8_t*>(&h);
  ASSERT_EQ(56u, sizeof h);
  const std::pair<int, uint8_t> at[] = {{0, 0x44}, {1, 0x53}, {2, 0x32}, {3, 0x49}, {12, 0x80}, {13, 0x05},
                                        {51, 0xF4}, {52, 0x44}, {55, 0x11}};
  for (const auto& p : at) EXPECT_EQ(p.second, b[p.first]) << p.first;
  EXPECT_EQ(3900u, h.From);
  EXPECT_EQ((std::vector<int>{1, 2, 10, 8, 24, 0x80, 0}),
            (std::vector<int>{h.Audio_On, h.IO_In_Use, h.Sample_Frequency, h.Channels, h.Sample_Size,
                              h.Audio_Type, h.SPDIF}));  // SPDIF always 0
  EXPECT_EQ(0xA3, h.Audio_Info_Frame[3]);
  const audio_transport_head_t before = ctrl.audio_info_head;
  audio_info_head_set(&ctrl, nullptr);
  EXPECT_EQ(0, std::memcmp(&before, &ctrl.audio_info_head, sizeof before));

  // The change counter skips 0 when it wraps.
  const qb_u32_t saved = g_s32Audio_change.load();
  g_s32Audio_change.store(AUDIO_CHANGE_COUNTER_INIT);
  EXPECT_EQ(0x123457u, audio_change_counter_next());
  g_s32Audio_change.store(0xFFFFFFFEu);
  EXPECT_EQ(0xFFFFFFFFu, audio_change_counter_next());
  EXPECT_EQ(0x123456u, audio_change_counter_next());
  g_s32Audio_change.store(saved);
}

TEST(OperPacket, ChannelTagsOnTwoAndEightChannelsOnly) {
  uint8_t two[16], eight[64], six[24];
  std::memset(two, 0x7F, sizeof two);
  std::memset(eight, 0x55, sizeof eight);
  std::memset(six, 0x55, sizeof six);
  EXPECT_EQ(1, audio_channel_tags_write(two, sizeof two, 2, 32));
  for (int s = 0; s < 4; ++s) EXPECT_EQ((std::pair<int, int>{0x7F, s % 2 ? 0x20 : 0}), (std::pair<int, int>{two[s * 4], two[s * 4 + 3]}));
  EXPECT_EQ(1, audio_channel_tags_write(eight, sizeof eight, 8, 32));
  for (int s = 0; s < 16; ++s) EXPECT_EQ(AUDIO_CHANNEL_TAGS_8CH[s % 8], eight[s * 4 + 3]) << s;
  EXPECT_EQ(0, audio_channel_tags_write(six, sizeof six, 6, 32));
  EXPECT_EQ(0, audio_channel_tags_write(two, sizeof two, 2, 16));
  for (int s = 0; s < 6; ++s) EXPECT_EQ(0x55, six[s * 4 + 3]);
}

TEST(OperPacket, CodeTablesAndEncodingNames) {
  const int rates[][3] = {{0, 44100, 2}, {2, 48000, 4}, {3, 48000, 1}, {8, 88200, 8}, {10, 96000, 16},
                          {12, 176400, 32}, {14, 192000, 64}, {1, 48000, 4}, {255, 48000, 4}};
  for (const auto& r : rates) {
    EXPECT_EQ(static_cast<unsigned>(r[1]), audio_code_to_alsa_rate(static_cast<qb_u8_t>(r[0]))) << r[0];
    EXPECT_EQ(r[2], get_audio_samplerate(static_cast<qb_u8_t>(r[0]))) << r[0];
  }
  const int chans[][2] = {{2, 2}, {3, 6}, {4, 8}, {8, 8}, {0, 8}, {1, 8}, {9, 8}, {255, 8}};
  for (const auto& c : chans) EXPECT_EQ(static_cast<unsigned>(c[1]), audio_code_to_alsa_channels(static_cast<qb_u8_t>(c[0]))) << c[0];
  EXPECT_EQ(SND_PCM_FORMAT_S16_LE, audio_code_to_alsa_format(16));
  EXPECT_EQ(SND_PCM_FORMAT_S24_LE, audio_code_to_alsa_format(24));
  EXPECT_EQ(SND_PCM_FORMAT_S24_LE, audio_code_to_alsa_format(32));
  // The two decoder-code mappings differ at 4 and 16.
  EXPECT_STREQ("Unknown", audio_dsp_encoding_name(4));
  EXPECT_EQ(MIX_AUD_TRUEHD, get_audio_type_from_dsp(4));
  EXPECT_STREQ("DTS", audio_dsp_encoding_name(16));
  EXPECT_EQ(MIX_AUD_DTSHD, get_audio_type_from_dsp(16));
  const int dsp[][2] = {{-1, MIX_AUD_INVALID}, {0, MIX_AUD_AAC}, {40, MIX_AUD_DTDHDMA}, {41, MIX_AUD_INVALID}};
  for (const auto& c : dsp) EXPECT_EQ(c[1], get_audio_type_from_dsp(c[0])) << c[0];
  EXPECT_STREQ("DTS HD Master", audio_dsp_encoding_name(30));
  EXPECT_STREQ("Unknown", audio_dsp_encoding_name(41));
  for (int code : {0, 1, 2, 3, 4, 11, 12, 13, 14, 15}) EXPECT_TRUE(spdif_is_support(code)) << code;
  for (int code : {5, 10, 16, 20, -1, 255}) EXPECT_FALSE(arc_is_support(code)) << code;

  // Encoding names by port: NLPCM names only on network streams, LPCM except on the DSP port.
  qb_audio_info r = make_record(2, 2, 0x90);
  r.AUD_DB[0] = 3;
  char out[17];
  const struct { int port, type; const char* name; } names[] = {
      {7, 0x90, "Dolby Digit Plus"}, {1, 0x90, "Unknown"}, {5, 0x80, "LPCM"}, {4, 0x80, "Unknown"}};
  for (const auto& n : names) {
    r.Audio_Type = static_cast<qb_s8_t>(n.type);
    EXPECT_EQ(0, get_encodingType(n.port, &r, out));
    EXPECT_STREQ(n.name, out) << n.port;
  }
  EXPECT_EQ(-1, get_encodingType(1, nullptr, out));
  EXPECT_EQ(-1, get_encodingType(1, &r, nullptr));

  qb_audio_oper_ctrl_t ctrl;
  qb_audio_oper_default(&ctrl);
  r = make_record(3, 1, 0x80);
  r.SampleSize = 16;
  _file_param_set(&ctrl, &r);
  EXPECT_EQ(48000u, ctrl.hwparams.rate);  // 32 kHz plays at 48000
  EXPECT_EQ(8u, ctrl.hwparams.channels);
  EXPECT_EQ(SND_PCM_FORMAT_S16_LE, ctrl.rhwparams.format);
  EXPECT_EQ(1408, get_pkt_size(&ctrl));
}

TEST(OperDefaults, ArgumentChecksAndStreamNumbers) {
  qb_audio_oper_ctrl_t ctrl;
  ASSERT_EQ(0, qb_audio_oper_default(&ctrl));
  EXPECT_EQ(-1, qb_audio_oper_default(nullptr));
  EXPECT_EQ(-1, qb_audio_oper_capture(&ctrl, nullptr, "239.1.1.1"));
  EXPECT_EQ(-1, qb_audio_oper_capture(&ctrl, "hw:1,0", nullptr));
  EXPECT_EQ(-1, qb_audio_oper_capture(nullptr, "hw:1,0", "239.1.1.1"));
  EXPECT_EQ(-1, qb_audio_oper_playback(&ctrl, nullptr, "239.1.1.1"));
  EXPECT_EQ(-1, qb_audio_oper_playback(&ctrl, "hw:1,0", nullptr));
  const std::pair<const char*, int> devs[] = {{"hw:1,0", 1}, {"hw:2,0", 2}, {"hw:3,0", 3}, {"hw:0,0", 3}, {"hw:1", 3}};
  for (const auto& d : devs) EXPECT_EQ(d.second, qb_audio_oper_stream_of_device(d.first)) << d.first;
}

// A socket connected to a local receiver stands in for the engine's socket.
class Connected : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(receiver.ok());
    struct sockaddr_in local;
    socklen_t len = sizeof local;
    getsockname(receiver.fd(), reinterpret_cast<sockaddr*>(&local), &len);
    int size = 4 << 20;
    setsockopt(receiver.fd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&local), sizeof local));
    qb_audio_oper_default(&ctrl);
  }
  void TearDown() override { close(fd); }
  std::vector<Bytes> received(int wait_ms = 100) {
    std::vector<Bytes> out;
    Bytes d;
    while (receiver.receive(&d, wait_ms)) out.push_back(d);
    return out;
  }
  am_test::UdpReceiver receiver{0};
  int fd = -1;
  qb_audio_oper_ctrl_t ctrl;
};

class Sender : public Connected {
 protected:
  void SetUp() override {
    Connected::SetUp();
    ctrl.tx_fd = fd;
    ctrl.pktSize = 1408;
    net.assign(QB_AUDIO_BUF_DEFAULT_SIZE, 0);
    ctrl.net_audiobuf = net.data();
    const qb_audio_info r = make_record(2, 2, 0x80);
    audio_info_head_set(&ctrl, &r);
    for (size_t i = 0; i < pcm.size(); ++i) pcm[i] = static_cast<uint8_t>(i * 7 + 1);
  }
  Bytes net;
  Bytes pcm = Bytes(12288);
};

TEST_F(Sender, ChunksAreCutInto1408ByteDatagramsSentThreePerCall) {
  struct Case { size_t bytes; int calls; std::vector<size_t> sizes; };
  const Case cases[] = {{1920, 1, {1408, 512}}, {12288, 3, {1408, 1408, 1408, 1408, 1408, 1408, 1408, 1408, 1024}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    ctrl.rollingSampleDataSizeTotal = 0;
    EXPECT_EQ(c.calls, capture_send_chunk(&ctrl, pcm.data(), c.bytes));
    const auto got = received();
    ASSERT_EQ(c.sizes.size(), got.size());
    Bytes joined;
    for (size_t i = 0; i < got.size(); ++i) {
      EXPECT_EQ(c.sizes[i], head_of(got[i]).Packet_Size) << i;
      EXPECT_EQ(c.sizes[i] + 56, got[i].size()) << i;
      EXPECT_EQ(1408u * i, head_of(got[i]).Rolling_Sample_Data_Size_Total) << i;
      EXPECT_EQ(AUDIO_HEAD_MAGIC, head_of(got[i]).Magic);
      EXPECT_EQ(ctrl.audio_info_head.Cfg_Change_Number, head_of(got[i]).Cfg_Change_Number);
      joined.insert(joined.end(), got[i].begin() + 56, got[i].end());
    }
    EXPECT_EQ(Bytes(pcm.begin(), pcm.begin() + static_cast<long>(c.bytes)), joined);
    EXPECT_EQ(c.bytes, ctrl.rollingSampleDataSizeTotal);
  }
  // The counter runs on across chunks and wraps.
  ctrl.rollingSampleDataSizeTotal = 0xFFFFFF00u;
  capture_send_chunk(&ctrl, pcm.data(), 512);
  capture_send_chunk(&ctrl, pcm.data(), 512);
  const auto got = received();
  ASSERT_EQ(2u, got.size());
  EXPECT_EQ(0xFFFFFF00u, head_of(got[0]).Rolling_Sample_Data_Size_Total);
  EXPECT_EQ(0x100u, head_of(got[1]).Rolling_Sample_Data_Size_Total);
}

TEST_F(Sender, FailedSendsDoNotStopTheChunk) {
  close(ctrl.tx_fd);
  ctrl.tx_fd = fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);  // not connected: every send fails
  EXPECT_EQ(3, capture_send_chunk(&ctrl, pcm.data(), pcm.size()));
  EXPECT_EQ(12288u, ctrl.rollingSampleDataSizeTotal);
}

TEST(BufRing, CapacityRefusalsAndHandOut) {
  CAudioBuf ring(16, 4);
  ASSERT_TRUE(ring.is_valid());
  const std::vector<char> chunk(17, 1);
  EXPECT_EQ(-1, ring.push_data(chunk.data(), 17));  // larger than a slot
  EXPECT_EQ(0, ring.push_data(nullptr, 16));
  EXPECT_EQ(0, ring.push_data(chunk.data(), 0));
  EXPECT_EQ(0, ring.push_data(chunk.data(), -5));
  EXPECT_EQ(0, ring.get_buf_size());
  EXPECT_EQ(nullptr, ring.get_buf_data());
  ASSERT_EQ(0, ring.push_data("abcdefgh", 8));
  for (int i = 0; i < 2; ++i) EXPECT_EQ(0, ring.push_data(chunk.data(), 16));
  EXPECT_EQ(1, ring.buf_is_full());  // count - 1 chunks
  EXPECT_EQ(-1, ring.push_data(chunk.data(), 16));
  EXPECT_EQ(3, ring.get_buf_size());
  AUD_BUF_T* first = ring.get_buf_data();
  ASSERT_NE(nullptr, first);
  EXPECT_EQ("abcdefgh", std::string(first->buf, 8));
  EXPECT_EQ(8, first->data_size);
  EXPECT_EQ(nullptr, ring.get_buf_data());  // handed out once until released or given back
  EXPECT_EQ(0, ring.reset_buf_status(first));
  EXPECT_EQ(first, ring.get_buf_data());
  EXPECT_EQ(3, ring.get_buf_size());
  AUD_BUF_T stranger = *first;
  stranger.buf = nullptr;
  EXPECT_EQ(-1, ring.push_buf_free(&stranger));
  EXPECT_EQ(3, ring.get_buf_size());
  EXPECT_EQ(0, ring.push_buf_free(first));
  EXPECT_EQ(2, ring.get_buf_size());
  EXPECT_EQ(-1, ring.reset_buf_status(nullptr));
  EXPECT_EQ(-1, ring.push_buf_free(nullptr));
}

TEST(BufRing, OrderAndSizeAcrossWrapAround) {
  CAudioBuf ring(4, 5);
  for (int round = 0; round < 4; ++round) {  // both indices to 4
    ASSERT_EQ(0, ring.push_data("xxxx", 4));
    ASSERT_EQ(0, ring.push_buf_free(ring.get_buf_data()));
  }
  EXPECT_EQ(0, ring.get_buf_size());
  for (const char* s : {"0000", "1111", "2222", "3333"}) ASSERT_EQ(0, ring.push_data(s, 4));
  EXPECT_EQ(4, ring.get_buf_size());  // read index 4 > write index 3
  EXPECT_EQ(1, ring.buf_is_full());
  for (char expect : {'0', '1', '2', '3'}) {
    AUD_BUF_T* s = ring.get_buf_data();
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(expect, s->buf[0]);
    ASSERT_EQ(0, ring.push_buf_free(s));
  }
  EXPECT_EQ(0, ring.get_buf_size());
}

void make_ctrl(qb_audio_oper_ctrl_t* c, unsigned channels, unsigned rate, snd_pcm_format_t format) {
  qb_audio_oper_default(c);
  c->rhwparams = {format, channels, rate};
  c->hwparams = c->rhwparams;
  c->buffer_time = 200000;
}

TEST(OperGeometry, PeriodAndStartChunksByFormat) {
  struct Row { unsigned ch, rate; snd_pcm_format_t f; unsigned buffer_time, period; int chunks; };
  const Row rows[] = {
      {2, 48000, SND_PCM_FORMAT_S24_LE, 200000, 5000, 6},  {8, 88200, SND_PCM_FORMAT_S24_LE, 200000, 5000, 6},
      {8, 96000, SND_PCM_FORMAT_S24_LE, 200000, 4000, 8},  {8, 96000, SND_PCM_FORMAT_S16_LE, 200000, 5000, 6},
      {8, 176400, SND_PCM_FORMAT_S24_LE, 200000, 2500, 14}, {8, 176400, SND_PCM_FORMAT_S16_LE, 200000, 5000, 7},
      {8, 192000, SND_PCM_FORMAT_S24_LE, 200000, 2000, 18}, {8, 192000, SND_PCM_FORMAT_S16_LE, 200000, 4000, 9},
      {6, 192000, SND_PCM_FORMAT_S24_LE, 200000, 5000, 6},  {2, 48000, SND_PCM_FORMAT_S24_LE, 30000, 7500, 6},
      {8, 192000, SND_PCM_FORMAT_S24_LE, 30000, 2000, 18},  {8, 48000, SND_PCM_FORMAT_S24_LE, 30000, 7500, 6},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(testing::Message() << r.ch << "ch " << r.rate << " fmt " << r.f << " buffer " << r.buffer_time);
    qb_audio_oper_ctrl_t c;
    make_ctrl(&c, r.ch, r.rate, r.f);
    c.buffer_time = r.buffer_time;
    EXPECT_EQ(r.period, get_period_time_play(&c));
    EXPECT_EQ(r.chunks, get_start_chunks(&c));
  }
}

TEST(OperGeometry, RingThresholdsAndDatagramDelay) {
  struct Row {
    unsigned ch, rate; snd_pcm_format_t f; size_t chunk, chunk_bytes; unsigned buffer_frames, delay, buffer_time;
    unsigned threshold, slots; int inc_start, inc_stop, dec_start, dec_stop, sync; unsigned wait;
  };
  const Row rows[] = {
      {2, 48000, SND_PCM_FORMAT_S24_LE, 240, 1920, 9600, 1440, 200000, 1440, 70, 1920, 1680, 960, 1200, 1, 2000},
      {2, 48000, SND_PCM_FORMAT_S24_LE, 240, 1920, 1000, 241, 70000, 1000, 60, 1920, 1680, 960, 1200, 0, 2000},  // at least 60
      {8, 192000, SND_PCM_FORMAT_S24_LE, 384, 12288, 100000, 18 * 384, 200000, 6912, 190, 20 * 384, 19 * 384,
       16 * 384, 17 * 384, 1, 5000},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.rate);
    qb_audio_oper_ctrl_t c;
    make_ctrl(&c, r.ch, r.rate, r.f);
    c.chunk_size = r.chunk;
    c.chunk_bytes = r.chunk_bytes;
    c.buffer_frames = r.buffer_frames;
    c.buffer_time = r.buffer_time;
    EXPECT_EQ(r.threshold, get_start_threshold_play(&c));
    c.start_delay = r.delay;
    ASSERT_EQ(0, set_buffer_param(&c));
    ASSERT_NE(nullptr, c.pAudBuf);
    EXPECT_EQ(r.slots, c.pAudBuf->slot_count());
    EXPECT_EQ(static_cast<int>(r.slots), c.maxFrmNum);
    EXPECT_EQ((std::vector<int>{r.inc_start, r.inc_stop, r.dec_start, r.dec_stop, r.sync}),
              (std::vector<int>{c.incStartNum, c.incStopNum, c.decStartNum, c.decStopNum, c.syncSend}));
    EXPECT_EQ(r.wait, c.adjustWaitCnt);
    delete c.pAudBuf;
  }
  qb_audio_oper_ctrl_t c;
  make_ctrl(&c, 2, 48000, SND_PCM_FORMAT_S24_LE);
  c.pktSize = 1408;
  const int delays[][3] = {{5000, 1920, 1500}, {5000, 12288, 333}, {10, 12288, 20}};  // 60% of a period
  for (const auto& d : delays) {
    c.period_time = static_cast<unsigned>(d[0]);
    c.chunk_bytes = static_cast<size_t>(d[1]);
    EXPECT_EQ(d[2], get_delay_usec(&c)) << d[0] << "/" << d[1];
  }
}

// The genlock client socket is a socket connected to a local receiver.
class Genlock : public Connected {
 protected:
  void SetUp() override {
    Connected::SetUp();
    make_ctrl(&ctrl, 2, 48000, SND_PCM_FORMAT_S24_LE);
    ctrl.clifd = fd;
    ctrl.file_param_num = 2;
    ctrl.chunk_size = 240;
    ctrl.incStopNum = 1680;
    ctrl.decStopNum = 1200;
  }
  // First word of each request so far; the second is always the engine's channel.
  std::vector<int> requests() {
    std::vector<int> out;
    for (const Bytes& d : received(50)) {
      int32_t w[3] = {0, 0, 0};
      if (d.size() >= sizeof w) std::memcpy(w, d.data(), sizeof w);
      EXPECT_EQ(2, w[1]);
      out.push_back(w[0]);
    }
    return out;
  }
};

TEST_F(Genlock, AverageIsClassifiedAndEveryEvaluationSendsItsRequest) {
  const std::pair<qb_u64_t, MCLK_STATE_E> rows[] = {{1680, MCLK_STATE_INC}, {5000, MCLK_STATE_INC},
                                                    {1679, MCLK_STATE_RESET}, {1201, MCLK_STATE_RESET},
                                                    {1200, MCLK_STATE_DEC}, {0, MCLK_STATE_DEC}};
  for (const auto& r : rows) {
    ctrl.sumLatency = r.first * 10;
    ctrl.latencyCnt = 10;
    check_alsa_buffer_status(&ctrl);
    EXPECT_EQ(r.second, ctrl.mclkState) << r.first;
    EXPECT_EQ(r.first, ctrl.lastAdjustAvg);
  }
  EXPECT_STREQ("unknown", get_mclk_status(static_cast<MCLK_STATE_E>(7)));
  received(50);
  const MCLK_STATE_E states[] = {MCLK_STATE_CHECK, MCLK_STATE_INC, MCLK_STATE_INC, MCLK_STATE_DEC, MCLK_STATE_RESET};
  for (MCLK_STATE_E s : states) {
    ctrl.mclkState = s;
    check_5351_status(&ctrl);  // even without a change
  }
  EXPECT_EQ((std::vector<int>{QB_SI5351_SET_INC, QB_SI5351_SET_INC, QB_SI5351_SET_DEC, QB_SI5351_SET_RESET}),
            requests());
}

TEST_F(Genlock, EvaluationCadenceSamplesAndTheOneTimeReset) {
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
  for (int s = 0; s < 10; ++s) playback_latency_add_sample(&ctrl, 1000, 0);
  steer.written_chunks = 0;  // nothing written in the pass: no evaluation
  playback_steer_pass(&ctrl, &steer);
  EXPECT_EQ(MCLK_STATE_INC, ctrl.mclkState);

  // A sample adds the parked chunks.
  ctrl.latencyCnt = 0;
  ctrl.sumLatency = 0;
  playback_latency_add_sample(&ctrl, 900, 3);
  EXPECT_EQ(900u + 3u * 240u, ctrl.sumLatency);
  // Without a device the sample is skipped but the counters restart.
  steer.recv_calls = 30;
  steer.written_chunks = kSteerSampleChunks;
  playback_steer_pass(&ctrl, &steer);
  EXPECT_EQ(1u, ctrl.latencyCnt);
  EXPECT_EQ(0u, steer.recv_calls);
  EXPECT_EQ(0u, steer.written_chunks);

  // In reset state, one reset request once five samples are in; none in another state.
  playback_steer_t reset{};
  ctrl.mclkState = MCLK_STATE_RESET;
  ctrl.latencyCnt = 0;
  for (int s = 0; s < 4; ++s) playback_latency_add_sample(&ctrl, 1400, 0);
  playback_steer_pass(&ctrl, &reset);
  EXPECT_TRUE(requests().empty());
  playback_latency_add_sample(&ctrl, 1400, 0);
  playback_steer_pass(&ctrl, &reset);
  playback_steer_pass(&ctrl, &reset);
  EXPECT_EQ(std::vector<int>{QB_SI5351_SET_RESET}, requests());
  playback_steer_t other{};
  ctrl.mclkState = MCLK_STATE_INC;
  playback_steer_pass(&ctrl, &other);
  EXPECT_TRUE(other.reset_sent);
  EXPECT_TRUE(requests().empty());
}

class Aplay : public RoutingTest {
 protected:
  void TearDown() override {
    qb_audio_aplay_uninit();
    clear_aborts();
    RoutingTest::TearDown();
  }
  qb_audio_aplay_main_ctrl_t* m = qb_audio_aplay_ctrl_get();
  // Stop flags as text: playback 1..3 then capture 1..3.
  std::string flags() const {
    std::string s;
    for (const auto& c : m->pctrl) s += c.in_aborting ? '1' : '0';
    for (const auto& c : m->cctrl) s += c.in_aborting ? '1' : '0';
    return s;
  }
};

TEST_F(Aplay, StopEntriesAndTheInputChangeReachOnlyTheirEngine) {
  clear_aborts();
  qb_audio_aplay_in_abort_capture5();
  EXPECT_EQ("000001", flags());
  clear_aborts();
  qb_audio_aplay_in_abort_capture1();
  qb_audio_aplay_in_abort_playback3();
  EXPECT_EQ("010100", flags());
  clear_aborts();
  qb_audio_info r = make_record(2, 2, 0x80);
  r.ChStat[0] = 4;
  ASSERT_EQ(1, qb_audio_channel_state_set(7, &r));
  qb_audio_aplay_info_change_set(7);
  EXPECT_EQ("010000", flags());
  EXPECT_EQ(0, record(7).ChStat[0]);
  EXPECT_EQ(0, qb_misc_audio_status_valid_get(7));
  clear_aborts();
  qb_audio_aplay_info_change_set(9);
  qb_audio_aplay_info_change_set(5);
  EXPECT_EQ("000000", flags());
}

TEST_F(Aplay, IdleWorkersStartAndStopQuickly) {
  ASSERT_EQ(1, qb_audio_aplay_init());
  EXPECT_EQ(1, m->init.load());
  // Empty addresses: every worker waits; none opens a device.
  EXPECT_TRUE(am_test::wait_for([&] { return m->ptid[2].load() != 0 && m->ctid[2].load() != 0 && m->tid.load() != 0; }, 3000));
  const auto t1 = std::chrono::steady_clock::now();
  EXPECT_EQ(1, qb_audio_aplay_uninit());
  EXPECT_LT(std::chrono::steady_clock::now() - t1, std::chrono::milliseconds(1500))
      << "the stop must not wait for a full idle second per worker";
  EXPECT_EQ(0, m->init.load());
  EXPECT_EQ(0, qb_audio_aplay_uninit());
  EXPECT_EQ(0, qb_audio_oper_shutdown_get());

  char* text = nullptr;
  size_t size = 0;
  FILE* f = open_memstream(&text, &size);
  ASSERT_NE(nullptr, f);
  dump_aplay_param(f);
  dump_capture_param(f);
  dump_playback_param(nullptr);
  fclose(f);
  const std::string out(text, size);
  free(text);
  EXPECT_EQ(0u, out.find("dump aplay param begin\n"));
  size_t blocks = 0;
  for (size_t at = out.find("pid:"); at != std::string::npos; at = out.find("pid:", at + 1)) ++blocks;
  EXPECT_EQ(9u, blocks);
  EXPECT_NE(std::string::npos, out.find("command=(null),pcm_name=(null),handle=(nil),hwparams format="));
}

}  // namespace
}  // namespace am_unit
