// Engine parts: transport header, code tables, the sender's datagrams, the packet ring, stop entries.

#include <thread>

#include "am_unit.h"
#include "qb_audio_buf.h"
#include "qb_audio_oper.h"
#include "qb_audio_misc_stream.h"

namespace am_unit {
namespace {

audio_transport_head_t head_of(const Bytes& d) {
  audio_transport_head_t h;
  return std::memcpy(&h, d.data(), sizeof h), h;
}

TEST(OperPacket, HeaderBytesTheValuesTheSenderWritesAndTheCodeTables) {
  qb_audio_oper_ctrl_t ctrl;
  qb_audio_oper_default(&ctrl);
  qb_audio_info r = make_record(10, 8, 0x80, 1);
  for (int i = 0; i < 5; ++i) r.AUD_DB[i] = static_cast<qb_s8_t>(0xA0 + i), r.ChStat[i] = static_cast<qb_s8_t>(0xF0 + i);
  audio_info_head_set(&ctrl, &r);
  audio_transport_head_t h = ctrl.net.audio_info_head;
  h.Packet_Size = 0x0580;
  h.Rolling_Sample_Data_Size_Total = 0x11223344;
  const auto* b = reinterpret_cast<const uint8_t*>(&h);
  const std::pair<int, uint8_t> at[] = {{0, 0x44}, {1, 0x53}, {2, 0x32}, {3, 0x49}, {12, 0x80}, {13, 0x05}, {51, 0xF4}, {52, 0x44}, {55, 0x11}};
  for (const auto& p : at) EXPECT_EQ(p.second, b[p.first]) << p.first;
  EXPECT_EQ((std::vector<int>{3900, 1, 2, 10, 8, 24, 0x80, 0, 0xA3}),  // SPDIF always 0
            (std::vector<int>{static_cast<int>(h.From), h.Audio_On, h.IO_In_Use, h.Sample_Frequency, h.Channels, h.Sample_Size, h.Audio_Type, h.SPDIF,
                              h.Audio_Info_Frame[3]}));
  // Rate code, ALSA rate, EDID flag; channel code, ALSA channels. 32 kHz plays at 48000.
  const int rows[][5] = {{0, 44100, 2, 2, 2}, {2, 48000, 4, 3, 6}, {3, 48000, 1, 5, 8}, {8, 88200, 8, 1, 8}, {10, 96000, 16, 0, 8},
                         {12, 176400, 32, 4, 8}, {14, 192000, 64, 8, 8}, {1, 48000, 4, 9, 8}, {255, 48000, 4, 255, 8}};
  for (const auto& row : rows) {
    const qb_audio_info rec = make_record(row[0], row[3], 0x80);
    _file_param_set(&ctrl, &rec);
    EXPECT_EQ((std::vector<int>{row[1], row[2], row[4]}), (std::vector<int>{static_cast<int>(ctrl.pcm.hwparams.rate), get_audio_samplerate(static_cast<qb_u8_t>(row[0])),
                                                                          static_cast<int>(ctrl.pcm.hwparams.channels)})) << row[0];
  }
  // The two decoder-code mappings differ at 4 and 16.
  EXPECT_EQ(std::string(audio_dsp_encoding_name(4)) + "|" + audio_dsp_encoding_name(16) + "|" + audio_dsp_encoding_name(30) + "|" + audio_dsp_encoding_name(41),
            "Unknown|DTS|DTS HD Master|Unknown");
  const int dsp[][2] = {{-1, MIX_AUD_INVALID}, {0, MIX_AUD_AAC}, {4, MIX_AUD_TRUEHD}, {16, MIX_AUD_DTSHD}, {40, MIX_AUD_DTDHDMA}, {41, MIX_AUD_INVALID}};
  for (const auto& c : dsp) EXPECT_EQ(c[1], get_audio_type_from_dsp(c[0])) << c[0];
  for (int code : {0, 1, 2, 3, 4, 11, 12, 13, 14, 15}) EXPECT_TRUE(spdif_is_support(code)) << code;
  for (int code : {5, 10, 16, 20, -1, 255}) EXPECT_FALSE(arc_is_support(code)) << code;
  r.SampleSize = 16;
  _file_param_set(&ctrl, &r);
  EXPECT_EQ((std::vector<int>{SND_PCM_FORMAT_S16_LE, 1408}), (std::vector<int>{ctrl.pcm.rhwparams.format, get_pkt_size(&ctrl)}));
}

TEST(OperPacket, ChannelTagsOnTwoAndEightChannelsOnly) {
  Bytes two(16, 0x7F), eight(64, 0x55), six(24, 0x55);
  EXPECT_EQ(1, audio_channel_tags_write(two.data(), two.size(), 2, 32));
  for (int s = 0; s < 4; ++s) EXPECT_EQ((std::pair<int, int>{0x7F, s % 2 ? 0x20 : 0}), (std::pair<int, int>{two[s * 4], two[s * 4 + 3]}));
  EXPECT_EQ(1, audio_channel_tags_write(eight.data(), eight.size(), 8, 32));
  for (int s = 0; s < 16; ++s) EXPECT_EQ(AUDIO_CHANNEL_TAGS_8CH[s % 8], eight[s * 4 + 3]) << s;
  EXPECT_EQ(0, audio_channel_tags_write(six.data(), six.size(), 6, 32) + audio_channel_tags_write(two.data(), two.size(), 2, 16));
  for (int s = 0; s < 6; ++s) EXPECT_EQ(0x55, six[s * 4 + 3]);
}

// A socket connected to a local receiver stands in for the engine's socket.
class Sender : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(receiver.ok());
    int size = 4 << 20;
    setsockopt(receiver.fd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    ASSERT_GE(fd = receiver.connected_sender(), 0);
    qb_audio_oper_default(&ctrl);
    ctrl.net.tx_fd = fd, ctrl.net.pktSize = 1408;
    net.assign(QB_AUDIO_BUF_DEFAULT_SIZE, 0), ctrl.net_audiobuf = net.data();
    const qb_audio_info r = make_record(2, 2, 0x80);
    audio_info_head_set(&ctrl, &r);
    for (size_t i = 0; i < pcm.size(); ++i) pcm[i] = static_cast<uint8_t>(i * 7 + 1);
  }
  void TearDown() override { close(fd); }
  std::vector<Bytes> received() {
    std::vector<Bytes> out;
    Bytes d;
    while (receiver.receive(&d, 100)) out.push_back(d);
    return out;
  }
  am_test::UdpReceiver receiver{0};
  int fd = -1;
  qb_audio_oper_ctrl_t ctrl;
  Bytes net, pcm = Bytes(12288);
};

TEST_F(Sender, ChunksAreCutInto1408ByteDatagramsSentThreePerCall) {
  struct Case { size_t bytes; int calls; std::vector<size_t> sizes; };
  const Case cases[] = {{1920, 1, {1408, 512}}, {12288, 3, {1408, 1408, 1408, 1408, 1408, 1408, 1408, 1408, 1024}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    ctrl.loss.rollingSampleDataSizeTotal = 0;
    EXPECT_EQ(c.calls, capture_send_chunk(&ctrl, pcm.data(), c.bytes));
    const auto got = received();
    ASSERT_EQ(c.sizes.size(), got.size());
    Bytes joined;
    for (size_t i = 0; i < got.size(); ++i) {
      const audio_transport_head_t h = head_of(got[i]);
      EXPECT_EQ((std::vector<size_t>{c.sizes[i], c.sizes[i] + 56, 1408u * i, AUDIO_HEAD_MAGIC, ctrl.net.audio_info_head.Cfg_Change_Number}),
                (std::vector<size_t>{h.Packet_Size, got[i].size(), h.Rolling_Sample_Data_Size_Total, h.Magic, h.Cfg_Change_Number})) << i;
      joined.insert(joined.end(), got[i].begin() + 56, got[i].end());
    }
    EXPECT_EQ(Bytes(pcm.begin(), pcm.begin() + static_cast<long>(c.bytes)), joined);
    EXPECT_EQ(c.bytes, ctrl.loss.rollingSampleDataSizeTotal);
  }
}

// A capture run on the null device (silence at once) describes the format of its source, sends
// until stopped, and after its first chunks opens the gate of the input the network output carries.
TEST_F(ControlTest, CaptureRunOpensTheInputGateAfterItsFirstChunks) {
  qb_net_second_stream_select_set(QB_AUDIO_SRC_HDMI);
  const qb_audio_info source = make_record(10, 8, 0x80);  // network output 3 carries 8 channels at 96 kHz
  qb_audio_channel_state_set(QB_AUDIO_CHN_NSO5, &source);
  qb_audio_oper_ctrl_t ctrl;
  std::thread stopper([&] {
    am_test::wait_for([&] { return bus.transfer_count(kBus, kFpga) > 0; }, kExpectMs);
    qb_audio_oper_abort(&ctrl);
  });
  testing::internal::CaptureStderr();
  EXPECT_EQ(-1, qb_audio_oper_capture(&ctrl, "null", "127.0.0.1"));  // stopped
  stopper.join();
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Recording raw data 'null' : Signed 24 bit Little Endian, Rate 96000 Hz, Channels 8\n"), std::string::npos);
  EXPECT_EQ(fpga_writes(), (Writes{{FPGA_REG_INPUT_ENABLE_HDMI, 1}}));
}

TEST(BufRing, OrderAndSizeAcrossWrapAround) {
  CAudioBuf ring(4, 5);
  for (int round = 0; round < 4; ++round) {  // both indices to 4
    ASSERT_EQ(0, ring.push_data("xxxx", 4));
    ASSERT_EQ(0, ring.push_buf_free(ring.get_buf_data()));
  }
  EXPECT_EQ(-1, ring.push_data("00000", 5));  // larger than a slot
  for (const char* s : {"0000", "1111", "2222", "3333"}) ASSERT_EQ(0, ring.push_data(s, 4));
  EXPECT_EQ(4, ring.get_buf_size());  // read index 4 > write index 3
  EXPECT_EQ(-1, ring.push_data("4444", 4));
  for (char expect : {'0', '1', '2', '3'}) {
    AUD_BUF_T* s = ring.get_buf_data();
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(expect, s->buf[0]);
    ASSERT_EQ(0, ring.push_buf_free(s));
  }
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
  EXPECT_EQ("000100", flags());
  clear_aborts();
  qb_audio_info r = make_record(2, 2, 0x80);
  r.ChStat[0] = 4;
  ASSERT_EQ(1, qb_audio_channel_state_set(7, &r));
  qb_audio_aplay_info_change_set(7);
  EXPECT_EQ(flags() + " " + std::to_string(record(7).ChStat[0]) + std::to_string(qb_misc_audio_status_valid_get(7)), "010000 00");
  clear_aborts();
  qb_audio_aplay_info_change_set(9), qb_audio_aplay_info_change_set(5);
  EXPECT_EQ("000000", flags());
}

}  // namespace
}  // namespace am_unit
