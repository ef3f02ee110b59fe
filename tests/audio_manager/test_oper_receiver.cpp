// The receiver's datagram path: header checks, format and info-frame changes, continuity with
// loss bridging, realignment on channel 0, and the parking of chunks while the device is busy.
#include "am_unit.h"
#include "audio_packet_loss_statistics.h"
#include "qb_audio_buf.h"
#include "qb_audio_oper_format.h"
#include "qb_audio_oper_playback.h"
#include "qb_audio_stream.h"
#include "qb_si5351.h"

namespace am_unit {
namespace {

// The new-format handler's outside calls: only the analog output listens to the stream, so each run
// of the handler gives one codec command, which answers as told.
int g_hook_calls = 0, g_codec_result = 0;
const qb_audio_new_format_ops_t kCodecOnly = {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                              [](const char*) { return ++g_hook_calls, g_codec_result; }};

// A fake device: accepts or refuses chunks and records what it got.
struct FakeDevice { bool accept = true; std::vector<Bytes> chunks; };
FakeDevice* g_device = nullptr;
snd_pcm_sframes_t fake_write(qb_audio_oper_ctrl_t* c, qb_u8_t* data, size_t frames) {
  if (!g_device->accept) return 0;
  g_device->chunks.emplace_back(data, data + frames * c->pcm.bits_per_frame / 8);
  return static_cast<snd_pcm_sframes_t>(frames);
}

class Receiver : public RoutingTest {
 protected:
  void SetUp() override {
    RoutingTest::SetUp();
    qb_audio_stream_input_select(QB_AUDIO_OUTPUT_ANALOG, 0, -1);  // the matrix source of stream 1
    qb_audio_new_format_ops_set(&kCodecOnly);
    reset();
  }
  void reset() {
    qb_audio_oper_default(&ctrl);
    ctrl.file_param_num = 1, ctrl.pcm.stream = SND_PCM_STREAM_PLAYBACK;
    set_geometry(8, 240);
    staging.assign(QB_AUDIO_BUF_DEFAULT_SIZE, 0xEE);
    ctrl.audiobuf = staging.data(), ctrl.audiobuf_capacity = staging.size();
    const qb_audio_info r = make_record(2, 8, 0x80);
    audio_info_head_set(&ctrl, &r);
    g_hook_calls = 0, g_codec_result = 0;
    audio_loss_info_reset();
    g_device = &device;
  }
  void TearDown() override {
    qb_audio_new_format_ops_set(nullptr);
    delete ctrl.pAudBuf;
    RoutingTest::TearDown();
  }
  void set_geometry(unsigned channels, size_t chunk_frames) {  // 32-bit samples at 48 kHz
    ctrl.pcm.hwparams.channels = channels, ctrl.pcm.hwparams.format = SND_PCM_FORMAT_S24_LE, ctrl.pcm.hwparams.rate = 48000;
    ctrl.pcm.bits_per_sample = 32, ctrl.pcm.bits_per_frame = 32 * channels;
    ctrl.pcm.chunk_size = chunk_frames, ctrl.pcm.chunk_bytes = chunk_frames * ctrl.pcm.bits_per_frame / 8;
  }
  // A datagram with the playing header, the given rolling counter and payload.
  Bytes dgram(uint32_t rolling, size_t n, uint8_t fill) const {
    audio_transport_head_t h = ctrl.net.audio_info_head;
    h.Packet_Size = static_cast<uint32_t>(n), h.Rolling_Sample_Data_Size_Total = rolling;
    Bytes out(sizeof h + n, fill);
    std::memcpy(out.data(), &h, sizeof h);
    return out;
  }
  static audio_transport_head_t* head(Bytes& d) { return reinterpret_cast<audio_transport_head_t*>(d.data()); }
  playback_rx_e feed(const Bytes& d) { return playback_handle_datagram(&ctrl, d.data(), d.size()); }
  uint64_t lost_total(int stream) { AUDIO_LOSS_INFO_T info{}; return audio_loss_info_get(stream, &info), info.lossBytesTotal; }
  // Parks chunk-sized runs of bytes first, first + 1, ... in the staging buffer.
  void stage(uint8_t first, size_t chunks) {
    for (size_t i = 0; i < chunks * ctrl.pcm.chunk_bytes; ++i) staging[ctrl.audiobuf_datalen + i] = static_cast<uint8_t>(first + i / ctrl.pcm.chunk_bytes);
    ctrl.audiobuf_datalen += static_cast<unsigned>(chunks * ctrl.pcm.chunk_bytes);
  }

  qb_audio_oper_ctrl_t ctrl;
  Bytes staging;
  FakeDevice device;
};

TEST_F(Receiver, HeaderChecksAndContiguousPayloads) {
  Bytes d = dgram(0, 100, 1);
  EXPECT_EQ(PLAYBACK_RX_DROPPED, playback_handle_datagram(&ctrl, d.data(), 56));  // header only
  EXPECT_EQ(PLAYBACK_RX_DROPPED, playback_handle_datagram(&ctrl, d.data(), 120));  // wrong length
  head(d)->Magic = 0, head(d)->From = 0x99;  // magic and sender are not checked
  EXPECT_EQ(PLAYBACK_RX_APPENDED, feed(d));
  EXPECT_EQ(PLAYBACK_RX_APPENDED, feed(dgram(100, 1308, 0x11)));
  EXPECT_EQ(PLAYBACK_RX_APPENDED, feed(dgram(1408, 512, 0x22)));
  EXPECT_EQ((std::vector<uint64_t>{1920, 1920, 0, 0, 0}), (std::vector<uint64_t>{ctrl.audiobuf_datalen, ctrl.loss.rollingSampleDataSizeTotal,
            lost_total(0), static_cast<uint64_t>(g_hook_calls), static_cast<uint64_t>(ctrl.in_aborting.load())}));
  EXPECT_EQ((Bytes{1, 0x11, 0x11, 0x22}), (Bytes{staging[99], staging[100], staging[1407], staging[1408]}));
}

TEST_F(Receiver, CounterGapsBridgeLossesOrEndTheRun) {
  struct Case { const char* name; int stream; uint32_t first, second; size_t size; playback_rx_e result; uint64_t lost, datalen; };
  const Case cases[] = {
      {"one datagram lost", 1, 0, 2816, 1408, PLAYBACK_RX_APPENDED, 1408, 3 * 1408},
      {"loss counted for stream 3", 3, 0, 300, 100, PLAYBACK_RX_APPENDED, 200, 400},
      {"gap of 5120 bridged", 1, 0, 100 + 5120, 100, PLAYBACK_RX_APPENDED, 5120, 5320},
      {"gap of 5121 ends the run", 1, 0, 100 + 5121, 100, PLAYBACK_RX_ABORT, 5121, 100},
      {"counter going back ends the run", 1, 1408, 1408, 1408, PLAYBACK_RX_ABORT, 0, 1408},
      {"gap across the counter wrap", 1, 0xFFFFFA00u, 0xFFFFFA00u + 2 * 1408u, 1408, PLAYBACK_RX_APPENDED, 1408, 4224},
      {"zero counter: sender restarted", 1, 100, 0, 50, PLAYBACK_RX_APPENDED, 0, 150},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    reset();
    ctrl.file_param_num = c.stream;
    const size_t first_len = c.first == 100 ? 100 : c.size;
    ASSERT_EQ(PLAYBACK_RX_APPENDED, feed(dgram(c.first, first_len, 0x11)));
    EXPECT_EQ(c.result, feed(dgram(c.second, c.size, 0x33)));
    EXPECT_EQ((std::vector<uint64_t>{c.lost, c.datalen, c.result == PLAYBACK_RX_ABORT}),
              (std::vector<uint64_t>{lost_total(c.stream - 1), ctrl.audiobuf_datalen, static_cast<uint64_t>(ctrl.in_aborting.load())}));
    if (c.result == PLAYBACK_RX_APPENDED && c.lost > 0) {  // the gap is silence between the two payloads
      EXPECT_EQ(0x11, staging[first_len - 1]);
      for (size_t i = first_len; i < first_len + c.lost; ++i) ASSERT_EQ(0, staging[i]) << i;
      EXPECT_EQ(0x33, staging[first_len + c.lost]);
    }
  }
  // Nothing expected yet: any counter is taken as it comes.
  reset();
  EXPECT_EQ(PLAYBACK_RX_APPENDED, feed(dgram(777777, 10, 2)));
  EXPECT_EQ(777787u + lost_total(0), ctrl.loss.rollingSampleDataSizeTotal);
}

TEST_F(Receiver, FormatFieldsAndInfoFrameByteThreeRunTheHandler) {
  using H = audio_transport_head_t;
  const std::pair<size_t, bool> fields[] = {{offsetof(H, Sample_Frequency), true}, {offsetof(H, Channels), true}, {offsetof(H, Sample_Size), true},
      {offsetof(H, Audio_Type), true}, {offsetof(H, SPDIF), true}, {offsetof(H, IEC60958_Channel_Stats) + 4, true}, {offsetof(H, Cfg_Change_Number), false},
      {offsetof(H, cts), false}, {offsetof(H, Audio_On), false}, {offsetof(H, IO_In_Use), false}, {offsetof(H, Audio_Info_Frame) + 1, false},
      {offsetof(H, Audio_Info_Frame) + 4, false}};
  for (const auto& [at, changes] : fields) {
    reset();
    Bytes d = dgram(0, 64, 1);
    d[at] ^= 0x01;
    EXPECT_EQ(changes ? PLAYBACK_RX_ABORT : PLAYBACK_RX_APPENDED, feed(d)) << at;  // a change stops the batch
    EXPECT_EQ((std::vector<unsigned>{changes, changes ? 0u : 64u}), (std::vector<unsigned>{unsigned(g_hook_calls), ctrl.audiobuf_datalen})) << at;
  }
  reset();
  Bytes d = dgram(0, 64, 1);
  head(d)->Audio_Info_Frame[3] ^= 0x10;
  EXPECT_EQ(PLAYBACK_RX_ABORT, feed(d));  // the new header is adopted
  EXPECT_EQ((std::vector<unsigned>{1, head(d)->Audio_Info_Frame[3]}), (std::vector<unsigned>{unsigned(g_hook_calls), ctrl.net.audio_info_head.Audio_Info_Frame[3]}));
  // A failed codec command handles the datagram as unchanged, once per format change: the next
  // datagrams of that format play on without another attempt, a further change is tried again.
  reset();
  g_codec_result = -1;
  d = dgram(0, 64, 7);
  head(d)->Audio_Info_Frame[0] = 20;
  EXPECT_EQ(PLAYBACK_RX_APPENDED, feed(d));
  head(d)->Rolling_Sample_Data_Size_Total = 64;
  EXPECT_EQ(PLAYBACK_RX_APPENDED, feed(d));
  EXPECT_EQ((std::vector<unsigned>{1, 128, 0}), (std::vector<unsigned>{unsigned(g_hook_calls), ctrl.audiobuf_datalen, unsigned(ctrl.in_aborting.load())}));
  head(d)->Audio_Info_Frame[0] = 21;
  head(d)->Rolling_Sample_Data_Size_Total = 128;
  EXPECT_EQ(PLAYBACK_RX_APPENDED, feed(d));
  EXPECT_EQ(2, g_hook_calls);
}

// Fills the staging buffer with 32-bit samples tagged as channel `first_channel` onwards.
void fill_tagged(qb_audio_oper_ctrl_t* c, unsigned channels, unsigned first_channel, size_t samples) {
  const uint8_t* tags = channels == 8 ? AUDIO_CHANNEL_TAGS_8CH : AUDIO_CHANNEL_TAGS_2CH;
  for (size_t s = 0; s < samples; ++s) {
    const uint8_t sample[4] = {static_cast<uint8_t>(s), 0x01, 0x02, tags[(first_channel + s) % channels]};
    std::memcpy(c->audiobuf + s * 4, sample, 4);
  }
  c->audiobuf_datalen = static_cast<unsigned>(samples * 4);
}

TEST_F(Receiver, RealignsOnceOnTheFirstChannelZeroSampleOfEightChannelData) {
  fill_tagged(&ctrl, 8, 3, 40);  // begins with channel 3: five samples to the next frame
  EXPECT_EQ(20u, playback_realign(&ctrl));
  EXPECT_EQ((Bytes{5, 0, 140}), (Bytes{staging[0], staging[3], static_cast<uint8_t>(ctrl.audiobuf_datalen)}));
  EXPECT_EQ(0u, playback_realign(&ctrl));  // aligned now
  // Stereo data is left alone.
  set_geometry(2, 240);
  fill_tagged(&ctrl, 2, 1, 10);
  EXPECT_EQ(0u, playback_realign(&ctrl));
}

TEST_F(Receiver, ChunksTheDeviceRefusesAreParkedAndLeaveFirstInOrder) {
  set_geometry(2, 4);  // 32-byte chunks
  ctrl.pAudBuf = new CAudioBuf(static_cast<int>(ctrl.pcm.chunk_bytes), 4);
  stage(1, 2);
  std::memset(&staging[ctrl.audiobuf_datalen], 3, 5);  // a partial chunk waits in the staging buffer
  ctrl.audiobuf_datalen += 5;
  EXPECT_EQ(2u, playback_move_chunks(&ctrl, fake_write));
  ASSERT_EQ(2u, device.chunks.size());
  EXPECT_EQ((Bytes{1, 2, 5, 3, 2}), (Bytes{device.chunks[0][0], device.chunks[1][31], static_cast<uint8_t>(ctrl.audiobuf_datalen), staging[0],
                                         static_cast<uint8_t>(ctrl.loss.chunkCountPlay)}));
  ctrl.audiobuf_datalen = 0;
  device = FakeDevice{false, {}};
  stage(1, 1);
  EXPECT_EQ(0u, playback_move_chunks(&ctrl, fake_write));
  stage(2, 1);  // new data waits behind the parked chunk
  EXPECT_EQ(0u, playback_move_chunks(&ctrl, fake_write));
  EXPECT_EQ(2u + ctrl.audiobuf_datalen, static_cast<unsigned>(ctrl.pAudBuf->get_buf_size()));
  device.accept = true;
  stage(3, 1);
  EXPECT_EQ(3u, playback_move_chunks(&ctrl, fake_write));
  ASSERT_EQ(3u, device.chunks.size());
  EXPECT_EQ((Bytes{1, 2, 3, 0, 0}), (Bytes{device.chunks[0][0], device.chunks[1][0], device.chunks[2][0],
                                         static_cast<uint8_t>(ctrl.pAudBuf->get_buf_size()), static_cast<uint8_t>(ctrl.in_aborting.load())}));
  // A full ring (4 slots hold 3) ends the run.
  device.accept = false;
  stage(1, 4);
  playback_move_chunks(&ctrl, fake_write);
  EXPECT_EQ((std::pair<int, int>{1, 3}), (std::pair<int, int>{ctrl.in_aborting.load(), ctrl.pAudBuf->get_buf_size()}));
}

// Ten latency samples (device delay plus the chunks parked in the ring) make one evaluation: the
// clock service is asked to speed up, slow down or go back to nominal.
TEST_F(Receiver, SteeringAsksTheClockServiceByTheAverageLatency) {
  am_test::UdpReceiver service{0};
  ctrl.steer.clifd = service.connected_sender();
  ASSERT_GE(ctrl.steer.clifd, 0);
  ctrl.steer.incStopNum = 3000, ctrl.steer.decStopNum = 1000;
  struct Case { long delay; int ring_chunks; uint32_t command; };  // averages 2000, 3200, 1000
  for (const Case& c : {Case{2000, 0, QB_SI5351_SET_RESET}, Case{2000, 5, QB_SI5351_SET_INC}, Case{1000, 0, QB_SI5351_SET_DEC}}) {
    for (int i = 0; i < 10; ++i) playback_latency_add_sample(&ctrl, c.delay, c.ring_chunks);
    playback_steer_t steer{0, 1, false};
    playback_steer_pass(&ctrl, &steer);
    Bytes d;
    ASSERT_TRUE(service.receive(&d, kExpectMs)) << c.command;
    EXPECT_EQ(words({c.command, 1}), (d.resize(8), d)) << c.command;
  }
  close(ctrl.steer.clifd);
}

}  // namespace
}  // namespace am_unit
