// The receiver's datagram path: header checks, format and info-frame changes, continuity with
// loss bridging, realignment on channel 0, and the parking of chunks while the device is busy.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "audio_packet_loss_statistics.h"
#include "qb_audio_buf.h"
#include "qb_audio_oper.h"
#include "qb_audio_oper_playback.h"
#include "test_oper_helpers.h"

namespace {

using engine_test::Log;

// Format change hook of the tests: counts calls and answers as told.
int g_hook_calls = 0;
int g_hook_answer = 1;
audio_transport_head_t g_hook_head;
int count_hook(qb_audio_oper_ctrl_t* ctrl, const audio_transport_head_t* head) {
  ++g_hook_calls;
  g_hook_head = *head;
  if (g_hook_answer != 0) {
    qb_audio_oper_abort(ctrl);
  }
  return g_hook_answer;
}

class Receiver : public ::testing::Test {
 protected:
  void SetUp() override {
    qb_audio_oper_default(&ctrl);
    ctrl.file_param_num = 1;
    ctrl.stream = SND_PCM_STREAM_PLAYBACK;
    set_geometry(8, SND_PCM_FORMAT_S24_LE, 240);
    staging.assign(QB_AUDIO_BUF_DEFAULT_SIZE, 0xEE);
    ctrl.audiobuf = staging.data();
    ctrl.audiobuf_capacity = staging.size();
    qb_audio_info r = engine_test::record(2, 8, 0x80);
    audio_info_head_set(&ctrl, &r);
    g_hook_calls = 0;
    g_hook_answer = 1;
    playback_new_format_hook_set(count_hook);
    audio_loss_info_reset();
    log.clear();
  }
  void TearDown() override {
    playback_new_format_hook_set(nullptr);
    delete ctrl.pAudBuf;
    ctrl.pAudBuf = nullptr;
  }

  void set_geometry(unsigned channels, snd_pcm_format_t format, size_t chunk_frames) {
    ctrl.hwparams.channels = channels;
    ctrl.hwparams.format = format;
    ctrl.hwparams.rate = 48000;
    ctrl.bits_per_sample = format == SND_PCM_FORMAT_S16_LE ? 16 : 32;
    ctrl.bits_per_frame = ctrl.bits_per_sample * channels;
    ctrl.chunk_size = chunk_frames;
    ctrl.chunk_bytes = chunk_frames * ctrl.bits_per_frame / 8;
  }

  // A datagram with the playing header, the given rolling counter and payload.
  std::vector<uint8_t> dgram(uint32_t rolling, const std::vector<uint8_t>& payload) const {
    audio_transport_head_t h = ctrl.audio_info_head;
    h.Packet_Size = static_cast<uint32_t>(payload.size());
    h.Rolling_Sample_Data_Size_Total = rolling;
    std::vector<uint8_t> out(sizeof(h) + payload.size());
    std::memcpy(out.data(), &h, sizeof(h));
    std::memcpy(out.data() + sizeof(h), payload.data(), payload.size());
    return out;
  }
  static std::vector<uint8_t> bytes(size_t n, uint8_t fill) { return std::vector<uint8_t>(n, fill); }

  playback_rx_e feed(const std::vector<uint8_t>& d) { return playback_handle_datagram(&ctrl, d.data(), d.size()); }

  uint64_t lost_total(int stream) {
    AUDIO_LOSS_INFO_T info;
    std::memset(&info, 0, sizeof(info));
    audio_loss_info_get(stream, &info);
    return info.lossBytesTotal;
  }

  qb_audio_oper_ctrl_t ctrl;
  std::vector<uint8_t> staging;
  Log log;
};

TEST_F(Receiver, HeaderOnlyAndWrongLengthDatagramsAreDroppedOneByOne) {
  std::vector<uint8_t> d = dgram(0, bytes(100, 1));
  EXPECT_EQ(PLAYBACK_RX_DROPPED, playback_handle_datagram(&ctrl, d.data(), 56));
  EXPECT_EQ(1, log.count("count=56 less then head=56"));
  EXPECT_EQ(PLAYBACK_RX_DROPPED, playback_handle_datagram(&ctrl, d.data(), 120));
  EXPECT_EQ(1, log.count("count=120 not equal plen=100 add head=56"));
  EXPECT_EQ(0u, ctrl.audiobuf_datalen);
  EXPECT_EQ(PLAYBACK_RX_APPENDED, feed(d));  // playback goes on
  EXPECT_EQ(100u, ctrl.audiobuf_datalen);
  EXPECT_EQ(0, ctrl.in_aborting.load());
}

TEST_F(Receiver, MagicAndFromAreNotChecked) {
  std::vector<uint8_t> d = dgram(0, bytes(64, 3));
  d[0] = 0;
  d[4] = 0x99;
  EXPECT_EQ(PLAYBACK_RX_APPENDED, feed(d));
  EXPECT_EQ(0, g_hook_calls);
}

TEST_F(Receiver, ContiguousPayloadsAreAppendedInOrder) {
  EXPECT_EQ(PLAYBACK_RX_APPENDED, feed(dgram(0, bytes(1408, 0x11))));
  EXPECT_EQ(PLAYBACK_RX_APPENDED, feed(dgram(1408, bytes(512, 0x22))));
  EXPECT_EQ(1920u, ctrl.audiobuf_datalen);
  EXPECT_EQ(1920u, ctrl.rollingSampleDataSizeTotal);
  EXPECT_EQ(0x11, staging[1407]);
  EXPECT_EQ(0x22, staging[1408]);
  EXPECT_EQ(0u, lost_total(0));
}

TEST_F(Receiver, LostDatagramBecomesExactlyThatManyZeroBytes) {
  ASSERT_EQ(PLAYBACK_RX_APPENDED, feed(dgram(0, bytes(1408, 0x11))));
  ASSERT_EQ(PLAYBACK_RX_APPENDED, feed(dgram(2816, bytes(1408, 0x33))));  // 1408..2815 lost
  EXPECT_EQ(3u * 1408u, ctrl.audiobuf_datalen);
  for (size_t i = 1408; i < 2816; ++i) ASSERT_EQ(0, staging[i]) << i;
  EXPECT_EQ(0x33, staging[2816]);
  EXPECT_EQ(0x11, staging[1407]);
  EXPECT_EQ(1408u, lost_total(0));
  EXPECT_EQ(1, log.count("audio lost packet size 1408 byte, replace with mute audio packet"));
  EXPECT_EQ(1, log.count("audio packet lost 1408, Rolling_Sample_Data_Size_Total last:1408, current:2816 packet "
                         "size:1408, aborting"));
  EXPECT_EQ(0, ctrl.in_aborting.load());
}

TEST_F(Receiver, LossIsReportedForTheEnginesStreamIndex) {
  ctrl.file_param_num = 3;
  feed(dgram(0, bytes(100, 1)));
  feed(dgram(300, bytes(100, 1)));
  EXPECT_EQ(200u, lost_total(2));
  EXPECT_EQ(0u, lost_total(0));
}

TEST_F(Receiver, GapUpTo5120IsBridgedAndAboveEndsTheRun) {
  feed(dgram(0, bytes(100, 1)));
  EXPECT_EQ(PLAYBACK_RX_APPENDED, feed(dgram(100 + 5120, bytes(100, 2))));
  EXPECT_EQ(5320u, ctrl.audiobuf_datalen);
  EXPECT_EQ(PLAYBACK_RX_ABORT, feed(dgram(5320 + 5121, bytes(100, 3))));
  EXPECT_EQ(1, log.count("audio lost packet size 5121 byte, aborting"));
  EXPECT_EQ(1, ctrl.in_aborting.load());
  EXPECT_EQ(5320u, ctrl.audiobuf_datalen);
}

TEST_F(Receiver, CounterGoingBackwardsEndsTheRun) {
  feed(dgram(0, bytes(1408, 1)));
  feed(dgram(1408, bytes(1408, 1)));
  EXPECT_EQ(PLAYBACK_RX_ABORT, feed(dgram(1408, bytes(1408, 1))));
  EXPECT_EQ(1, ctrl.in_aborting.load());
  EXPECT_EQ(1, log.count_prefix("audio lost packet size -1408 byte, aborting"));
}

TEST_F(Receiver, ZeroCounterResynchronisesWithoutLoss) {
  feed(dgram(0, bytes(100, 1)));
  feed(dgram(100, bytes(100, 1)));
  EXPECT_EQ(PLAYBACK_RX_APPENDED, feed(dgram(0, bytes(50, 2))));  // the sender restarted
  EXPECT_EQ(50u, ctrl.rollingSampleDataSizeTotal);
  EXPECT_EQ(250u, ctrl.audiobuf_datalen);
  EXPECT_EQ(0u, lost_total(0));
  // Nothing expected yet: any counter is taken as it comes.
  qb_audio_oper_ctrl_t& c = ctrl;
  c.rollingSampleDataSizeTotal = 0;
  EXPECT_EQ(PLAYBACK_RX_APPENDED, feed(dgram(777777, bytes(10, 2))));
  EXPECT_EQ(777787u, c.rollingSampleDataSizeTotal);
  EXPECT_EQ(0u, lost_total(0));
}

TEST_F(Receiver, GapAcrossCounterWrapIsTheTrueGap) {
  const uint32_t start = 0xFFFFFA00u;
  feed(dgram(start, bytes(1408, 1)));
  const uint32_t next = start + 1408u;                               // wraps to 0x180
  ASSERT_EQ(PLAYBACK_RX_APPENDED, feed(dgram(next + 1408u, bytes(1408, 2))));  // one lost
  EXPECT_EQ(1408u, lost_total(0));
  EXPECT_EQ(3u * 1408u, ctrl.audiobuf_datalen);
  EXPECT_EQ(0, ctrl.in_aborting.load());
}

TEST_F(Receiver, FormatFieldChangeRunsTheHandlerAndStopsTheBatch) {
  std::vector<uint8_t> d = dgram(0, bytes(64, 1));
  reinterpret_cast<audio_transport_head_t*>(d.data())->Sample_Frequency = 10;
  EXPECT_EQ(PLAYBACK_RX_ABORT, feed(d));
  EXPECT_EQ(1, g_hook_calls);
  EXPECT_EQ(10, g_hook_head.Sample_Frequency);
  EXPECT_EQ(1, log.count("New audio information head"));
  EXPECT_EQ(0u, ctrl.audiobuf_datalen);
}

TEST_F(Receiver, EachFormatFieldCountsAsAChange) {
  const size_t fields[] = {offsetof(audio_transport_head_t, Sample_Frequency),
                           offsetof(audio_transport_head_t, Channels),
                           offsetof(audio_transport_head_t, Sample_Size),
                           offsetof(audio_transport_head_t, Audio_Type),
                           offsetof(audio_transport_head_t, SPDIF),
                           offsetof(audio_transport_head_t, IEC60958_Channel_Stats) + 0,
                           offsetof(audio_transport_head_t, IEC60958_Channel_Stats) + 4};
  for (size_t at : fields) {
    audio_transport_head_t h = ctrl.audio_info_head;
    reinterpret_cast<uint8_t*>(&h)[at] ^= 0x01;
    EXPECT_EQ(PLAYBACK_CHANGE_HEAD, playback_head_change(&ctrl.audio_info_head, &h)) << at;
  }
  // Fields the receiver does not compare.
  const size_t ignored[] = {offsetof(audio_transport_head_t, Cfg_Change_Number),
                            offsetof(audio_transport_head_t, cts), offsetof(audio_transport_head_t, Audio_On),
                            offsetof(audio_transport_head_t, IO_In_Use),
                            offsetof(audio_transport_head_t, Audio_Info_Frame) + 1,
                            offsetof(audio_transport_head_t, Audio_Info_Frame) + 4};
  for (size_t at : ignored) {
    audio_transport_head_t h = ctrl.audio_info_head;
    reinterpret_cast<uint8_t*>(&h)[at] ^= 0x01;
    EXPECT_EQ(PLAYBACK_CHANGE_NONE, playback_head_change(&ctrl.audio_info_head, &h)) << at;
  }
}

TEST_F(Receiver, InfoFrameByteThreeAloneTriggersTheHandler) {
  std::vector<uint8_t> d = dgram(0, bytes(64, 1));
  reinterpret_cast<audio_transport_head_t*>(d.data())->Audio_Info_Frame[3] ^= 0x10;
  EXPECT_EQ(PLAYBACK_RX_ABORT, feed(d));
  EXPECT_EQ(1, g_hook_calls);
  EXPECT_EQ(1, log.count("New audio information frame"));
}

TEST_F(Receiver, FailedCodecCommandHandlesTheDatagramAsUnchanged) {
  g_hook_answer = 0;
  std::vector<uint8_t> d = dgram(0, bytes(64, 7));
  reinterpret_cast<audio_transport_head_t*>(d.data())->Audio_Info_Frame[0] = 20;
  EXPECT_EQ(PLAYBACK_RX_APPENDED, feed(d));
  EXPECT_EQ(64u, ctrl.audiobuf_datalen);
  EXPECT_EQ(0, ctrl.in_aborting.load());
}

TEST_F(Receiver, NoRoomDropsTheDatagram) {
  ctrl.audiobuf_capacity = 150;
  feed(dgram(0, bytes(100, 1)));
  EXPECT_EQ(PLAYBACK_RX_DROPPED, feed(dgram(100, bytes(100, 1))));
  EXPECT_EQ(1, log.count_prefix("count=156 dst="));
  EXPECT_EQ(100u, ctrl.audiobuf_datalen);
  EXPECT_EQ(playback_rx_room_needed(6), 6u * 2048u + 5120u);
}

// Fills the staging buffer with 32-bit samples tagged as channel `first_channel` onwards.
void fill_tagged(qb_audio_oper_ctrl_t* c, unsigned channels, unsigned first_channel, size_t samples) {
  const uint8_t* tags = channels == 8 ? AUDIO_CHANNEL_TAGS_8CH : AUDIO_CHANNEL_TAGS_2CH;
  for (size_t s = 0; s < samples; ++s) {
    const unsigned ch = static_cast<unsigned>((first_channel + s) % channels);
    uint8_t* p = c->audiobuf + s * 4;
    p[0] = static_cast<uint8_t>(s);
    p[1] = 0x01;
    p[2] = 0x02;
    p[3] = channels == 6 ? static_cast<uint8_t>(ch == 0 ? 0 : 0x7F) : tags[ch];
  }
  c->audiobuf_datalen = static_cast<unsigned>(samples * 4);
}

TEST_F(Receiver, RealignsOnceOnTheFirstChannelZeroSample) {
  fill_tagged(&ctrl, 8, 3, 40);  // begins with channel 3: five samples to the next frame
  EXPECT_EQ(20u, playback_realign(&ctrl));
  EXPECT_EQ(1, log.count("remove 20 bytes for not start 00 channel"));
  EXPECT_EQ(0x00, staging[3]);
  EXPECT_EQ(5, staging[0]);
  EXPECT_EQ(140u, ctrl.audiobuf_datalen);
  EXPECT_EQ(0u, playback_realign(&ctrl));  // aligned now
}

TEST_F(Receiver, RealignLeavesStereoSixteenBitAndUntaggedDataAlone) {
  set_geometry(2, SND_PCM_FORMAT_S24_LE, 240);
  fill_tagged(&ctrl, 2, 1, 10);
  EXPECT_EQ(0u, playback_realign(&ctrl));
  set_geometry(8, SND_PCM_FORMAT_S16_LE, 240);
  fill_tagged(&ctrl, 8, 1, 10);
  EXPECT_EQ(0u, playback_realign(&ctrl));
  set_geometry(8, SND_PCM_FORMAT_S24_LE, 240);
  fill_tagged(&ctrl, 8, 1, 10);
  for (size_t s = 0; s < 10; ++s) staging[s * 4 + 3] = 0x40;  // no channel-0 sample at all
  EXPECT_EQ(0u, playback_realign(&ctrl));
  EXPECT_EQ(40u, ctrl.audiobuf_datalen);
  ctrl.audiobuf_datalen = 3;
  EXPECT_EQ(0u, playback_realign(&ctrl));
}

// A fake device: accepts or refuses chunks and records what it got.
struct FakeDevice {
  bool accept = true;
  std::vector<std::vector<uint8_t>> chunks;
};
FakeDevice* g_device = nullptr;
snd_pcm_sframes_t fake_write(qb_audio_oper_ctrl_t* c, qb_u8_t* data, size_t frames) {
  if (!g_device->accept) return 0;
  const size_t n = frames * c->bits_per_frame / 8;
  g_device->chunks.emplace_back(data, data + n);
  return static_cast<snd_pcm_sframes_t>(frames);
}

class Parking : public Receiver {
 protected:
  void SetUp() override {
    Receiver::SetUp();
    set_geometry(2, SND_PCM_FORMAT_S24_LE, 4);  // 32-byte chunks
    ctrl.pAudBuf = new CAudioBuf(static_cast<int>(ctrl.chunk_bytes), 4);
    g_device = &device;
  }
  void stage(uint8_t first, size_t chunks, size_t extra) {
    const size_t n = chunks * ctrl.chunk_bytes + extra;
    for (size_t i = 0; i < n; ++i) staging[ctrl.audiobuf_datalen + i] = static_cast<uint8_t>(first + i / ctrl.chunk_bytes);
    ctrl.audiobuf_datalen += static_cast<unsigned>(n);
  }
  FakeDevice device;
};

TEST_F(Parking, WholeChunksGoStraightToTheDeviceAndTheRestWaits) {
  stage(1, 2, 5);
  EXPECT_EQ(2u, playback_move_chunks(&ctrl, fake_write));
  ASSERT_EQ(2u, device.chunks.size());
  EXPECT_EQ(1, device.chunks[0][0]);
  EXPECT_EQ(2, device.chunks[1][31]);
  EXPECT_EQ(5u, ctrl.audiobuf_datalen);
  EXPECT_EQ(3, staging[0]);
  EXPECT_EQ(2u, ctrl.chunkCountPlay);
}

TEST_F(Parking, RefusedChunksAreParkedAndLeaveFirstInOrder) {
  device.accept = false;
  stage(1, 2, 0);
  EXPECT_EQ(0u, playback_move_chunks(&ctrl, fake_write));
  EXPECT_EQ(2, ctrl.pAudBuf->get_buf_size());
  EXPECT_EQ(0u, ctrl.audiobuf_datalen);
  device.accept = true;
  stage(3, 1, 0);
  EXPECT_EQ(3u, playback_move_chunks(&ctrl, fake_write));
  ASSERT_EQ(3u, device.chunks.size());
  EXPECT_EQ(1, device.chunks[0][0]);
  EXPECT_EQ(2, device.chunks[1][0]);
  EXPECT_EQ(3, device.chunks[2][0]);
  EXPECT_EQ(0, ctrl.pAudBuf->get_buf_size());
}

TEST_F(Parking, NewDataWaitsBehindParkedChunks) {
  device.accept = false;
  stage(1, 1, 0);
  playback_move_chunks(&ctrl, fake_write);
  stage(2, 1, 0);
  playback_move_chunks(&ctrl, fake_write);  // still refusing: both parked, in order
  EXPECT_EQ(2, ctrl.pAudBuf->get_buf_size());
  EXPECT_EQ(0, ctrl.in_aborting.load());
}

TEST_F(Parking, FullRingEndsTheRun) {
  device.accept = false;
  stage(1, 4, 0);  // a ring of 4 slots holds 3
  playback_move_chunks(&ctrl, fake_write);
  EXPECT_EQ(1, ctrl.in_aborting.load());
  EXPECT_EQ(1, log.count("buffer is full, aborting"));
  EXPECT_EQ(1, log.count("alsa status:-1"));
  EXPECT_EQ(3, ctrl.pAudBuf->get_buf_size());
}

TEST_F(Parking, EngineWideStopAbortsEveryRun) {
  EXPECT_FALSE(qb_audio_oper_is_aborting(&ctrl));
  qb_audio_oper_shutdown_set(1);
  EXPECT_TRUE(qb_audio_oper_is_aborting(&ctrl));
  qb_audio_oper_shutdown_set(0);
  EXPECT_FALSE(qb_audio_oper_is_aborting(&ctrl));
}

}  // namespace
