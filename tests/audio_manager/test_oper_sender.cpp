// The sender's datagrams: cutting a chunk into datagrams, batches of three per send call, the
// rolling counter, and argument checks.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "qb_audio_oper.h"
#include "qb_audio_oper_capture.h"
#include "test_oper_helpers.h"

namespace {

class Sender : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(receiver.ok());
    struct sockaddr_in local;
    socklen_t len = sizeof(local);
    getsockname(receiver.fd(), reinterpret_cast<sockaddr*>(&local), &len);
    int size = 4 << 20;
    setsockopt(receiver.fd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
    qb_audio_oper_default(&ctrl);
    ctrl.tx_fd = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_EQ(0, connect(ctrl.tx_fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)));
    ctrl.pktSize = 1408;
    net.assign(QB_AUDIO_BUF_DEFAULT_SIZE, 0);
    ctrl.net_audiobuf = net.data();
    qb_audio_info r = engine_test::record(2, 2, 0x80);
    audio_info_head_set(&ctrl, &r);
  }
  void TearDown() override { close(ctrl.tx_fd); }

  std::vector<std::vector<uint8_t>> received() {
    std::vector<std::vector<uint8_t>> out;
    std::vector<uint8_t> d;
    while (receiver.receive(&d, 100)) out.push_back(d);
    return out;
  }
  static audio_transport_head_t head_of(const std::vector<uint8_t>& d) {
    audio_transport_head_t h;
    std::memcpy(&h, d.data(), sizeof(h));
    return h;
  }
  static std::vector<uint8_t> pattern(size_t n) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 7 + 1);
    return v;
  }

  am_test::UdpReceiver receiver{0};
  qb_audio_oper_ctrl_t ctrl;
  std::vector<uint8_t> net;
};

TEST_F(Sender, ChunkOf1920BytesIsTwoDatagramsInOneCall) {
  const std::vector<uint8_t> pcm = pattern(1920);
  EXPECT_EQ(1, capture_send_chunk(&ctrl, pcm.data(), pcm.size()));
  const auto got = received();
  ASSERT_EQ(2u, got.size());
  EXPECT_EQ(1464u, got[0].size());
  EXPECT_EQ(568u, got[1].size());
  EXPECT_EQ(1408u, head_of(got[0]).Packet_Size);
  EXPECT_EQ(512u, head_of(got[1]).Packet_Size);
  EXPECT_EQ(0u, head_of(got[0]).Rolling_Sample_Data_Size_Total);
  EXPECT_EQ(1408u, head_of(got[1]).Rolling_Sample_Data_Size_Total);
  EXPECT_EQ(1920u, ctrl.rollingSampleDataSizeTotal);
  EXPECT_EQ(0, std::memcmp(got[1].data() + 56, pcm.data() + 1408, 512));
  EXPECT_EQ(AUDIO_HEAD_MAGIC, head_of(got[0]).Magic);
  EXPECT_EQ(ctrl.audio_info_head.Cfg_Change_Number, head_of(got[1]).Cfg_Change_Number);
}

TEST_F(Sender, ChunkOf12288BytesIsNineDatagramsInThreeCalls) {
  const std::vector<uint8_t> pcm = pattern(12288);
  EXPECT_EQ(3, capture_send_chunk(&ctrl, pcm.data(), pcm.size()));
  const auto got = received();
  ASSERT_EQ(9u, got.size());
  std::vector<uint8_t> joined;
  for (size_t i = 0; i < got.size(); ++i) {
    const audio_transport_head_t h = head_of(got[i]);
    EXPECT_EQ(i < 8 ? 1408u : 1024u, h.Packet_Size) << i;
    EXPECT_EQ(1408u * i, h.Rolling_Sample_Data_Size_Total) << i;
    joined.insert(joined.end(), got[i].begin() + 56, got[i].end());
  }
  EXPECT_EQ(pcm, joined);
}

TEST_F(Sender, CounterRunsOnAcrossChunksAndWraps) {
  ctrl.rollingSampleDataSizeTotal = 0xFFFFFF00u;
  const std::vector<uint8_t> pcm = pattern(512);
  capture_send_chunk(&ctrl, pcm.data(), pcm.size());
  capture_send_chunk(&ctrl, pcm.data(), pcm.size());
  const auto got = received();
  ASSERT_EQ(2u, got.size());
  EXPECT_EQ(0xFFFFFF00u, head_of(got[0]).Rolling_Sample_Data_Size_Total);
  EXPECT_EQ(0x100u, head_of(got[1]).Rolling_Sample_Data_Size_Total);
}

TEST_F(Sender, FailedSendIsLoggedPerBatchAndTheRestStillGoes) {
  engine_test::Log log;
  close(ctrl.tx_fd);
  ctrl.tx_fd = socket(AF_INET, SOCK_DGRAM, 0);  // not connected: every send fails
  const std::vector<uint8_t> pcm = pattern(12288);
  EXPECT_EQ(3, capture_send_chunk(&ctrl, pcm.data(), pcm.size()));
  EXPECT_EQ(3, log.count_prefix("sendmmsg errno:"));
  EXPECT_EQ(12288u, ctrl.rollingSampleDataSizeTotal);
}

TEST(SenderArgs, NullDeviceOrGroupReturnsAtOnce) {
  qb_audio_oper_ctrl_t ctrl;
  qb_audio_oper_default(&ctrl);
  EXPECT_EQ(-1, qb_audio_oper_capture(&ctrl, nullptr, "239.1.1.1"));
  EXPECT_EQ(-1, qb_audio_oper_capture(&ctrl, "hw:1,0", nullptr));
  EXPECT_EQ(-1, qb_audio_oper_capture(nullptr, "hw:1,0", "239.1.1.1"));
  EXPECT_EQ(0, ctrl.tx_fd);
  EXPECT_EQ(-1, qb_audio_oper_playback(&ctrl, nullptr, "239.1.1.1"));
  EXPECT_EQ(-1, qb_audio_oper_playback(&ctrl, "hw:1,0", nullptr));
  EXPECT_EQ(-1, qb_audio_oper_default(nullptr));
}

TEST(SenderArgs, StreamNumbersByDeviceName) {
  EXPECT_EQ(1, qb_audio_oper_stream_of_device("hw:1,0"));
  EXPECT_EQ(2, qb_audio_oper_stream_of_device("hw:2,0"));
  EXPECT_EQ(3, qb_audio_oper_stream_of_device("hw:3,0"));
  EXPECT_EQ(3, qb_audio_oper_stream_of_device("hw:0,0"));
  EXPECT_EQ(3, qb_audio_oper_stream_of_device("hw:1"));
}

TEST(SenderArgs, DefaultsOfTheRecord) {
  qb_audio_oper_ctrl_t ctrl;
  std::memset(static_cast<void*>(&ctrl), 0x5A, sizeof(ctrl));
  ASSERT_EQ(0, qb_audio_oper_default(&ctrl));
  EXPECT_EQ(-1, ctrl.file_type);
  EXPECT_EQ(1, ctrl.interleaved);
  EXPECT_EQ(1, ctrl.nonblock);
  EXPECT_EQ(0, ctrl.in_aborting.load());
  EXPECT_EQ(-1, ctrl.avail_min);
  EXPECT_EQ(8, ctrl.test_coef);
  EXPECT_EQ(-1, ctrl.term_c_lflag);
  EXPECT_EQ(-1, ctrl.fd);
  EXPECT_EQ(0x7FFFFFFFFFFFFFFFLL, ctrl.pbrec_count);
  EXPECT_STREQ("225.0.0.1", ctrl.audio_net_addr);
  EXPECT_EQ(59300, ctrl.net_port);
  EXPECT_EQ(SND_PCM_FORMAT_S24_LE, ctrl.rhwparams.format);
  EXPECT_EQ(2u, ctrl.rhwparams.channels);
  EXPECT_EQ(48000u, ctrl.rhwparams.rate);
  EXPECT_EQ(-1, ctrl.clifd);
  EXPECT_EQ(nullptr, ctrl.handle);
  EXPECT_EQ(0u, ctrl.rollingSampleDataSizeTotal);
  EXPECT_EQ(MCLK_STATE_CHECK, ctrl.mclkState);
}

}  // namespace
