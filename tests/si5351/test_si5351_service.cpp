// Genlock service and client calls: replies, steps, the walk back to nominal on idle periods, the
// status file, and the requests the client calls send. Calls that use the fixed ports 11000-11004
// run in a private network namespace.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <thread>

#include "am_test_env.h"
#include "qb_socket.h"
#include "si5351_test_util.h"

namespace {

using namespace si5351_test;

// Everything a FILE* receives from fn.
template <typename Fn>
std::string printed(Fn fn) {
  char* text = nullptr;
  size_t size = 0;
  FILE* fp = open_memstream(&text, &size);
  fn(fp);
  fclose(fp);
  std::string out(text, size);
  free(text);
  return out;
}

// The service loop on an ephemeral loopback port, a client socket and a fake chip.
class Si5351Service : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int ch = 1; ch <= 3; ++ch) reset_channel(ch, 48000);
    svr_ = si5351_svr_open("127.0.0.1", 0);
    ASSERT_GE(svr_, 0);
    ASSERT_TRUE(client_.ok());
    bus_.clear_records();
  }
  void TearDown() override { close(svr_); }
  // Sends one datagram and lets the loop serve it.
  void serve(const Bytes& data) {
    const sockaddr_in dest = loopback(local_port(svr_));
    qb_udp_send(client_.fd(), data.data(), static_cast<int>(data.size()), &dest);
    si5351_svr_poll(svr_, 1000);
  }
  void idle() { si5351_svr_poll(svr_, 10); }  // one period with nothing arriving
  size_t writes() const { return bus_.transfer_count(kBus, kAddr); }

  am_test::TempRoot root_{{"tmp"}};
  am_test::I2cFake bus_;
  am_test::UdpReceiver client_{0};
  int svr_ = -1;
};

// A set-param is answered with the whole 64-byte buffer and programs nominal; steps are not
// answered and stop at the limit.
TEST_F(Si5351Service, SetParamIsAnsweredStepsAreNot) {
  qb_si5351_increase(1);
  set_chn_stat(1, QB_SI5351_SET_INC);
  LogCapture log;
  const Bytes req = request(QB_SI5351_SET_PARAM, 1, 48000);
  serve(req);
  Bytes got;
  ASSERT_TRUE(client_.receive(&got, 200));
  ASSERT_EQ(got.size(), 64u);
  EXPECT_TRUE(std::equal(req.begin(), req.end(), got.begin()));
  EXPECT_EQ(std::count(got.begin() + 12, got.end(), 0), 52);
  EXPECT_EQ(regs_of(bus_, 1), encode(24576000, 2));
  EXPECT_EQ(conf(1).value, 0);
  EXPECT_EQ(conf(1).state, static_cast<int>(QB_SI5351_SET_PARAM));
  EXPECT_EQ(log.count("set param ch:1 rate:48000 --[qb_si5351.cpp:"), 1);
  bus_.clear_records();
  for (int i = 0; i < 9; ++i) serve(request(QB_SI5351_SET_INC, 2, 0));
  EXPECT_EQ(conf(2).value, 2400);
  EXPECT_EQ(conf(2).state, static_cast<int>(QB_SI5351_SET_INC));
  EXPECT_EQ(writes(), 8u * 8u);  // the ninth step writes nothing
  EXPECT_FALSE(client_.receive(&got, 100)) << "steps are not answered";
  idle();
  EXPECT_NE(access(root_.at("/tmp/genlock.json").c_str(), F_OK), 0) << "the status file is for reports";
}

TEST_F(Si5351Service, FifoReportWritesTheStatusFile) {
  serve(request(QB_SI5351_SET_INC, 1, 0));
  const int32_t used = 1024;
  serve(request(QB_FIFO_REPORT, 3, 4096, &used));
  EXPECT_EQ(am_test::read_file(root_.at("/tmp/genlock.json")),
            "{\"genlock\":{\"hdmi\":{\"fifoTotal\":0,\"fifoUsed\":0,\"ppmAdjusted\":300,\"ppmMaxStep\":300},"
            "\"analog\":{\"fifoTotal\":0,\"fifoUsed\":0,\"ppmAdjusted\":0,\"ppmMaxStep\":300},"
            "\"earc/spdif\":{\"fifoTotal\":4096,\"fifoUsed\":1024,\"ppmAdjusted\":0,\"ppmMaxStep\":300}}}");
  EXPECT_NE(access(root_.at("/tmp/fifo.json").c_str(), F_OK), 0);
  EXPECT_EQ(conf(3).state, static_cast<int>(QB_SI5351_SET_PARAM)) << "a report changes no state";
}

// A reset steps once at once and once per idle period, then turns into set-param; channels not in
// reset keep their offset; a step request ends the walk.
TEST_F(Si5351Service, ResetWalksBackOnIdlePeriods) {
  for (int i = 0; i < 3; ++i) serve(request(QB_SI5351_SET_INC, 1, 0));
  serve(request(QB_SI5351_SET_INC, 2, 0));
  serve(request(QB_SI5351_SET_RESET, 1, 0));
  for (int want : {600, 300, 0}) {
    EXPECT_EQ(conf(1).value, want);
    EXPECT_EQ(conf(1).state, static_cast<int>(want == 0 ? QB_SI5351_SET_PARAM : QB_SI5351_SET_RESET));
    idle();
  }
  EXPECT_EQ(regs_of(bus_, 1), encode(24576000, 2));
  bus_.clear_records();
  idle();
  EXPECT_EQ(writes(), 0u);
  EXPECT_EQ(conf(2).value, 300) << "only channels in reset walk back";
  serve(request(QB_SI5351_SET_DEC, 3, 0));
  serve(request(QB_SI5351_SET_DEC, 3, 0));
  serve(request(QB_SI5351_SET_RESET, 3, 0));
  ASSERT_EQ(conf(3).value, -300);
  serve(request(QB_SI5351_SET_DEC, 3, 0));
  idle();
  EXPECT_EQ(conf(3).value, -600);
  EXPECT_EQ(conf(3).state, static_cast<int>(QB_SI5351_SET_DEC));
}

// Unknown commands are logged, not answered; a datagram longer than the buffer is cut, not left
// blocking the socket; an empty one is ignored.
TEST_F(Si5351Service, UnknownOversizedAndEmptyDatagrams) {
  LogCapture log;
  serve(request(QB_SI5351_DUMP, 0, 48000));
  serve(request(0xDEADBEEF, 1, 0));
  EXPECT_EQ(log.count("unknown cmd:0x1239 --[qb_si5351.cpp:"), 1);
  EXPECT_EQ(log.count("unknown cmd:0xdeadbeef --[qb_si5351.cpp:"), 1);
  Bytes big = request(QB_SI5351_SET_INC, 3, 0);
  big.resize(200, 0xAB);
  serve(big);
  EXPECT_EQ(conf(3).value, 300);
  serve(Bytes{});
  EXPECT_EQ(conf(3).value, 300);
  Bytes got;
  EXPECT_FALSE(client_.receive(&got, 100));
  serve(request(QB_SI5351_SET_PARAM, 3, 192000));
  ASSERT_TRUE(client_.receive(&got, 200));
  EXPECT_EQ(got.size(), 64u);
  EXPECT_EQ(conf(3).rate, 192000);
}

TEST(Si5351Dump, TextDumpOfTheChannelTable) {
  am_test::I2cFake bus;
  reset_channel(1, 48000);
  reset_channel(2, 44100);
  reset_channel(3, 192000);
  qb_si5351_increase(2);
  set_chn_stat(2, QB_SI5351_SET_INC);
  set_chn_stat(3, QB_SI5351_SET_RESET);
  EXPECT_EQ(printed(qb_si5351_dump2),
            "si5351 pid:0 \nch:1 rate:48000 value:0 status:set param\n"
            "ch:2 rate:44100 value:300 status:increase\nch:3 rate:192000 value:0 status:reset\n\n");
  set_chn_stat(3, QB_SI5351_SET_PARAM);
}

// ---- client calls on sockets of the test's making ---------------------------------------------

class Si5351Client : public ::testing::Test {
 protected:
  void SetUp() override {
    svr_ = si5351_svr_open("127.0.0.1", 0);
    ASSERT_GE(svr_, 0);
    const sockaddr_in dest = loopback(local_port(svr_));
    ASSERT_EQ(connect(client_.fd(), reinterpret_cast<const sockaddr*>(&dest), sizeof dest), 0);
  }
  void TearDown() override { close(svr_); }
  int svr_ = -1;
  am_test::UdpReceiver client_{0};
};

// Step requests are twelve bytes to the connected peer; failed sends are logged with the reason.
TEST_F(Si5351Client, RequestsAndFailedSends) {
  am_test::UdpReceiver unconnected(0);
  const int32_t used = 3;
  const struct {
    const char* name;
    int (*fn)(int, int);
    uint32_t command;
  } cases[] = {{"QB_SI5351_SET_INC", set_increase, QB_SI5351_SET_INC},
               {"QB_SI5351_SET_DEC", set_decrease, QB_SI5351_SET_DEC},
               {"QB_SI5351_SET_RESET", set_reset, QB_SI5351_SET_RESET}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.fn(client_.fd(), 2), 0);
    ASSERT_EQ(qb_select(&svr_, 1, QB_SELECT_READ, 1000), svr_ + QB_SOCK_READABLE);
    uint8_t buf[64];
    ASSERT_EQ(recv(svr_, buf, sizeof buf, 0), 12);
    EXPECT_EQ(Bytes(buf, buf + 12), request(c.command, 2, 0));
    LogCapture log;
    EXPECT_EQ(c.fn(-1, 1), -1);
    EXPECT_EQ(c.fn(unconnected.fd(), 1), -1);
    EXPECT_EQ(log.count(std::string("send ") + c.name + " to<127.0.0.1:11000> fd:-1 error:" + strerror(EBADF)), 1);
    EXPECT_EQ(log.count(std::string("send ") + c.name + " to<127.0.0.1:11000> fd:" + std::to_string(unconnected.fd()) + " error:"), 1);
  }
  LogCapture log;
  EXPECT_EQ(set_fifo_status(-1, 1, 2, used), -1);
  EXPECT_EQ(send_set_param(-1, 1, 48000), -1);
  for (const char* name : {"QB_FIFO_REPORT", "QB_SI5351_SET_PARAM"}) {
    EXPECT_EQ(log.count(std::string("send ") + name + " to<127.0.0.1:11000> fd:-1 error:" + strerror(EBADF)), 1) << name;
  }
}

TEST_F(Si5351Client, SetParamWaitsForTheServiceReply) {
  am_test::I2cFake bus;
  reset_channel(2, 48000);
  LogCapture log;
  std::thread service([this] { si5351_svr_poll(svr_, 5000); });
  EXPECT_EQ(send_set_param(client_.fd(), 2, 88200), 0);
  service.join();
  EXPECT_EQ(conf(2).rate, 88200);
  EXPECT_EQ(log.count("get 5351 set param ret=64 --[qb_si5351.cpp:"), 1);
}

// ---- calls on the fixed ports, in a private network namespace ---------------------------------

class Si5351ClientNetns : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
    ASSERT_TRUE(ns_.ok());
  }
  am_test::NetNs ns_;
};

// The client socket is bound, connected to the service port and non-blocking; a service that
// never answers gets the set-param three times, and the caller goes on; the fifo report goes to
// the service port as sixteen bytes.
TEST_F(Si5351ClientNetns, SocketAndSilentService) {
  const int rc = ns_.run([] {
    LogCapture log;
    am_test::UdpReceiver service(11000);
    const int fd = udp_socket_create("127.0.0.1", 11003);
    if (!service.ok() || fd < 0) return 1;
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len) != 0) return 2;
    if (ntohs(peer.sin_port) != 11000 || ntohl(peer.sin_addr.s_addr) != INADDR_LOOPBACK) return 3;
    if (local_port(fd) != 11003 || (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0) return 4;
    if (udp_socket_create("10.9.8.7", 11002) != -1 || udp_socket_create(nullptr, 11002) != -1) return 5;
    if (log.count("bind socket<10.9.8.7:11002> err --[qb_si5351.cpp:") != 1) return 6;
    Bytes got;
    const int32_t used = 7;
    if (set_fifo_status(fd, 2, 4096, 7) != 0 || !service.receive(&got, 1000)) return 7;
    if (got != request(QB_FIFO_REPORT, 2, 4096, &used)) return 8;
    if (send_set_param(fd, 3, 44100) != -1) return 9;
    for (int i = 0; i < 3; ++i) {
      if (!service.receive(&got, 100) || got != request(QB_SI5351_SET_PARAM, 3, 44100)) return 10;
    }
    if (service.receive(&got, 100)) return 11;
    return log.count("get 5351 set param response timeout --[qb_si5351.cpp:") == 3 ? 0 : 12;
  });
  EXPECT_EQ(rc, 0);
}

// The service has no dump handler: the query is logged as unknown and unanswered, and the client
// prints nothing. A service that does answer {dump, 0, 48000} from port 11004: four replies are
// printed, a fifth is not read.
TEST_F(Si5351ClientNetns, DumpQuery) {
  const int rc = ns_.run([] {
    LogCapture log;
    const int svr = si5351_svr_open("127.0.0.1", 11000);
    if (svr < 0) return 1;
    std::thread loop([svr] { si5351_svr_poll(svr, 5000); });
    const std::string none = printed(qb_si5351_dump);
    loop.join();
    if (!none.empty()) return 2;
    if (log.count("unknown cmd:0x1239 --[qb_si5351.cpp:") != 1) return 3;
    if (log.count("get 5351 dump response timeout --[qb_si5351.cpp:") != 1) return 4;
    int status = 0;
    std::thread answer([svr, &status] {
      uint8_t buf[64];
      if (qb_select(&svr, 1, QB_SELECT_READ, 5000) != svr + QB_SOCK_READABLE ||
          recv(svr, buf, sizeof buf, 0) != 12 || Bytes(buf, buf + 12) != request(QB_SI5351_DUMP, 0, 48000)) {
        status = 10;
        return;
      }
      const sockaddr_in to = loopback(11004);
      for (int i = 0; i < 5; ++i) {
        const std::string line = "line" + std::to_string(i) + "\n";
        qb_udp_send(svr, line.data(), static_cast<int>(line.size()), &to);
      }
    });
    const std::string text = printed(qb_si5351_dump);
    answer.join();
    if (status != 0) return status;
    return text == "line0\nline1\nline2\nline3\n" ? 0 : 5;
  });
  EXPECT_EQ(rc, 0);
}

}  // namespace
