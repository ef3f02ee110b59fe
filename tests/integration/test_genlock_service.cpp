// The qb_genlock program under a temporary root in its own network namespace, driven with raw UDP
// requests; observed through the emulated I2C bus file and its exit status on SIGTERM (the client
// calls, the status file, the reset walk and the other requests are unit-tested against the
// service loop).
#include "am_test_sys.h"
#include <array>

namespace {

constexpr uint32_t kSetParam = 0x1234;
constexpr uint32_t kSetInc = 0x1235;
constexpr int kChipAddr = 0x60;
constexpr uint16_t kServicePort = 11000;
constexpr const char* kLogFile = "/tmp/qb_genlock.log";

using Bytes = std::vector<uint8_t>;
using MsRegs = std::array<uint8_t, 8>;

Bytes request(uint32_t command, int32_t ch, int32_t arg1) {
  Bytes out(12);
  for (const auto& [at, v] : {std::pair<size_t, uint32_t>{0, command}, {4, ch}, {8, arg1}}) std::memcpy(&out[at], &v, 4);
  return out;
}

// Inside the namespace: sends the requests from 127.0.0.1:port to the service. With want_reply,
// one 64-byte reply starting with the last request must come within 3 s, else none within
// quiet_ms. 0, or the step that failed.
int exchange(int port, const std::vector<Bytes>& requests, bool want_reply, int quiet_ms = 0) {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET, a.sin_port = htons(static_cast<uint16_t>(port)), a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) return 10;
  a.sin_port = htons(kServicePort);
  for (const Bytes& req : requests)
    if (sendto(fd, req.data(), req.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a) != 12) return 11;
  const int wait_ms = want_reply ? 3000 : quiet_ms;
  const timeval tv{wait_ms / 1000, (wait_ms % 1000) * 1000};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  uint8_t buf[256];
  const ssize_t n = wait_ms > 0 ? recv(fd, buf, sizeof buf, 0) : -1;
  close(fd);
  if (!want_reply) return n < 0 ? 0 : 12;
  return n == 64 && std::memcmp(buf, requests.back().data(), 12) == 0 ? 0 : 13;
}

TEST(GenlockService, PowerUpRequestsAndSigterm) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  am_test::TempRoot root({"dev", "tmp"});
  ASSERT_TRUE(root.ok());
  ASSERT_TRUE(root.write("/dev/i2c-1.log", ""));
  // Log straight to a file (unbuffered) so the test can follow it while the service runs.
  ASSERT_TRUE(root.write("/config/logconf/qb_genlock.conf",
                         "log4cpp.rootCategory=INFO, file\n"
                         "log4cpp.appender.file=FileAppender\n"
                         "log4cpp.appender.file.fileName=" + std::string(kLogFile) + "\n"
                         "log4cpp.appender.file.layout=PatternLayout\n"
                         "log4cpp.appender.file.layout.ConversionPattern=[%p] %m%n\n"));
  am_test::NetNs ns;
  ASSERT_TRUE(ns.ok());
  am_test::Process service({std::string(am_test::kBinDir) + "/qb_genlock"}, {"AUDIO_MANAGER_ROOT=" + root.path()},
                           ns.name(), root.path() + "/qb_genlock.out");
  ASSERT_TRUE(service.started());
  auto log_has = [&](const std::string& text) { return am_test::read_file(root.at(kLogFile)).find(text) != std::string::npos; };
  auto bus_lines = [&] {
    std::vector<std::string> lines;
    std::istringstream in(am_test::read_file(root.at("/dev/i2c-1.log")));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  };
  auto regs = [&](int first) {
    const std::string bus = am_test::read_file(root.at("/dev/i2c-1"));
    MsRegs out{};
    const size_t offset = static_cast<size_t>(kChipAddr) * 256 + static_cast<size_t>(first);
    if (bus.size() >= offset + out.size()) std::memcpy(out.data(), bus.data() + offset, out.size());
    return out;
  };
  auto regs_become = [&](int first, const MsRegs& want) { return am_test::wait_for([&] { return regs(first) == want; }, 5000); };
  {
    SCOPED_TRACE("power-up table, one byte per bus message");
    ASSERT_TRUE(am_test::wait_for([&] { return bus_lines().size() >= 71; }, 10000)) << service.output();
    ASSERT_TRUE(am_test::wait_for([&] { return log_has("si5351_task pid:"); }, 10000));  // the socket is up
    const std::vector<std::string> power_up = bus_lines();
    EXPECT_EQ(power_up[0], "W 60 03 FF");
    EXPECT_EQ(power_up[24], "W 60 1D 0E");  // PLLA P1 bits 15-8
    EXPECT_EQ(power_up[70], "W 60 03 00");
    EXPECT_EQ(regs(58), (MsRegs{0x00, 0x01, 0x00, 0x02, 0x80, 0x00, 0x00, 0x00}));
  }
  {
    SCOPED_TRACE("set-param is answered, then programmed; a step is not answered, then programmed");
    EXPECT_EQ(ns.run([] { return exchange(11001, {request(kSetParam, 1, 44100)}, true); }), 0);
    EXPECT_TRUE(regs_become(42, MsRegs{0x58, 0x33, 0x20, 0x11, 0xEE, 0x00, 0x07, 0x96}));
    EXPECT_EQ(ns.run([] { return exchange(11001, {request(kSetInc, 1, 0)}, false, 300); }), 0);
    EXPECT_TRUE(regs_become(42, MsRegs{0xB9, 0x05, 0x20, 0x11, 0xED, 0x11, 0x67, 0x5F}));
    const std::vector<std::string> lines = bus_lines();
    ASSERT_GE(lines.size(), 8u);
    EXPECT_EQ(lines[lines.size() - 8], "W 60 2A B9");
    EXPECT_EQ(lines.back(), "W 60 31 5F");
  }
  SCOPED_TRACE("SIGTERM: exit status 0");
  ASSERT_TRUE(service.signal(SIGTERM));
  int status = 0;
  ASSERT_TRUE(service.wait_exit(5000, &status));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
