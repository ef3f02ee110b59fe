// Socket helpers: kinds, options, readiness codes, bounded receive and send, one-shot datagrams
// (the peer senders on their fixed ports are exercised by the daemon's integration test).
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "qb_socket.h"

namespace {

// A UDP socket bound to 127.0.0.1 on an ephemeral port.
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

// Kinds; bind (host-order address, reuse on); time-outs split into s/us; non-blocking; multicast
// loop off; refusals below fd 1; address texts and their diagnostics.
TEST(QbSocket, KindsOptionsAndAddresses) {
  const struct {
    int kind, family, type;
  } kinds[] = {{QB_TCP_SOCK, AF_INET, SOCK_STREAM},       {QB_UDP_SOCK, AF_INET, SOCK_DGRAM},
               {QB_LOCAL_TCP_SOCK, AF_UNIX, SOCK_STREAM}, {QB_LOCAL_UDP_SOCK, AF_UNIX, SOCK_DGRAM}};
  for (const auto& c : kinds) {
    int fd = qb_create_sock(c.kind);
    EXPECT_EQ(sock_opt(fd, SOL_SOCKET, SO_DOMAIN), c.family) << c.kind;
    EXPECT_EQ(sock_opt(fd, SOL_SOCKET, SO_TYPE), c.type) << c.kind;
    EXPECT_EQ(qb_close_socket(&fd), 0);
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

  LoopSock s;
  EXPECT_EQ(qb_set_sock_attr(s.fd, 1, 1500, 250, 65536, 0), 0);
  EXPECT_NEAR(timeout_us(s.fd, SO_SNDTIMEO), 1500000, 10000);  // the kernel rounds to its clock tick
  EXPECT_NEAR(timeout_us(s.fd, SO_RCVTIMEO), 250000, 10000);
  EXPECT_EQ(qb_set_sock_attr(s.fd, 0, 0, 700, 0, 0), 0);
  EXPECT_EQ(qb_set_sock_noblock(s.fd), 0);
  EXPECT_NE(fcntl(s.fd, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(qb_set_sock_multicast_noloop(s.fd), 0);
  EXPECT_EQ(sock_opt(s.fd, IPPROTO_IP, IP_MULTICAST_LOOP), 0);
  EXPECT_EQ(qb_set_sock_attr(0, 1, 0, 0, 0, 0), -1);
  const int file = open("/dev/null", O_RDONLY | O_CLOEXEC);  // not a socket: each option fails alone
  EXPECT_EQ(qb_set_sock_attr(file, 0, 0, 0, 65536, 0), -1);
  close(file);
  EXPECT_EQ(qb_set_sock_noblock(0), -1);

  EXPECT_EQ(qb_ip_a2n("239.255.1.3"), 0xEFFF0103U);
  EXPECT_EQ(qb_ip_a2n("localhost"), 0x7F000001U);
  EXPECT_EQ(qb_ip_a2n(nullptr), 0xFFFFFFFFU);
  testing::internal::CaptureStdout();
  EXPECT_NE(qb_set_sock_rm_multi_membership(s.fd, "239.1.2.3"), 0);  // never joined
  EXPECT_NE(qb_set_sock_rm_multi_membership(s.fd, nullptr), 0);
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
  const int fds[] = {-1, 0, b.fd, a.fd};
  EXPECT_EQ(qb_select(fds, 4, QB_SELECT_READ, 1000), b.fd + QB_SOCK_READABLE);
  EXPECT_EQ(qb_select(nullptr, 1, QB_SELECT_READ, 10), -1);
  EXPECT_EQ(qb_select(fds, 2, QB_SELECT_READ, 10), -1);
}

// One datagram with its sender; an oversized one refused and left queued; on an empty non-blocking
// socket 0; wanted bytes gathered over datagrams, or what arrived after two EAGAIN in a row. A
// send with invalid arguments gives 0; a one-shot datagram goes only to ports 1024-65535.
TEST(QbUdp, ReceiveAndSend) {
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
  for (int n : {4, 4}) tx.send_to(rx, n);
  ASSERT_TRUE(rx.readable());
  EXPECT_EQ(qb_udp_recv(rx.fd, buf, 1024, 8, nullptr, nullptr), 8);
  tx.send_to(rx, 4);
  ASSERT_TRUE(rx.readable());
  EXPECT_EQ(qb_udp_recv(rx.fd, buf, 1024, 8, nullptr, nullptr), 4);
  tx.send_to(rx, 10);
  ASSERT_TRUE(rx.readable());
  EXPECT_EQ(qb_udp_recv2(rx.fd, buf, 1024, 6, nullptr, nullptr), 6);
  EXPECT_EQ(qb_udp_recv(rx.fd, buf, 0, 0, nullptr, nullptr), -1);
  EXPECT_EQ(qb_udp_recv2(rx.fd, nullptr, 6, 6, nullptr, nullptr), -1);
  EXPECT_EQ(qb_udp_recv2(-1, buf, 1024, 0, nullptr, nullptr), -1);

  EXPECT_EQ(qb_udp_send(0, buf, 4, &rx.addr), 0);
  EXPECT_EQ(qb_udp_send(tx.fd, buf, 4, nullptr), 0);
  EXPECT_EQ(qb_udp_send_data("127.0.0.1", rx.port(), "hello", 5), 0);
  EXPECT_EQ(recv(rx.fd, buf, sizeof(buf), 0), 5);
  EXPECT_EQ(std::string(buf, 5), "hello");
  EXPECT_EQ(qb_udp_send_data(nullptr, rx.port(), "x", 1), -1);
  EXPECT_EQ(qb_udp_send_data("127.0.0.1", rx.port(), nullptr, 1), -1);
  EXPECT_EQ(qb_udp_send_data("127.0.0.1", rx.port(), "x", 0), -1);
  for (int port : {1023, 65536}) EXPECT_EQ(qb_udp_send_data("127.0.0.1", port, "x", 1), -1) << port;
}

}  // namespace
