// Socket helpers: kinds, options, readiness codes, bounded receive and send, one-shot datagrams to
// the peer services' fixed ports (in a private network namespace).
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "am_test_env.h"
#include "qb_peer_send.h"
#include "qb_socket.h"
#include "qb_tlv_box.h"

namespace {

// A UDP socket bound to 127.0.0.1 on an ephemeral port, closed at the end of the test.
struct LoopSock {
  LoopSock() {
    fd = socket(AF_INET, SOCK_DGRAM, 0);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr));
    socklen_t len = sizeof(addr);
    getsockname(fd, reinterpret_cast<struct sockaddr*>(&addr), &len);
  }
  ~LoopSock() { close(fd); }
  int port() const { return ntohs(addr.sin_port); }
  void send_to(const LoopSock& other, size_t n) const {
    const std::vector<char> data(n, 'x');
    sendto(fd, data.data(), n, 0, reinterpret_cast<const struct sockaddr*>(&other.addr), sizeof(other.addr));
  }
  bool readable() const { return qb_select(&fd, 1, QB_SELECT_READ, 2000) == fd + QB_SOCK_READABLE; }
  int fd = -1;
  struct sockaddr_in addr {};
};

int sock_opt(int fd, int level, int name) {
  int v = 0;
  socklen_t len = sizeof(v);
  getsockopt(fd, level, name, &v, &len);
  return v;
}

long timeout_us(int fd, int name) {
  struct timeval tv = {};
  socklen_t len = sizeof(tv);
  getsockopt(fd, SOL_SOCKET, name, &tv, &len);
  return tv.tv_sec * 1000000L + tv.tv_usec;
}

// Kinds; bind (host-order address, reuse on); time-outs split into s/us (a zero send time-out
// leaves the receive one unset too); non-blocking; multicast loop off; refusals below fd 1.
TEST(QbSocket, KindsBindAndOptions) {
  const struct {
    int kind, family, type;
  } kinds[] = {{QB_TCP_SOCK, AF_INET, SOCK_STREAM},       {QB_UDP_SOCK, AF_INET, SOCK_DGRAM},
               {QB_LOCAL_TCP_SOCK, AF_UNIX, SOCK_STREAM}, {QB_LOCAL_UDP_SOCK, AF_UNIX, SOCK_DGRAM},
               {0, AF_INET, SOCK_DGRAM}};
  for (const auto& c : kinds) {
    int fd = qb_create_sock(c.kind);
    ASSERT_GE(fd, 0) << c.kind;
    EXPECT_EQ(sock_opt(fd, SOL_SOCKET, SO_DOMAIN), c.family) << c.kind;
    EXPECT_EQ(sock_opt(fd, SOL_SOCKET, SO_TYPE), c.type) << c.kind;
    EXPECT_EQ(qb_close_socket(&fd), 0);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(qb_close_socket(&fd), -1);
  }
  EXPECT_EQ(qb_close_socket(nullptr), -1);

  int fd = qb_create_sock(QB_UDP_SOCK);
  EXPECT_EQ(qb_bind_sock(fd, 0x7F000001, 0), 0);
  EXPECT_EQ(sock_opt(fd, SOL_SOCKET, SO_REUSEADDR), 1);
  struct sockaddr_in a;
  socklen_t alen = sizeof(a);
  getsockname(fd, reinterpret_cast<struct sockaddr*>(&a), &alen);
  EXPECT_EQ(ntohl(a.sin_addr.s_addr), 0x7F000001U);
  EXPECT_EQ(qb_bind_sock(fd, 0x7F000001, 0), -1);  // already bound
  qb_close_socket(&fd);

  LoopSock s, t;
  EXPECT_EQ(qb_set_sock_attr(s.fd, 1, 1500, 250, 65536, 0), 0);
  EXPECT_NEAR(timeout_us(s.fd, SO_SNDTIMEO), 1500000, 10000);  // the kernel rounds to its clock tick
  EXPECT_NEAR(timeout_us(s.fd, SO_RCVTIMEO), 250000, 10000);
  EXPECT_EQ(qb_set_sock_attr(t.fd, 0, 0, 700, 0, 0), 0);
  EXPECT_EQ(timeout_us(t.fd, SO_RCVTIMEO), 0);
  EXPECT_EQ(qb_set_sock_noblock(s.fd), 0);
  EXPECT_NE(fcntl(s.fd, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(qb_set_sock_multicast_noloop(s.fd), 0);
  EXPECT_EQ(sock_opt(s.fd, IPPROTO_IP, IP_MULTICAST_LOOP), 0);
  EXPECT_EQ(qb_set_sock_attr(0, 1, 0, 0, 0, 0), -1);
  EXPECT_EQ(qb_set_sock_noblock(0), -1);
}

TEST(QbSocket, AddressesAndDiagnostics) {
  EXPECT_EQ(qb_ip_a2n("127.0.0.1"), 0x7F000001U);
  EXPECT_EQ(qb_ip_a2n("239.255.1.3"), 0xEFFF0103U);
  EXPECT_EQ(qb_ip_a2n("localhost"), 0x7F000001U);
  EXPECT_EQ(qb_ip_a2n(nullptr), 0xFFFFFFFFU);
  LoopSock s;
  testing::internal::CaptureStdout();
  EXPECT_NE(qb_set_sock_rm_multi_membership(s.fd, "239.1.2.3"), 0);  // never joined
  EXPECT_EQ(qb_ip_a2n(""), 0xFFFFFFFFU);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.rfind("setsockopt IP_DROP_MEMBERSHIP errno:", 0), 0u) << out;
  EXPECT_NE(out.find("\ngetaddrinfo error: "), std::string::npos) << out;
}

// The time-out gives 0; only the first requested class is examined; within it, the first ready
// descriptor in array order; descriptors <= 0 are skipped; an array without a usable one is refused.
TEST(QbSelect, WhichDescriptorIsReported) {
  LoopSock a, b, c;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(qb_select(&a.fd, 1, QB_SELECT_READ, 1000), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
  EXPECT_EQ(qb_select(&a.fd, 1, QB_SELECT_READ | QB_SELECT_WRITE, 200), 0);
  EXPECT_EQ(qb_select(&a.fd, 1, QB_SELECT_WRITE, 200), a.fd + QB_SOCK_WRITABLE);
  c.send_to(a, 1);
  c.send_to(b, 1);
  ASSERT_TRUE(a.readable());
  EXPECT_EQ(qb_select(&a.fd, 1, QB_SELECT_READ, 1000), a.fd + 0x10000);
  const int fds[] = {-1, 0, b.fd, a.fd};
  EXPECT_EQ(qb_select(fds, 4, QB_SELECT_READ, 1000), b.fd + QB_SOCK_READABLE);
  EXPECT_EQ(qb_select(nullptr, 1, QB_SELECT_READ, 10), -1);
  EXPECT_EQ(qb_select(fds, 0, QB_SELECT_READ, 10), -1);
  EXPECT_EQ(qb_select(fds, 2, QB_SELECT_READ, 10), -1);
}

// One datagram with its sender; an oversized one refused and left queued; on an empty non-blocking
// socket 0; wanted bytes gathered over datagrams, or what arrived after two EAGAIN in a row;
// refusals of an empty buffer.
TEST(QbUdpRecv, ResultsOfTheReceiveCalls) {
  LoopSock rx, tx;
  char buf[2048];
  tx.send_to(rx, 1500);
  ASSERT_TRUE(rx.readable());
  testing::internal::CaptureStdout();
  EXPECT_EQ(qb_udp_recv(rx.fd, buf, 1024, 0, nullptr, nullptr), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "socket buffer len[1500] > bufSize[1024] error\n");
  EXPECT_EQ(recv(rx.fd, buf, sizeof(buf), MSG_DONTWAIT), 1500);
  tx.send_to(rx, 100);
  struct sockaddr_in from;
  socklen_t from_len = sizeof(from);
  EXPECT_EQ(qb_udp_recv(rx.fd, buf, 1024, 0, &from, &from_len), 100);
  EXPECT_EQ(from.sin_port, tx.addr.sin_port);

  ASSERT_EQ(qb_set_sock_noblock(rx.fd), 0);
  EXPECT_EQ(qb_udp_recv(rx.fd, buf, 1024, 0, nullptr, nullptr), 0);
  EXPECT_EQ(qb_udp_recv2(rx.fd, buf, 1024, 0, nullptr, nullptr), 0);
  tx.send_to(rx, 4);
  tx.send_to(rx, 4);
  ASSERT_TRUE(rx.readable());
  EXPECT_EQ(qb_udp_recv(rx.fd, buf, 1024, 8, nullptr, nullptr), 8);
  tx.send_to(rx, 4);
  ASSERT_TRUE(rx.readable());
  EXPECT_EQ(qb_udp_recv(rx.fd, buf, 1024, 8, nullptr, nullptr), 4);
  tx.send_to(rx, 10);
  ASSERT_TRUE(rx.readable());
  EXPECT_EQ(qb_udp_recv2(rx.fd, buf, 1024, 6, nullptr, nullptr), 6);
  EXPECT_EQ(qb_udp_recv(rx.fd, nullptr, 10, 0, nullptr, nullptr), -1);
  EXPECT_EQ(qb_udp_recv(rx.fd, buf, 0, 0, nullptr, nullptr), -1);
  EXPECT_EQ(qb_udp_recv2(rx.fd, nullptr, 6, 6, nullptr, nullptr), -1);
  EXPECT_EQ(qb_udp_recv2(-1, buf, 1024, 0, nullptr, nullptr), -1);
}

// A send with invalid arguments gives 0; a one-shot datagram to a port in range arrives whole.
TEST(QbUdpSend, SendsAndRefusals) {
  LoopSock s;
  const char data[4] = {};
  EXPECT_EQ(qb_udp_send(0, data, 4, &s.addr), 0);
  EXPECT_EQ(qb_udp_send(s.fd, nullptr, 4, &s.addr), 0);
  EXPECT_EQ(qb_udp_send(s.fd, data, 0, &s.addr), 0);
  EXPECT_EQ(qb_udp_send(s.fd, data, 4, nullptr), 0);
  EXPECT_EQ(qb_udp_send(s.fd, data, 4, &s.addr), 4);
  LoopSock rx;
  EXPECT_EQ(qb_udp_send_data("127.0.0.1", rx.port(), "hello", 5), 0);
  char buf[16];
  EXPECT_EQ(recv(rx.fd, buf, sizeof(buf), 0), 5);
  EXPECT_EQ(std::string(buf, 5), "hello");
  EXPECT_EQ(qb_udp_send_data(nullptr, rx.port(), "x", 1), -1);
  EXPECT_EQ(qb_udp_send_data("127.0.0.1", rx.port(), nullptr, 1), -1);
  EXPECT_EQ(qb_udp_send_data("127.0.0.1", rx.port(), "x", 0), -1);
  for (int port : {1023, 65536, 0}) EXPECT_EQ(qb_udp_send_data("127.0.0.1", port, "x", 1), -1) << port;
}

// On the fixed ports: each peer sender reaches its service; nothing is sent below port 1024; the
// bridge requests of audio_tlv_packet go to the bridge services by outer type, others nowhere.
TEST(QbPeerSend, EachSenderReachesItsPort) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces (fixed ports)";
  am_test::NetNs ns;
  ASSERT_TRUE(ns.ok());
  EXPECT_EQ(ns.run([] {
    const struct {
      int (*send)(const void*, int);
      int port;
    } peers[] = {{qb_cmd_send_to_it6621, 8382}, {qb_cmd_send_to_it6620, 8380}, {qb_cmd_send_to_avp, 9991},
                 {qb_cmd_send_to_mdin, 8370}};
    std::vector<uint8_t> got;
    for (const auto& p : peers) {
      am_test::UdpReceiver rx(p.port);
      if (!rx.ok() || p.send("switch audio", 12) != 0) return 1;
      if (!rx.receive(&got, 2000) || std::string(got.begin(), got.end()) != "switch audio") return 2;
    }
    if (qb_cmd_send_to_avp("x", 0) != -1) return 3;
    am_test::UdpReceiver low(1023);
    if (!low.ok() || qb_udp_send_data("127.0.0.1", 1023, "x", 1) != -1 || low.receive(&got, 300)) return 4;
    am_test::UdpReceiver it6620(QB_IT6620_SERVICE_PORT), it6621(QB_IT6621_SERVICE_PORT);
    const qb_u8_t v[2] = {0x12, 0x34};
    audio_tlv_packet(7, 0x00030002, v, 2);
    audio_tlv_packet(8, 0x00040002, v, 2);
    audio_tlv_packet(3, 0x00050002, v, 2);
    if (!it6620.receive(&got, 2000) || got.size() != 18 || got[0] != 7 || got[10] != 0x03) return 5;
    if (!it6621.receive(&got, 2000) || got.size() != 18 || got[0] != 8 || got[10] != 0x04) return 6;
    return it6620.receive(&got, 200) || it6621.receive(&got, 200) ? 7 : 0;
  }), 0);
}

}  // namespace
