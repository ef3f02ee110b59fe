// Genlock service loop and client calls. The loop runs in-process on an ephemeral port; the calls
// that use the fixed ports 11000-11004 run in a private network namespace.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "am_test_env.h"
#include "qb_socket.h"
#include "si5351_test_util.h"

namespace {

using si5351_test::conf;
using si5351_test::kAddr;
using si5351_test::kBus;
using si5351_test::LogCapture;
using si5351_test::regs_of;
using si5351_test::reset_channel;
using Bytes = std::vector<uint8_t>;

Bytes request(uint32_t command, int32_t ch, int32_t arg1) {
  Bytes out(12);
  std::memcpy(out.data(), &command, 4);
  std::memcpy(out.data() + 4, &ch, 4);
  std::memcpy(out.data() + 8, &arg1, 4);
  return out;
}

Bytes fifo_report(int32_t ch, int32_t total, int32_t used) {
  Bytes out = request(QB_FIFO_REPORT, ch, total);
  out.resize(16);
  std::memcpy(out.data() + 12, &used, 4);
  return out;
}

// A UDP socket bound to ip:port, or -1.
int udp_bound(const char* ip, int port) {
  int fd = qb_create_sock(QB_UDP_SOCK);
  if (qb_bind_sock(fd, qb_ip_a2n(ip), port) != 0) {
    qb_close_socket(&fd);
  }
  return fd;
}

int local_port(int fd) {
  sockaddr_in addr{};
  socklen_t len = sizeof addr;
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  return ntohs(addr.sin_port);
}

bool receive(int fd, Bytes* out, int timeout_ms, sockaddr_in* from = nullptr) {
  if (qb_select(&fd, 1, QB_SELECT_READ, timeout_ms) != fd + QB_SOCK_READABLE) {
    return false;
  }
  uint8_t buf[256];
  sockaddr_in src{};
  socklen_t len = sizeof src;
  const ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&src), &len);
  if (n < 0) {
    return false;
  }
  out->assign(buf, buf + n);
  if (from != nullptr) {
    *from = src;
  }
  return true;
}

void send_to_port(int fd, int port, const Bytes& data) {
  sockaddr_in dest{};
  dest.sin_family = AF_INET;
  dest.sin_port = htons(static_cast<uint16_t>(port));
  dest.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&dest), sizeof dest);
}

// The service loop on an ephemeral loopback port, a client socket and a fake chip.
class Si5351Service : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(root_.ok());
    for (int ch = 1; ch <= 3; ++ch) {
      reset_channel(ch, 48000);
    }
    svr_ = si5351_svr_open("127.0.0.1", 0);
    ASSERT_GE(svr_, 0);
    port_ = local_port(svr_);
    client_ = udp_bound("127.0.0.1", 0);
    ASSERT_GE(client_, 0);
    bus_.clear_records();
  }
  void TearDown() override {
    close(client_);
    close(svr_);
  }
  // Sends one datagram and lets the loop serve it.
  void serve(const Bytes& data) {
    send_to_port(client_, port_, data);
    si5351_svr_poll(svr_, 1000);
  }
  // One idle period of the loop (nothing arrives).
  void idle() { si5351_svr_poll(svr_, 10); }
  bool reply(Bytes* out, int timeout_ms = 200) { return receive(client_, out, timeout_ms); }
  size_t writes() const { return bus_.transfer_count(kBus, kAddr); }

  am_test::TempRoot root_{{"tmp"}};
  am_test::I2cFake bus_;
  int svr_ = -1;
  int port_ = 0;
  int client_ = -1;
};

TEST_F(Si5351Service, SetParamRepliesWithTheBufferAndProgramsNominal) {
  qb_si5351_increase(1);
  qb_si5351_increase(1);
  set_chn_stat(1, QB_SI5351_SET_INC);
  LogCapture log;
  const Bytes req = request(QB_SI5351_SET_PARAM, 1, 48000);
  serve(req);
  Bytes got;
  ASSERT_TRUE(reply(&got));
  ASSERT_EQ(got.size(), 64u);
  EXPECT_TRUE(std::equal(req.begin(), req.end(), got.begin()));
  EXPECT_EQ(std::count(got.begin() + 12, got.end(), 0), 52);
  EXPECT_EQ(regs_of(bus_, 1), (std::array<uint8_t, 8>{0x01, 0x00, 0x20, 0x10, 0x4F, 0x00, 0x00, 0x80}));
  EXPECT_EQ(conf(1).value, 0);
  EXPECT_EQ(conf(1).rate, 48000);
  EXPECT_EQ(conf(1).state, static_cast<int>(QB_SI5351_SET_PARAM));
  EXPECT_EQ(log.count("set param ch:1 rate:48000 --[qb_si5351.cpp:"), 1);
}

TEST_F(Si5351Service, NineIncreasesStopAtTheLimit) {
  serve(request(QB_SI5351_SET_PARAM, 2, 48000));
  for (int i = 0; i < 9; ++i) {
    serve(request(QB_SI5351_SET_INC, 2, 0));
  }
  EXPECT_EQ(conf(2).value, 2400);
  EXPECT_EQ(conf(2).state, static_cast<int>(QB_SI5351_SET_INC));
  EXPECT_EQ(writes(), 8u * 9u);  // the set-param and eight steps; the ninth writes nothing
  EXPECT_EQ(regs_of(bus_, 2), si5351_test::ms_bytes(2, si5351_test::encode(24576000 + 9600)));
  Bytes got;
  ASSERT_TRUE(reply(&got));  // the set-param reply
  EXPECT_FALSE(reply(&got, 100)) << "steps are not answered";
  idle();
  EXPECT_NE(access(root_.at("/tmp/genlock.json").c_str(), F_OK), 0) << "the status file is for reports";
}

TEST_F(Si5351Service, FifoReportWritesTheStatusFile) {
  serve(request(QB_SI5351_SET_INC, 1, 0));
  serve(fifo_report(3, 4096, 1024));
  EXPECT_EQ(am_test::read_file(root_.at("/tmp/genlock.json")),
            "{\"genlock\":{\"hdmi\":{\"fifoTotal\":0,\"fifoUsed\":0,\"ppmAdjusted\":300,\"ppmMaxStep\":300},"
            "\"analog\":{\"fifoTotal\":0,\"fifoUsed\":0,\"ppmAdjusted\":0,\"ppmMaxStep\":300},"
            "\"earc/spdif\":{\"fifoTotal\":4096,\"fifoUsed\":1024,\"ppmAdjusted\":0,\"ppmMaxStep\":300}}}");
  EXPECT_NE(access(root_.at("/tmp/fifo.json").c_str(), F_OK), 0);
  EXPECT_EQ(conf(3).state, static_cast<int>(QB_SI5351_SET_PARAM)) << "a report changes no state";
  EXPECT_EQ(conf(3).fifoTotal, 4096);
  EXPECT_EQ(conf(3).fifoUsed, 1024);
}

TEST_F(Si5351Service, ResetWalksBackOnIdlePeriods) {
  serve(request(QB_SI5351_SET_PARAM, 1, 48000));
  for (int i = 0; i < 3; ++i) {
    serve(request(QB_SI5351_SET_INC, 1, 0));
  }
  serve(request(QB_SI5351_SET_INC, 2, 0));  // another channel holding its offset
  ASSERT_EQ(conf(1).value, 900);
  serve(request(QB_SI5351_SET_RESET, 1, 0));
  EXPECT_EQ(conf(1).value, 600) << "one step at once";
  EXPECT_EQ(conf(1).state, static_cast<int>(QB_SI5351_SET_RESET));
  idle();
  EXPECT_EQ(conf(1).value, 300);
  EXPECT_EQ(conf(1).state, static_cast<int>(QB_SI5351_SET_RESET));
  idle();
  EXPECT_EQ(conf(1).value, 0);
  EXPECT_EQ(conf(1).state, static_cast<int>(QB_SI5351_SET_PARAM));
  EXPECT_EQ(regs_of(bus_, 1), si5351_test::ms_bytes(2, si5351_test::encode(24576000)));
  bus_.clear_records();
  idle();
  EXPECT_EQ(writes(), 0u);
  EXPECT_EQ(conf(2).value, 300) << "only channels in reset walk back";
}

// A step request ends the walk; a reset at nominal only turns into set-param on idle.
TEST_F(Si5351Service, StepRequestEndsTheWalk) {
  serve(request(QB_SI5351_SET_RESET, 2, 0));
  idle();
  EXPECT_EQ(conf(2).state, static_cast<int>(QB_SI5351_SET_PARAM));
  EXPECT_EQ(writes(), 0u);
  serve(request(QB_SI5351_SET_DEC, 3, 0));
  serve(request(QB_SI5351_SET_DEC, 3, 0));
  serve(request(QB_SI5351_SET_RESET, 3, 0));
  ASSERT_EQ(conf(3).value, -300);
  serve(request(QB_SI5351_SET_DEC, 3, 0));
  idle();
  idle();
  EXPECT_EQ(conf(3).value, -600);
  EXPECT_EQ(conf(3).state, static_cast<int>(QB_SI5351_SET_DEC));
}

TEST_F(Si5351Service, UnknownCommandsAreLoggedAndNotAnswered) {
  LogCapture log;
  serve(request(QB_SI5351_DUMP, 0, 48000));
  serve(request(0xDEADBEEF, 1, 0));
  EXPECT_EQ(log.count("unknown cmd:0x1239 --[qb_si5351.cpp:"), 1);
  EXPECT_EQ(log.count("unknown cmd:0xdeadbeef --[qb_si5351.cpp:"), 1);
  Bytes got;
  EXPECT_FALSE(reply(&got, 300));
  EXPECT_EQ(writes(), 0u);
}

// A datagram longer than the buffer is cut, not left blocking the socket; an empty one is ignored.
TEST_F(Si5351Service, OversizedAndEmptyDatagrams) {
  Bytes big = request(QB_SI5351_SET_INC, 3, 0);
  big.resize(200, 0xAB);
  serve(big);
  EXPECT_EQ(conf(3).value, 300);
  serve(Bytes{});
  EXPECT_EQ(conf(3).value, 300);
  serve(request(QB_SI5351_SET_PARAM, 3, 192000));
  Bytes got;
  ASSERT_TRUE(reply(&got));
  EXPECT_EQ(got.size(), 64u);
  EXPECT_EQ(conf(3).rate, 192000);
}

TEST(Si5351Dump, TextDumpOfTheChannelTable) {
  reset_channel(1, 48000);
  reset_channel(2, 44100);
  reset_channel(3, 192000);
  qb_si5351_increase(2);
  set_chn_stat(2, QB_SI5351_SET_INC);
  set_chn_stat(3, QB_SI5351_SET_RESET);
  char* text = nullptr;
  size_t size = 0;
  FILE* fp = open_memstream(&text, &size);
  ASSERT_NE(fp, nullptr);
  {
    am_test::I2cFake bus;
    qb_si5351_dump2(fp);
  }
  fclose(fp);
  EXPECT_EQ(std::string(text, size),
            "si5351 pid:0 \n"
            "ch:1 rate:48000 value:0 status:set param\n"
            "ch:2 rate:44100 value:300 status:increase\n"
            "ch:3 rate:192000 value:0 status:reset\n"
            "\n");
  free(text);
  set_chn_stat(2, QB_SI5351_SET_PARAM);
  set_chn_stat(3, QB_SI5351_SET_PARAM);
}

// ---- client calls on sockets of the test's making ---------------------------------------------

class Si5351Client : public ::testing::Test {
 protected:
  void SetUp() override {
    svr_ = si5351_svr_open("127.0.0.1", 0);
    ASSERT_GE(svr_, 0);
    client_ = udp_bound("127.0.0.1", 0);
    ASSERT_GE(client_, 0);
    sockaddr_in dest{};
    dest.sin_family = AF_INET;
    dest.sin_port = htons(static_cast<uint16_t>(local_port(svr_)));
    dest.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(client_, reinterpret_cast<sockaddr*>(&dest), sizeof dest), 0);
  }
  void TearDown() override {
    close(client_);
    close(svr_);
  }
  int svr_ = -1;
  int client_ = -1;
};

TEST_F(Si5351Client, StepRequestsAreTwelveBytes) {
  const struct {
    int (*fn)(int, int);
    uint32_t command;
  } cases[] = {{set_increase, QB_SI5351_SET_INC},
               {set_decrease, QB_SI5351_SET_DEC},
               {set_reset, QB_SI5351_SET_RESET}};
  for (const auto& c : cases) {
    EXPECT_EQ(c.fn(client_, 2), 0);
    Bytes got;
    ASSERT_TRUE(receive(svr_, &got, 1000));
    EXPECT_EQ(got, request(c.command, 2, 0));
  }
}

TEST_F(Si5351Client, ShortSendsAreLogged) {
  LogCapture log;
  const int unconnected = udp_bound("127.0.0.1", 0);
  EXPECT_EQ(set_increase(unconnected, 1), -1);
  EXPECT_EQ(set_decrease(-1, 1), -1);
  EXPECT_EQ(set_reset(-1, 1), -1);
  EXPECT_EQ(set_fifo_status(-1, 1, 2, 3), -1);
  EXPECT_EQ(send_set_param(-1, 1, 48000), -1);
  close(unconnected);
  const std::string fd_text = "fd:" + std::to_string(unconnected) + " error:";
  EXPECT_EQ(log.count("send QB_SI5351_SET_INC to<127.0.0.1:11000> " + fd_text), 1);
  for (const char* name : {"QB_SI5351_SET_DEC", "QB_SI5351_SET_RESET", "QB_FIFO_REPORT", "QB_SI5351_SET_PARAM"}) {
    EXPECT_EQ(log.count("send " + std::string(name) + " to<127.0.0.1:11000> fd:-1 error:" + strerror(EBADF)), 1)
        << name;
  }
}

TEST_F(Si5351Client, SetParamWaitsForTheServiceReply) {
  am_test::I2cFake bus;
  reset_channel(2, 48000);
  LogCapture log;
  std::thread service([this] { si5351_svr_poll(svr_, 5000); });
  EXPECT_EQ(send_set_param(client_, 2, 88200), 0);
  service.join();
  EXPECT_EQ(conf(2).rate, 88200);
  EXPECT_EQ(log.count("get 5351 set param ret=64 --[qb_si5351.cpp:"), 1);
}

// ---- calls on the fixed ports, in a private network namespace ---------------------------------

class Si5351ClientNetns : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!am_test::have_netns()) {
      GTEST_SKIP() << "needs root and network namespaces";
    }
    ASSERT_TRUE(ns_.ok());
  }
  am_test::NetNs ns_;
};

TEST_F(Si5351ClientNetns, SocketIsBoundConnectedAndNonBlocking) {
  const int rc = ns_.run([] {
    LogCapture log;
    const int fd = udp_socket_create("127.0.0.1", 11002);
    if (fd < 0) return 1;
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len) != 0) return 2;
    if (ntohs(peer.sin_port) != 11000 || ntohl(peer.sin_addr.s_addr) != INADDR_LOOPBACK) return 3;
    if (local_port(fd) != 11002) return 4;
    if ((fcntl(fd, F_GETFL) & O_NONBLOCK) == 0) return 5;
    if (udp_socket_create("10.9.8.7", 11003) != -1) return 6;
    if (log.count("bind socket<10.9.8.7:11003> err --[qb_si5351.cpp:") != 1) return 7;
    if (udp_socket_create(nullptr, 11003) != -1) return 8;
    return 0;
  });
  EXPECT_EQ(rc, 0);
}

// A service that never answers: the set-param request is sent three times, 2 s apart, and the
// caller goes on.
TEST_F(Si5351ClientNetns, SetParamGivesUpAfterThreeSilentTries) {
  const int rc = ns_.run([] {
    LogCapture log;
    am_test::UdpReceiver service(11000);
    if (!service.ok()) return 1;
    const int fd = udp_socket_create("127.0.0.1", 11003);
    if (fd < 0) return 2;
    if (send_set_param(fd, 3, 44100) != -1) return 3;
    for (int i = 0; i < 3; ++i) {
      std::vector<uint8_t> got;
      if (!service.receive(&got, 100) || got != request(QB_SI5351_SET_PARAM, 3, 44100)) return 4;
    }
    std::vector<uint8_t> extra;
    if (service.receive(&extra, 100)) return 5;
    return log.count("get 5351 set param response timeout --[qb_si5351.cpp:") == 3 ? 0 : 6;
  });
  EXPECT_EQ(rc, 0);
}

// The service has no dump handler: the query is logged as unknown, unanswered, and the client
// prints nothing and gives up after one silent period.
TEST_F(Si5351ClientNetns, DumpQueryAgainstTheServiceLoop) {
  const int rc = ns_.run([] {
    LogCapture log;
    const int svr = si5351_svr_open("127.0.0.1", 11000);
    if (svr < 0) return 1;
    std::thread loop([svr] { si5351_svr_poll(svr, 5000); });
    char* text = nullptr;
    size_t size = 0;
    FILE* fp = open_memstream(&text, &size);
    qb_si5351_dump(fp);
    fclose(fp);
    loop.join();
    const bool printed_nothing = size == 0;
    free(text);
    if (!printed_nothing) return 2;
    if (log.count("unknown cmd:0x1239 --[qb_si5351.cpp:") != 1) return 3;
    if (log.count("get 5351 dump response timeout --[qb_si5351.cpp:") != 1) return 4;
    return 0;
  });
  EXPECT_EQ(rc, 0);
}

// A service that does answer the query: the request comes from port 11004 as {dump, 0, 48000};
// four replies are printed, a fifth is not read.
TEST_F(Si5351ClientNetns, DumpQueryPrintsAtMostFourReplies) {
  const int rc = ns_.run([] {
    const int svr = udp_bound("127.0.0.1", 11000);
    if (svr < 0) return 1;
    int status = 0;
    std::thread answer([svr, &status] {
      Bytes got;
      sockaddr_in from{};
      if (!receive(svr, &got, 5000, &from)) {
        status = 10;
        return;
      }
      if (got != request(QB_SI5351_DUMP, 0, 48000) || ntohs(from.sin_port) != 11004) {
        status = 11;
        return;
      }
      for (int i = 0; i < 5; ++i) {
        const std::string line = "line" + std::to_string(i) + "\n";
        send_to_port(svr, 11004, Bytes(line.begin(), line.end()));
      }
    });
    char* text = nullptr;
    size_t size = 0;
    FILE* fp = open_memstream(&text, &size);
    qb_si5351_dump(fp);
    fclose(fp);
    answer.join();
    const std::string printed(text, size);
    free(text);
    if (status != 0) return status;
    return printed == "line0\nline1\nline2\nline3\n" ? 0 : 2;
  });
  EXPECT_EQ(rc, 0);
}

}  // namespace
