// netrelay between two network namespaces drops, corrupts and truncates exactly the datagrams it
// was told to, and counts what it did.
#include "am_test_sys.h"

namespace {

constexpr const char* kGroup = "239.78.0.1";
constexpr uint16_t kPort = 59300;
constexpr uint32_t kCount = 12;
constexpr size_t kPayload = 64;
constexpr size_t kTruncateTo = 6;

std::vector<uint8_t> datagram(uint32_t index) {
  std::vector<uint8_t> d(kPayload);
  for (size_t k = 0; k < d.size(); ++k) d[k] = static_cast<uint8_t>(k * 7 + index);
  std::memcpy(d.data(), &index, sizeof index);
  return d;
}

TEST(NetrelayWire, DropsCorruptsAndTruncatesExactlyWhatItWasTold) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  am_test::TempRoot scratch;
  am_test::NetNs a, n, b;  // sender --eth0/ina-- relay --outb/eth0-- receiver
  ASSERT_TRUE(scratch.ok() && a.ok() && n.ok() && b.ok());
  for (const auto& [ns, port, ip] : {std::make_tuple(&a, "ina", "10.78.0"), std::make_tuple(&b, "outb", "10.78.1")}) {
    const std::string s = "ip -n " + ns->name() + " ", m = "ip -n " + n.name() + " ";
    for (const std::string& cmd : {"ip link add name eth0 netns " + ns->name() + " type veth peer name " + port +
                                       " netns " + n.name(),
                                   s + "addr add " + ip + ".1/24 dev eth0", s + "link set eth0 up",
                                   s + "route add 224.0.0.0/4 dev eth0", m + "addr add " + ip + ".2/24 dev " + port,
                                   m + "link set dev " + port + " up"})
      ASSERT_EQ(0, am_test::shell(cmd)) << cmd;
  }
  struct Row {
    const char* name;
    std::vector<std::string> args;
    std::vector<uint32_t> dropped, corrupted, truncated;
    std::string counts;
  };
  const Row rows[] = {
      {"untouched", {}, {}, {}, {}, "netrelay received=12 forwarded=12 dropped=0 "},
      {"drop ranges", {"--drop", "3-5,9"}, {3, 4, 5, 9}, {}, {}, " dropped=4 "},
      {"corrupt and truncate", {"--corrupt", "2,5", "--truncate", "5,7"}, {}, {2, 5}, {5, 7}, " corrupted=2 truncated=2"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    am_test::NsSocket rx(b.name()), tx(a.name());
    ASSERT_TRUE(rx.listen(kGroup, kPort));
    const std::string ready = scratch.path() + "/ready";
    unlink(ready.c_str());
    std::vector<std::string> argv = {std::string(am_test::kBinDir) + "/netrelay", "--group", kGroup, "--in", "ina",
                                     "--out", "outb", "--ready", ready, "--count", std::to_string(kCount),
                                     "--corrupt-offset", "4", "--corrupt-len", "2", "--truncate-to",
                                     std::to_string(kTruncateTo)};
    argv.insert(argv.end(), row.args.begin(), row.args.end());
    am_test::Process relay(argv, {}, n.name(), scratch.path() + "/relay.out");
    ASSERT_TRUE(am_test::wait_for([&] { return access(ready.c_str(), F_OK) == 0; }, 10000)) << relay.output();
    for (uint32_t i = 0; i < kCount; ++i, usleep(1000)) ASSERT_TRUE(tx.send(kGroup, kPort, datagram(i)));
    int status = -1;
    ASSERT_TRUE(relay.wait_exit(30000, &status)) << relay.output();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << relay.output();
    EXPECT_NE(relay.output().find(row.counts), std::string::npos) << relay.output();
    std::vector<std::vector<uint8_t>> want;
    auto in = [](const std::vector<uint32_t>& list, uint32_t i) { return std::find(list.begin(), list.end(), i) != list.end(); };
    for (uint32_t i = 0; i < kCount; ++i) {
      if (in(row.dropped, i)) continue;
      std::vector<uint8_t> d = datagram(i);
      if (in(row.corrupted, i)) d[4] = static_cast<uint8_t>(~d[4]), d[5] = static_cast<uint8_t>(~d[5]);
      if (in(row.truncated, i)) d.resize(kTruncateTo);
      want.push_back(d);
    }
    EXPECT_EQ(rx.drain(300), want);
  }
}

}  // namespace
