// Clock synthesiser: the register bytes the chip receives for nominal and adjusted rates, stepping
// limits; the genlock service's replies and status file; the requests of the client calls. The
// running service (power-up with its thread, the reset walk from above) is exercised by the
// integration tests.
#include "am_test_sys.h"

#include <array>

#include "am_i2c_fake.h"
#include "qb_si5351.h"
#include "qb_socket.h"

namespace {

constexpr const char* kBus = "/dev/i2c-1";
constexpr uint16_t kAddr = 0x60;
using Regs = std::array<uint8_t, 8>;
using Bytes = std::vector<uint8_t>;

// 900 MHz / f = a + b/c in lowest terms; P1 = 128a + floor(128b/c) - 512, P2 = 128b - c floor(128b/c),
// P3 = c; laid out over the eight multisynth registers with the R divider code.
Regs encode(uint64_t f, uint32_t div) {
  const uint64_t a = 900000000ULL / f;
  uint64_t b = 900000000ULL % f, c = f, g = b, h = c;
  for (uint64_t t; h != 0; g = h, h = t) t = g % h;
  c = b == 0 ? 1 : c / g;
  b = b == 0 ? 0 : b / g;
  const uint64_t fl = 128 * b / c, p1 = 128 * a + fl - 512, p2 = 128 * b - c * fl, p3 = c;
  return {uint8_t(p3 >> 8), uint8_t(p3), uint8_t((div & 7) << 4 | ((p1 >> 16) & 3)), uint8_t(p1 >> 8),
          uint8_t(p1), uint8_t(((p3 >> 16) & 0xF) << 4 | ((p2 >> 16) & 0xF)), uint8_t(p2 >> 8), uint8_t(p2)};
}
const Regs kNominal48k = {0x01, 0x00, 0x20, 0x10, 0x4F, 0x00, 0x00, 0x80};

Regs regs_of(const am_test::I2cFake& bus, int ch) {
  Regs out{};
  for (int i = 0; i < 8; ++i) out[i] = bus.reg(kBus, kAddr, static_cast<uint16_t>(34 + 8 * ch + i));
  return out;
}

// Puts channel ch back to (rate, value 0, state set-param, no fifo figures).
void reset_channel(int ch, int rate) {
  qb_si5351_set_param(ch, rate);
  set_chn_stat(ch, QB_SI5351_SET_PARAM);
  set_fifo_stat(ch, 0, 0);
}

SI5351_CONF_T conf(int ch) {
  SI5351_CONF_T c{};
  return qb_si5351_conf_get(ch, &c), c;
}

// A genlock request: command, channel, then the arguments, as little-endian words.
Bytes request(uint32_t command, std::vector<int32_t> args) {
  Bytes out(4 * (1 + args.size()));
  std::memcpy(out.data(), &command, 4);
  std::memcpy(out.data() + 4, args.data(), 4 * args.size());
  return out;
}

sockaddr_in loopback(int port) {
  sockaddr_in a{};
  a.sin_family = AF_INET, a.sin_port = htons(static_cast<uint16_t>(port)), a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return a;
}

int local_port(int fd) {
  sockaddr_in a{};
  socklen_t len = sizeof a;
  return getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0 ? ntohs(a.sin_port) : -1;
}

// Everything a FILE* receives from fn.
std::string printed(void (*fn)(FILE*)) {
  char* text = nullptr;
  size_t size = 0;
  FILE* fp = open_memstream(&text, &size);
  fn(fp), fclose(fp);
  const std::string out(text, size);
  return free(text), out;
}

class Si5351Driver : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int ch = 1; ch <= 3; ++ch) reset_channel(ch, 48000);
    bus_.clear_records();
  }
  size_t writes() const { return bus_.transfer_count(kBus, kAddr); }
  am_test::I2cFake bus_;
};

// Nominal, first and last step each way for every rate, against the encoding of
// f = nominal +/- step x R; the bytes go out as eight one-byte writes in register order.
TEST_F(Si5351Driver, ProgramsTheEncodingOfTheShiftedFrequency) {
  const struct { int rate; uint32_t r, div; uint64_t nominal; } plans[] = {
      {44100, 4, 2, 22579000}, {48000, 4, 2, 24576000}, {88200, 2, 1, 22579000},
      {96000, 2, 1, 24576000}, {176400, 1, 0, 22579000}, {192000, 1, 0, 24576000}};
  for (const auto& p : plans) {
    for (int v : {0, 300, -300, 2400, -2400}) {
      const int ch = 1 + (p.rate + v) % 3;
      SCOPED_TRACE("rate " + std::to_string(p.rate) + " ch " + std::to_string(ch) + " value " + std::to_string(v));
      bus_.clear_records();
      ASSERT_EQ(v == 0 ? qb_si5351_set(ch, p.rate)
                : v > 0 ? qb_si5351_param_inc_set(ch, p.rate, v) : qb_si5351_param_dec_set(ch, p.rate, -v), 1);
      ASSERT_EQ(regs_of(bus_, ch), encode(p.nominal + static_cast<int64_t>(v) * p.r, p.div));
      const auto recs = bus_.records();
      ASSERT_EQ(recs.size(), 8u);
      for (size_t i = 0; i < 8; ++i) ASSERT_EQ(recs[i].reg, 34 + 8 * ch + i);
    }
  }
  // Two rows written out, so that the encoder above cannot share a fault with the driver.
  ASSERT_EQ(qb_si5351_set(1, 48000), 1);
  EXPECT_EQ(regs_of(bus_, 1), kNominal48k);
  ASSERT_EQ(qb_si5351_param_dec_set(3, 192000, 300), 1);
  EXPECT_EQ(regs_of(bus_, 3), (Regs{0x3F, 0xFF, 0x00, 0x10, 0x4F, 0x10, 0xB2, 0x4F}));
  // The 44.1 kHz family row picker copies P1-P3 only; the divider stays as it was.
  EXPECT_EQ(qb_si5351_param_44100x_dec_set(600, 88200), 1);  // shift 1200
  si5351_channel_param_set(2);
  EXPECT_EQ(regs_of(bus_, 2), encode(22579000 - 1200, 0));
  EXPECT_EQ(qb_si5351_param_44100x_inc_set(2700, 44100), 0);
  EXPECT_EQ(qb_si5351_param_44100x_dec_set(300, 48000), 0);
}

// Unknown rates, steps outside 300..2400 in 300s, channels outside 1..3 and bad records write
// nothing and change no channel; record refusals give the reason on stdout.
TEST_F(Si5351Driver, RefusalsWriteNothing) {
  const SI5351_CONF_T before[3] = {conf(1), conf(2), conf(3)};
  testing::internal::CaptureStdout();
  EXPECT_EQ(qb_si5351_set(1, 32000), 0);
  for (int step : {0, 150, 2700, -300}) {
    EXPECT_EQ(qb_si5351_param_inc_set(1, 48000, step), 0) << step;
    EXPECT_EQ(qb_si5351_param_dec_set(1, 44100, step), 0) << step;
  }
  EXPECT_EQ(qb_si5351_param_inc_set(1, 32000, 300), 0);
  for (int ch : {0, 4}) {
    EXPECT_EQ(qb_si5351_set(ch, 48000), 1);
    EXPECT_EQ(qb_si5351_param_inc_set(ch, 48000, 300), 1);
    qb_si5351_increase(ch);
    qb_si5351_decrease(ch);
    qb_si5351_set_param(ch, 96000);
    qb_si5351_reset_chn(ch);
    qb_si5351_reset_chn2(ch);
    set_fifo_stat(ch, 1, 2);
    set_chn_stat(ch, QB_SI5351_SET_INC);
    SI5351_CONF_T out{};
    EXPECT_FALSE(qb_si5351_conf_get(ch, &out));
  }
  EXPECT_FALSE(qb_si5351_conf_get(1, nullptr));
  EXPECT_EQ(qb_si5351_conf_inc(nullptr), -1);
  EXPECT_EQ(qb_si5351_param_inc_dec(1, 0, 300), 0);
  SI5351_CONF_T bad[] = {{4, 48000, 0, 0, 0, 0}, {1, 32000, 0, 0, 0, 0}, {2, 48000, 150, 0, 0, 0}, {3, 48000, -2700, 0, 0, 0}};
  for (SI5351_CONF_T& rec : bad) EXPECT_EQ(rec.value < 0 ? qb_si5351_conf_dec(&rec) : qb_si5351_conf_inc(&rec), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "rate:32000 error\ninvalid ch:4 \ninvalid rate:32000 \ninvalid value:150 \ninvalid value:-2700 \n");
  EXPECT_EQ(writes(), 0u);
  for (int ch = 1; ch <= 3; ++ch) {
    const SI5351_CONF_T now = conf(ch);
    EXPECT_EQ(memcmp(&before[ch - 1], &now, sizeof(now)), 0) << ch;
  }
}

// Steps move 300 Hz at a time up to +/-2400 and write nothing past it. The
// immediate reset programs nominal once and leaves a nominal channel alone.
TEST_F(Si5351Driver, StepsStopAtTheLimitsAndReset) {
  for (int dir : {+1, -1}) {
    reset_channel(2, 96000);
    set_chn_stat(2, dir > 0 ? QB_SI5351_SET_INC : QB_SI5351_SET_DEC);
    bus_.clear_records();
    for (int i = 1; i <= 9; ++i) {
      dir > 0 ? qb_si5351_increase(2) : qb_si5351_decrease(2);
      EXPECT_EQ(conf(2).value, dir * 300 * std::min(i, 8));
      EXPECT_EQ(writes(), 8u * std::min(i, 8));
    }
    EXPECT_EQ(regs_of(bus_, 2), encode(24576000 + dir * 2400 * 2, 1));
  }
  bus_.clear_records();
  qb_si5351_reset_chn(2);
  EXPECT_EQ(conf(2).value, 0);
  EXPECT_EQ(regs_of(bus_, 2), encode(24576000, 1));
  qb_si5351_reset_chn(2);
  EXPECT_EQ(writes(), 8u) << "a channel at nominal is left alone";
}

// Power-up without the service thread: 71 one-byte writes that start with the outputs off and end
// with them on.
TEST_F(Si5351Driver, PowerUp) {
  EXPECT_EQ(qb_si5351_start(), 0);
  const auto w = bus_.writes(kBus, kAddr);
  ASSERT_EQ(w.size(), 71u);
  EXPECT_EQ(w.front(), (std::pair<uint16_t, uint8_t>{3, 0xFF}));
  EXPECT_EQ(w.back(), (std::pair<uint16_t, uint8_t>{3, 0x00}));
}

// ---- the service loop on an ephemeral loopback port, a client socket and a fake chip ----------

class Si5351Service : public Si5351Driver {
 protected:
  void SetUp() override {
    Si5351Driver::SetUp();
    svr_ = si5351_svr_open("127.0.0.1", 0);
    ASSERT_TRUE(svr_ >= 0 && client_.ok());
  }
  void TearDown() override { close(svr_); }
  // Sends one datagram and lets the loop serve it.
  void serve(const Bytes& data) {
    const sockaddr_in dest = loopback(local_port(svr_));
    sendto(client_.fd(), data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&dest), sizeof dest);
    si5351_svr_poll(svr_, 1000);
  }
  void idle() { si5351_svr_poll(svr_, 10); }  // one period with nothing arriving

  am_test::TempRoot root_{{"tmp"}};
  am_test::UdpReceiver client_{0};
  int svr_ = -1;
};

// A set-param is answered with the whole 64-byte buffer and programs nominal; steps are not
// answered; a fifo report writes the status file and changes no state.
TEST_F(Si5351Service, RepliesAndStatusFile) {
  qb_si5351_increase(1);
  set_chn_stat(1, QB_SI5351_SET_INC);
  const Bytes req = request(QB_SI5351_SET_PARAM, {1, 48000});
  serve(req);
  Bytes got;
  ASSERT_TRUE(client_.receive(&got, 200));
  ASSERT_EQ(got.size(), 64u);
  EXPECT_TRUE(std::equal(req.begin(), req.end(), got.begin()));
  EXPECT_EQ(std::count(got.begin() + 12, got.end(), 0), 52);
  EXPECT_EQ(regs_of(bus_, 1), kNominal48k);
  EXPECT_EQ(conf(1).state, static_cast<int>(QB_SI5351_SET_PARAM));
  serve(request(QB_SI5351_SET_INC, {1, 0}));
  EXPECT_FALSE(client_.receive(&got, 100)) << "steps are not answered";
  idle();
  EXPECT_NE(access(root_.at("/tmp/genlock.json").c_str(), F_OK), 0) << "the status file is for reports";
  serve(request(QB_FIFO_REPORT, {3, 4096, 1024}));
  EXPECT_EQ(am_test::read_file(root_.at("/tmp/genlock.json")),
            "{\"genlock\":{\"hdmi\":{\"fifoTotal\":0,\"fifoUsed\":0,\"ppmAdjusted\":300,\"ppmMaxStep\":300},"
            "\"analog\":{\"fifoTotal\":0,\"fifoUsed\":0,\"ppmAdjusted\":0,\"ppmMaxStep\":300},"
            "\"earc/spdif\":{\"fifoTotal\":4096,\"fifoUsed\":1024,\"ppmAdjusted\":0,\"ppmMaxStep\":300}}}");
  EXPECT_EQ(conf(3).state, static_cast<int>(QB_SI5351_SET_PARAM)) << "a report changes no state";
}

// A reset steps once at once and once per idle period, then turns into set-param; channels not in
// reset keep their offset.
TEST_F(Si5351Service, ResetWalksBackOnIdlePeriods) {
  for (uint32_t cmd : {QB_SI5351_SET_DEC, QB_SI5351_SET_DEC, QB_SI5351_SET_RESET}) serve(request(cmd, {1, 0}));
  serve(request(QB_SI5351_SET_DEC, {2, 0}));
  for (int want : {-300, 0}) {
    EXPECT_EQ(conf(1).value, want);
    EXPECT_EQ(conf(1).state, static_cast<int>(want == 0 ? QB_SI5351_SET_PARAM : QB_SI5351_SET_RESET));
    idle();
  }
  EXPECT_EQ(regs_of(bus_, 1), kNominal48k);
  EXPECT_EQ(conf(2).value, -300) << "only channels in reset walk back";
}

// Unknown commands are not answered; a datagram longer than the buffer is cut, not left
// blocking the socket; an empty one is ignored. The text dump lists the channel table.
TEST_F(Si5351Service, OddDatagramsAndTextDump) {
  serve(request(QB_SI5351_DUMP, {0, 48000}));
  Bytes big = request(QB_SI5351_SET_INC, {3, 0});
  big.resize(200, 0xAB);
  serve(big);
  serve(Bytes{});
  EXPECT_EQ(conf(3).value, 300);
  Bytes got;
  EXPECT_FALSE(client_.receive(&got, 100));
  reset_channel(2, 44100);
  set_chn_stat(3, QB_SI5351_SET_INC);
  EXPECT_EQ(printed(qb_si5351_dump2), "si5351 pid:0 \nch:1 rate:48000 value:0 status:set param\n"
                                      "ch:2 rate:44100 value:0 status:set param\nch:3 rate:48000 value:300 status:increase\n\n");
}

// Client calls on a socket connected to the service: a step request is twelve bytes, a set-param
// waits for the reply; failed sends (bad or unconnected socket) give -1.
TEST_F(Si5351Service, ClientCalls) {
  const sockaddr_in dest = loopback(local_port(svr_));
  ASSERT_EQ(connect(client_.fd(), reinterpret_cast<const sockaddr*>(&dest), sizeof dest), 0);
  EXPECT_EQ(set_reset(client_.fd(), 2), 0);
  uint8_t buf[64];
  ASSERT_EQ(qb_select(&svr_, 1, QB_SELECT_READ, 1000), svr_ + QB_SOCK_READABLE);
  ASSERT_EQ(recv(svr_, buf, sizeof buf, 0), 12);
  EXPECT_EQ(Bytes(buf, buf + 12), request(QB_SI5351_SET_RESET, {2, 0}));
  am_test::UdpReceiver unconnected(0);
  EXPECT_EQ(set_decrease(unconnected.fd(), 1), -1);
  EXPECT_EQ(set_increase(-1, 1), -1);
  EXPECT_EQ(set_fifo_status(-1, 1, 2, 3), -1);
  EXPECT_EQ(send_set_param(-1, 1, 48000), -1);
  std::thread service([this] { si5351_svr_poll(svr_, 5000); });
  EXPECT_EQ(send_set_param(client_.fd(), 2, 88200), 0);
  service.join();
  EXPECT_EQ(conf(2).rate, 88200);
}

// ---- calls on the fixed ports, in a private network namespace ---------------------------------

// The fifo report goes to the service port as sixteen bytes; a service that never answers gets
// the set-param three times and the dump query once, and the caller goes on. A stand-in service
// that answers {dump, 0, 48000} at port 11004: four replies are printed, a fifth is not read.
TEST(Si5351ClientNetns, SilentServiceAndDumpQuery) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  am_test::NetNs ns;
  ASSERT_TRUE(ns.ok());
  EXPECT_EQ(ns.run([] {
    am_test::UdpReceiver svr(11000);
    const int fd = udp_socket_create("127.0.0.1", 11003);
    if (!svr.ok() || fd < 0 || udp_socket_create("10.9.8.7", 11002) != -1) return 1;
    if (udp_socket_create(nullptr, 11002) != -1) return 1;
    Bytes got;
    if (set_fifo_status(fd, 2, 4096, 7) != 0 || !svr.receive(&got, 1000)) return 2;
    if (got != request(QB_FIFO_REPORT, {2, 4096, 7}) || send_set_param(fd, 3, 44100) != -1) return 3;
    for (int i = 0; i < 3; ++i)
      if (!svr.receive(&got, 100) || got != request(QB_SI5351_SET_PARAM, {3, 44100})) return 4;
    close(fd);
    if (!printed(qb_si5351_dump).empty() || !svr.receive(&got, 100) || svr.receive(&got, 100)) return 6;
    std::thread answer([&svr] {
      Bytes req;
      if (!svr.receive(&req, 5000) || req != request(QB_SI5351_DUMP, {0, 48000})) return;
      const sockaddr_in to = loopback(11004);
      for (int i = 0; i < 5; ++i) qb_udp_send(svr.fd(), ("line" + std::to_string(i) + "\n").c_str(), 6, &to);
    });
    const std::string text = printed(qb_si5351_dump);
    answer.join();
    return text == "line0\nline1\nline2\nline3\n" ? 0 : 5;
  }), 0);
}

}  // namespace
