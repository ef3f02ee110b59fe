// Socket helpers: kinds, options, readiness codes, bounded receive and send, one-shot datagrams
// (the peer senders on their fixed ports are exercised by the daemon's integration test). TLV
// boxes: wire layout, insertion order, frozen boxes, getters and a parser that never reads past
// its input.
#include "am_test_sys.h"

#include <type_traits>

#include "qb_socket.h"
#include "qb_tlv_box.h"

namespace {

// A UDP (or TCP) socket bound to 127.0.0.1 on an ephemeral port.
struct LoopSock {
  explicit LoopSock(int type = SOCK_DGRAM) {
    fd = socket(AF_INET, type, 0);
    addr.sin_family = AF_INET, addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
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

// An option's value (int, or a time-out in microseconds).
template <typename T = int>
long sock_opt(int fd, int level, int name) {
  T v{};
  socklen_t len = sizeof(v);
  getsockopt(fd, level, name, &v, &len);
  if constexpr (std::is_same_v<T, timeval>) return v.tv_sec * 1000000L + v.tv_usec; else return v;
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
  EXPECT_NEAR(sock_opt<timeval>(s.fd, SOL_SOCKET, SO_SNDTIMEO), 1500000, 10000);  // the kernel rounds to its tick
  EXPECT_NEAR(sock_opt<timeval>(s.fd, SOL_SOCKET, SO_RCVTIMEO), 250000, 10000);
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
  LoopSock lsn(SOCK_STREAM), tcp(SOCK_STREAM);  // urgent TCP data is the exception class
  ASSERT_TRUE(listen(lsn.fd, 1) == 0 && connect(tcp.fd, reinterpret_cast<struct sockaddr*>(&lsn.addr), sizeof(lsn.addr)) == 0);
  const int peer = accept(lsn.fd, nullptr, nullptr);
  EXPECT_EQ(send(tcp.fd, "!", 1, MSG_OOB) + qb_select(&peer, 1, QB_SELECT_EXCEPT, 1000), 1 + peer + QB_SOCK_EXCEPTION);
  close(peer);
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

using Bytes = std::vector<qb_u8_t>;
using Box = std::unique_ptr<tlv_box_t, int (*)(tlv_box_t*)>;

Box own(tlv_box_t* b) { return Box(b, tlv_box_destroy); }
Box parse(const Bytes& wire) { return own(tlv_box_parse(wire.data(), static_cast<qb_s32_t>(wire.size()))); }

void append_item(Bytes* out, qb_s32_t type, qb_s32_t length, const Bytes& value) {
  const qb_s32_t head[2] = {type, length};
  const qb_u8_t* p = reinterpret_cast<const qb_u8_t*>(head);
  out->insert(out->end(), p, p + sizeof(head));
  out->insert(out->end(), value.begin(), value.end());
}

std::vector<qb_s32_t> keys_of(const tlv_box_t* box) {
  std::vector<qb_s32_t> keys(16);
  const int n = key_list_keyset(box->m_list, keys.data(), 16);
  keys.resize(n < 0 ? 0 : static_cast<size_t>(n));
  return keys;
}

// A getter's value (-1 when it wrote none); the result code is checked against want_rc.
template <typename T>
T get(int (*fn)(const tlv_box_t*, qb_s32_t, T*), const tlv_box_t* box, qb_s32_t type, int want_rc = 0) {
  T v = static_cast<T>(-1);
  EXPECT_EQ(fn(box, type, &v), want_rc) << "type " << type;
  return v;
}

Bytes g_sent;
int capture_send(const void* data, int size) {
  g_sent.assign(static_cast<const qb_u8_t*>(data), static_cast<const qb_u8_t*>(data) + size);
  return 0;
}

// A report message is the outer head, the inner head and the value: 19 bytes for 3 value bytes.
// Items go on the wire in insertion order; a frozen box (serialized or parsed) refuses items and a
// second serialization; a duplicate type is refused and leaves the box as it was.
TEST(TlvBox, WireLayoutOrderFreezingAndDuplicates) {
  const qb_u8_t json[] = {0x61, 0x62, 0x00};
  EXPECT_EQ(tlv_packet(2, 0x00040502, json, 3, capture_send), 0);
  EXPECT_EQ(g_sent, (Bytes{0x02, 0, 0, 0, 0x0B, 0, 0, 0, 0x02, 0x05, 0x04, 0x00, 0x03, 0, 0, 0, 0x61, 0x62, 0x00}));

  Box box = own(tlv_box_create());
  ASSERT_EQ(tlv_box_put_char(box.get(), 5, 'A'), 0);
  ASSERT_EQ(tlv_box_put_short(box.get(), 3, 0x0102), 0);
  EXPECT_EQ(tlv_box_put_string(box.get(), 5, "other"), -1);
  EXPECT_EQ(tlv_box_get_size(box.get()), 9 + 10);
  EXPECT_EQ(tlv_box_get_buffer(box.get()), nullptr);
  ASSERT_EQ(tlv_box_serialize(box.get()), 0);
  Bytes expected;
  append_item(&expected, 5, 1, {'A'});
  append_item(&expected, 3, 2, {0x02, 0x01});
  const qb_u8_t* buf = tlv_box_get_buffer(box.get());
  EXPECT_EQ(Bytes(buf, buf + tlv_box_get_size(box.get())), expected);
  EXPECT_EQ(tlv_box_serialize(box.get()), -1);
  EXPECT_EQ(tlv_box_put_int(box.get(), 7, 1), -1);
  Box parsed = parse(expected);
  EXPECT_EQ(tlv_box_put_int(parsed.get(), 2, 1), -1);
  EXPECT_EQ(tlv_box_serialize(parsed.get()), -1);
}

// Every put/get pair through serialize and parse, widths included; a nested box; scalar getters
// zero-extend a short value instead of reading past it; masked look-up returns the earliest match.
TEST(TlvBox, GettersThroughParseAndStringCapacity) {
  Box inner = own(tlv_box_create());
  ASSERT_EQ(tlv_box_put_int(inner.get(), 0x00050002, 42), 0);
  Box box = own(tlv_box_create());
  EXPECT_EQ(tlv_box_put_object(box.get(), 10, inner.get()), -1);  // inner not serialized yet
  ASSERT_EQ(tlv_box_serialize(inner.get()), 0);
  ASSERT_TRUE(tlv_box_put_char(box.get(), 1, 'z') == 0 && tlv_box_put_short(box.get(), 2, -2) == 0 &&
              tlv_box_put_int(box.get(), 3, -300000) == 0 && tlv_box_put_long(box.get(), 4, 0x1122334455667788LL) == 0 &&
              tlv_box_put_longlong(box.get(), 5, -5) == 0 && tlv_box_put_float(box.get(), 6, 1.5f) == 0 &&
              tlv_box_put_double(box.get(), 7, -2.25) == 0 && tlv_box_put_bytes(box.get(), 9, "\x01\x02\x03", 3) == 0 &&
              tlv_box_put_object(box.get(), 10, inner.get()) == 0 && tlv_box_serialize(box.get()) == 0);
  EXPECT_EQ(tlv_box_get_size(box.get()), 9 * 8 + 1 + 2 + 4 + 8 + 8 + 4 + 8 + 3 + 12);

  Box p = own(tlv_box_parse(tlv_box_get_buffer(box.get()), tlv_box_get_size(box.get())));
  EXPECT_EQ(get(tlv_box_get_char, p.get(), 1), 'z');
  EXPECT_EQ(get(tlv_box_get_short, p.get(), 2), -2);
  EXPECT_EQ(get(tlv_box_get_int, p.get(), 3), -300000);
  EXPECT_EQ(get(tlv_box_get_long, p.get(), 4), 0x1122334455667788LL);
  EXPECT_EQ(get(tlv_box_get_longlong, p.get(), 5), -5);
  EXPECT_EQ(get(tlv_box_get_float, p.get(), 6), 1.5f);
  EXPECT_EQ(get(tlv_box_get_double, p.get(), 7), -2.25);
  const qb_u8_t* ptr = nullptr;
  qb_s32_t len = 0;
  ASSERT_EQ(tlv_box_get_bytes_ptr(p.get(), 9, &ptr, &len), 0);
  EXPECT_EQ(Bytes(ptr, ptr + len), (Bytes{1, 2, 3}));
  tlv_box_t* raw = nullptr;
  ASSERT_EQ(tlv_box_get_object(p.get(), 10, &raw), 0);
  EXPECT_EQ(get(tlv_box_get_int, own(raw).get(), 0x00050002), 42);
  EXPECT_EQ(get(tlv_box_get_int, p.get(), 99, -1), -1);

  Bytes wire;
  append_item(&wire, 0x00120001, 1, {0x7F});
  append_item(&wire, 0x00110003, 0, {});
  append_item(&wire, 0x00110001, 0, {});
  Box shorts = parse(wire);
  EXPECT_EQ(get(tlv_box_get_long, shorts.get(), 0x00120001), 0x7F);
  EXPECT_EQ(tlv_box_get_mask_node(shorts.get(), 0x00110000, 0xFFFF0000U)->type, 0x00110003);
  EXPECT_EQ(tlv_box_get_mask_node(shorts.get(), 0x00130000, 0xFFFF0000U), nullptr);

  // Strings: too small a capacity fails and leaves the buffer untouched; a larger one is
  // zero-filled first, and nothing past the capacity is touched.
  box = own(tlv_box_create());
  ASSERT_EQ(tlv_box_put_string(box.get(), 1, "abcd"), 0);  // 5 bytes stored
  char buf[16];
  memset(buf, 'X', sizeof(buf));
  len = 4;
  EXPECT_EQ(tlv_box_get_string(box.get(), 1, buf, &len), -1);
  EXPECT_EQ(std::string(buf, sizeof(buf)), std::string(16, 'X'));
  len = 12;
  EXPECT_EQ(tlv_box_get_bytes(box.get(), 1, buf, &len), 0);
  EXPECT_EQ(len, 5);
  EXPECT_EQ(std::string(buf, 13), std::string("abcd\0\0\0\0\0\0\0\0X", 13));
}

TEST(TlvParser, WalkRules) {
  Bytes good;
  append_item(&good, 1, 2, {0xA1, 0xA2});
  auto then = [&good](qb_s32_t type, qb_s32_t length, const Bytes& value) {
    Bytes out = good;
    append_item(&out, type, length, value);
    return out;
  };
  Bytes truncated_head = good;
  truncated_head.insert(truncated_head.end(), {5, 0, 0, 0, 1});
  Bytes negative = then(3, -8, {});
  append_item(&negative, 4, 0, {});
  Bytes duplicate = then(1, 1, {0xBB});
  append_item(&duplicate, 10, 1, {0xDD});
  const struct {
    const char* name;
    Bytes wire;
    std::vector<qb_s32_t> types;  // items expected, in order
  } cases[] = {
      {"value past end", then(2, 100, {1, 2, 3}), {1}},
      {"negative length", negative, {1}},
      {"truncated head", truncated_head, {1}},
      {"length near INT_MAX", then(6, 0x7FFFFFFF, {0}), {1}},
      {"zero-length item", then(7, 0, {}), {1, 7}},
      {"repeated type keeps the first", duplicate, {1, 10}},
      {"only three bytes", {1, 2, 3}, {}},
  };
  for (const auto& c : cases) {
    // A heap copy of exactly the input size lets the sanitizer build catch any overread.
    Box box = parse(Bytes(c.wire));
    ASSERT_NE(box.get(), nullptr) << c.name;
    EXPECT_EQ(tlv_box_get_size(box.get()), static_cast<qb_s32_t>(c.wire.size())) << c.name;
    EXPECT_EQ(keys_of(box.get()), c.types) << c.name;
  }
  EXPECT_EQ(tlv_box_get_node(parse(duplicate).get(), 1)->value[0], 0xA1);
  Box negative_size = own(tlv_box_parse(good.data(), -5));
  EXPECT_EQ(tlv_box_get_size(negative_size.get()), 0);
  EXPECT_TRUE(keys_of(negative_size.get()).empty());
}

}  // namespace
