// Socket helpers: kinds, options, readiness codes, bounded receive and send, one-shot datagrams.
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
#include "qb_socket.h"

namespace {

// A UDP socket bound to 127.0.0.1 on an ephemeral port, closed at the end of the test.
struct LoopSock {
  LoopSock() {
    fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in a;
    memset(&a, 0, sizeof(a));
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<struct sockaddr*>(&a), sizeof(a));
    socklen_t len = sizeof(addr);
    getsockname(fd, reinterpret_cast<struct sockaddr*>(&addr), &len);
  }
  ~LoopSock() { close(fd); }
  LoopSock(const LoopSock&) = delete;
  LoopSock& operator=(const LoopSock&) = delete;
  int port() const { return ntohs(addr.sin_port); }
  void send_to(const LoopSock& other, size_t n, char fill = 'x') const {
    std::vector<char> data(n, fill);
    sendto(fd, data.data(), n, 0, reinterpret_cast<const struct sockaddr*>(&other.addr),
           sizeof(other.addr));
  }
  int fd = -1;
  struct sockaddr_in addr;
};

int sock_opt(int fd, int level, int name) {
  int v = 0;
  socklen_t len = sizeof(v);
  getsockopt(fd, level, name, &v, &len);
  return v;
}

}  // namespace

TEST(QbSocket, CreateSockKinds) {
  struct Case {
    int kind;
    int family;
    int type;
  };
  const Case cases[] = {
      {QB_TCP_SOCK, AF_INET, SOCK_STREAM},
      {QB_UDP_SOCK, AF_INET, SOCK_DGRAM},
      {QB_LOCAL_TCP_SOCK, AF_UNIX, SOCK_STREAM},
      {QB_LOCAL_UDP_SOCK, AF_UNIX, SOCK_DGRAM},
      {0, AF_INET, SOCK_DGRAM},
  };
  for (const Case& c : cases) {
    int fd = qb_create_sock(c.kind);
    ASSERT_GE(fd, 0) << c.kind;
    EXPECT_EQ(sock_opt(fd, SOL_SOCKET, SO_DOMAIN), c.family) << c.kind;
    EXPECT_EQ(sock_opt(fd, SOL_SOCKET, SO_TYPE), c.type) << c.kind;
    EXPECT_EQ(qb_close_socket(&fd), 0);
    EXPECT_EQ(fd, -1);
  }
}

TEST(QbSocket, CloseSocketRefusesNothingToClose) {
  int fd = -1;
  EXPECT_EQ(qb_close_socket(nullptr), -1);
  EXPECT_EQ(qb_close_socket(&fd), -1);
  fd = 0;
  EXPECT_EQ(qb_close_socket(&fd), -1);
  EXPECT_EQ(fd, 0);
}

TEST(QbSocket, BindSetsReuseAddress) {
  int fd = qb_create_sock(QB_UDP_SOCK);
  EXPECT_EQ(qb_bind_sock(fd, 0x7F000001, 0), 0);
  EXPECT_EQ(sock_opt(fd, SOL_SOCKET, SO_REUSEADDR), 1);
  struct sockaddr_in a;
  socklen_t len = sizeof(a);
  getsockname(fd, reinterpret_cast<struct sockaddr*>(&a), &len);
  EXPECT_EQ(ntohl(a.sin_addr.s_addr), 0x7F000001U);
  EXPECT_EQ(qb_bind_sock(fd, 0x7F000001, 0), -1);  // already bound
  qb_close_socket(&fd);
  EXPECT_EQ(qb_bind_sock(-1, 0, 0), -1);
}

TEST(QbSocket, SetSockAttr) {
  EXPECT_EQ(qb_set_sock_attr(0, 1, 0, 0, 0, 0), -1);
  LoopSock s;
  EXPECT_EQ(qb_set_sock_attr(s.fd, 1, 1500, 250, 65536, 0), 0);
  struct timeval tv;
  socklen_t len = sizeof(tv);
  getsockopt(s.fd, SOL_SOCKET, SO_SNDTIMEO, &tv, &len);
  // The kernel rounds time-outs to its clock tick.
  EXPECT_EQ(tv.tv_sec, 1);
  EXPECT_NEAR(tv.tv_usec, 500000, 10000);
  getsockopt(s.fd, SOL_SOCKET, SO_RCVTIMEO, &tv, &len);
  EXPECT_EQ(tv.tv_sec, 0);
  EXPECT_NEAR(tv.tv_usec, 250000, 10000);
  EXPECT_EQ(sock_opt(s.fd, SOL_SOCKET, SO_REUSEADDR), 1);

  // A zero send time-out leaves the receive time-out unset as well.
  LoopSock t;
  EXPECT_EQ(qb_set_sock_attr(t.fd, 0, 0, 700, 0, 0), 0);
  getsockopt(t.fd, SOL_SOCKET, SO_RCVTIMEO, &tv, &len);
  EXPECT_EQ(tv.tv_sec, 0);
  EXPECT_EQ(tv.tv_usec, 0);
}

TEST(QbSocket, NonBlockingAndMulticastOptions) {
  EXPECT_EQ(qb_set_sock_noblock(0), -1);
  LoopSock s;
  EXPECT_EQ(qb_set_sock_noblock(s.fd), 0);
  EXPECT_NE(fcntl(s.fd, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(qb_set_sock_multicast_noloop(s.fd), 0);
  unsigned char loop = 1;
  socklen_t len = sizeof(loop);
  getsockopt(s.fd, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, &len);
  EXPECT_EQ(loop, 0);
}

TEST(QbSocket, DroppingAnUnjoinedGroupFailsAndSaysSo) {
  LoopSock s;
  testing::internal::CaptureStdout();
  EXPECT_NE(qb_set_sock_rm_multi_membership(s.fd, "239.1.2.3"), 0);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.rfind("setsockopt IP_DROP_MEMBERSHIP errno:", 0), 0u) << out;
}

TEST(QbSocket, IpA2n) {
  EXPECT_EQ(qb_ip_a2n("127.0.0.1"), 0x7F000001U);
  EXPECT_EQ(qb_ip_a2n("239.255.1.3"), 0xEFFF0103U);
  EXPECT_EQ(qb_ip_a2n("localhost"), 0x7F000001U);
  EXPECT_EQ(qb_ip_a2n(nullptr), 0xFFFFFFFFU);
  testing::internal::CaptureStdout();
  EXPECT_EQ(qb_ip_a2n(""), 0xFFFFFFFFU);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.rfind("getaddrinfo error: ", 0), 0u) << out;
}

TEST(QbSelect, ReadableCodeAndTimeout) {
  LoopSock a;
  LoopSock b;
  const int fds[] = {a.fd};
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(qb_select(fds, 1, QB_SELECT_READ, 1000), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
  b.send_to(a, 4);
  EXPECT_EQ(qb_select(fds, 1, QB_SELECT_READ, 1000), a.fd + 0x10000);
}

TEST(QbSelect, OnlyTheFirstRequestedClassIsReported) {
  LoopSock a;
  const int fds[] = {a.fd};
  EXPECT_EQ(qb_select(fds, 1, QB_SELECT_READ | QB_SELECT_WRITE, 200), 0);
  EXPECT_EQ(qb_select(fds, 1, QB_SELECT_WRITE, 200), a.fd + QB_SOCK_WRITABLE);
}

TEST(QbSelect, FirstReadyDescriptorInArrayOrder) {
  LoopSock a;
  LoopSock b;
  LoopSock c;
  c.send_to(a, 1);
  c.send_to(b, 1);
  const int fds[] = {-1, 0, b.fd, a.fd};
  ASSERT_TRUE(am_test::wait_for([&] { return qb_select(fds + 3, 1, QB_SELECT_READ, 10) != 0; }, 2000));
  EXPECT_EQ(qb_select(fds, 4, QB_SELECT_READ, 1000), b.fd + QB_SOCK_READABLE);
}

TEST(QbSelect, RefusesEmptyInput) {
  const int none[] = {0, -3};
  EXPECT_EQ(qb_select(nullptr, 1, QB_SELECT_READ, 10), -1);
  EXPECT_EQ(qb_select(none, 0, QB_SELECT_READ, 10), -1);
  EXPECT_EQ(qb_select(none, 2, QB_SELECT_READ, 10), -1);
}

TEST(QbUdpRecv, OversizedDatagramIsRefusedAndLeftQueued) {
  LoopSock rx;
  LoopSock tx;
  tx.send_to(rx, 1500);
  const int fds[] = {rx.fd};
  ASSERT_EQ(qb_select(fds, 1, QB_SELECT_READ, 2000), rx.fd + QB_SOCK_READABLE);
  char buf[2048];
  testing::internal::CaptureStdout();
  EXPECT_EQ(qb_udp_recv(rx.fd, buf, 1024, 0, nullptr, nullptr), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "socket buffer len[1500] > bufSize[1024] error\n");
  EXPECT_EQ(recv(rx.fd, buf, sizeof(buf), MSG_DONTWAIT), 1500);
}

TEST(QbUdpRecv, OneDatagramWithSender) {
  LoopSock rx;
  LoopSock tx;
  tx.send_to(rx, 100, 'q');
  char buf[1024];
  struct sockaddr_in from;
  socklen_t from_len = sizeof(from);
  EXPECT_EQ(qb_udp_recv(rx.fd, buf, sizeof(buf), 0, &from, &from_len), 100);
  EXPECT_EQ(buf[99], 'q');
  EXPECT_EQ(from.sin_port, tx.addr.sin_port);
  EXPECT_EQ(qb_udp_recv(rx.fd, nullptr, 10, 0, nullptr, nullptr), -1);
  EXPECT_EQ(qb_udp_recv(rx.fd, buf, 0, 0, nullptr, nullptr), -1);
}

TEST(QbUdpRecv, NonBlockingEmptySocketGivesZeroAndWantedGathers) {
  LoopSock rx;
  LoopSock tx;
  ASSERT_EQ(qb_set_sock_noblock(rx.fd), 0);
  char buf[64];
  EXPECT_EQ(qb_udp_recv(rx.fd, buf, sizeof(buf), 0, nullptr, nullptr), 0);
  EXPECT_EQ(qb_udp_recv2(rx.fd, buf, sizeof(buf), 0, nullptr, nullptr), 0);

  tx.send_to(rx, 4);
  tx.send_to(rx, 4);
  const int fds[] = {rx.fd};
  ASSERT_NE(qb_select(fds, 1, QB_SELECT_READ, 2000), 0);
  EXPECT_EQ(qb_udp_recv(rx.fd, buf, sizeof(buf), 8, nullptr, nullptr), 8);
  // Only part of the wanted bytes arrive: two EAGAIN in a row return what was gathered.
  tx.send_to(rx, 4);
  ASSERT_NE(qb_select(fds, 1, QB_SELECT_READ, 2000), 0);
  EXPECT_EQ(qb_udp_recv(rx.fd, buf, sizeof(buf), 8, nullptr, nullptr), 4);
}

TEST(QbUdpRecv2, OneCallOfTheWantedBytes) {
  LoopSock rx;
  LoopSock tx;
  tx.send_to(rx, 10);
  char buf[64];
  EXPECT_EQ(qb_udp_recv2(rx.fd, buf, sizeof(buf), 6, nullptr, nullptr), 6);
  EXPECT_EQ(qb_udp_recv2(rx.fd, nullptr, 6, 6, nullptr, nullptr), -1);
  EXPECT_EQ(qb_udp_recv2(-1, buf, sizeof(buf), 0, nullptr, nullptr), -1);
}

TEST(QbUdpSend, InvalidArgumentsGiveZero) {
  LoopSock s;
  const char data[4] = {};
  EXPECT_EQ(qb_udp_send(0, data, 4, &s.addr), 0);
  EXPECT_EQ(qb_udp_send(s.fd, nullptr, 4, &s.addr), 0);
  EXPECT_EQ(qb_udp_send(s.fd, data, 0, &s.addr), 0);
  EXPECT_EQ(qb_udp_send(s.fd, data, 4, nullptr), 0);
  EXPECT_EQ(qb_udp_send(s.fd, data, 4, &s.addr), 4);
  char buf[8];
  EXPECT_EQ(recv(s.fd, buf, sizeof(buf), 0), 4);
}

TEST(QbUdpSendData, SendsOneDatagramToAPortInRange) {
  LoopSock rx;
  EXPECT_EQ(qb_udp_send_data("127.0.0.1", rx.port(), "hello", 5), 0);
  char buf[16];
  EXPECT_EQ(recv(rx.fd, buf, sizeof(buf), 0), 5);
  EXPECT_EQ(std::string(buf, 5), "hello");
  EXPECT_EQ(qb_udp_send_data(nullptr, rx.port(), "x", 1), -1);
  EXPECT_EQ(qb_udp_send_data("127.0.0.1", rx.port(), nullptr, 1), -1);
  EXPECT_EQ(qb_udp_send_data("127.0.0.1", rx.port(), "x", 0), -1);
}

TEST(QbUdpSendData, PortsOutsideRangeSendNothing) {
  auto check = []() -> int {
    am_test::UdpReceiver low(1023);
    if (!low.ok()) return 10;
    if (qb_udp_send_data("127.0.0.1", 1023, "x", 1) != -1) return 1;
    if (qb_udp_send_data("127.0.0.1", 65536, "x", 1) != -1) return 2;
    if (qb_udp_send_data("127.0.0.1", 0, "x", 1) != -1) return 3;
    std::vector<uint8_t> got;
    return low.receive(&got, 300) ? 4 : 0;
  };
  if (am_test::have_netns()) {
    am_test::NetNs ns;
    ASSERT_TRUE(ns.ok());
    EXPECT_EQ(ns.run(check), 0);
  } else {
    EXPECT_EQ(qb_udp_send_data("127.0.0.1", 1023, "x", 1), -1);
    EXPECT_EQ(qb_udp_send_data("127.0.0.1", 65536, "x", 1), -1);
  }
}
