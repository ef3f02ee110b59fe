// netrelay: its impairment plan (index lists, seeded rates) and the program itself between two
// network namespaces: it must drop, duplicate, reorder, corrupt and truncate exactly the
// datagrams it was told to, and count what it did.
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "am_test_env.h"
#include "am_test_paths.h"
#include "netrelay_options.h"
#include "netrelay_plan.h"

namespace {

using netrelay::Impair;
using netrelay::IndexList;
using netrelay::Plan;
using am_test::NsSocket;

// ---- the plan -------------------------------------------------------------------------------

TEST(NetrelayPlan, IndexListsParseMergeAndRefuse) {
  struct Row {
    const char* text;
    std::vector<uint64_t> in;
    std::vector<uint64_t> out;
  };
  const Row rows[] = {
      {"", {}, {0, 1, 100}},
      {"3,7,10-12", {3, 7, 10, 11, 12}, {0, 2, 4, 6, 8, 9, 13}},
      {"4-8,6-10,20,5-5", {4, 5, 8, 9, 10, 20}, {3, 11, 19, 21}},  // overlapping ranges merge
      {"1099511627776", {1099511627776ULL}, {0}},
  };
  for (const Row& row : rows) {
    IndexList list;
    ASSERT_TRUE(list.parse(row.text)) << row.text;
    for (uint64_t i : row.in) EXPECT_TRUE(list.contains(i)) << row.text << " " << i;
    for (uint64_t i : row.out) EXPECT_FALSE(list.contains(i)) << row.text << " " << i;
  }
  for (const char* text : {"12-10", "a", "1,", ",1", "1,,2", "1-", "-1", "1 2", "3-4-5", "1.5",
                           "1099511627777"}) {
    IndexList list;
    EXPECT_FALSE(list.parse(text)) << text;
  }
}

TEST(NetrelayPlan, CorruptionStaysInsideTheDatagram) {
  // Corruption inverts only bytes inside the datagram: (offset, length) -> bytes of {0, 1, 2, 3}.
  const std::vector<std::tuple<size_t, size_t, std::vector<uint8_t>>> rows = {
      {1, 2, {0, 0xFE, 0xFD, 3}}, {2, 100, {0, 1, 0xFD, 0xFC}}, {4, 4, {0, 1, 2, 3}}, {3, SIZE_MAX, {0, 1, 2, 0xFC}}};
  for (const auto& [offset, length, expected] : rows) {
    std::vector<uint8_t> data = {0, 1, 2, 3};
    netrelay::corrupt_bytes(data.data(), data.size(), offset, length);
    EXPECT_EQ(data, expected) << offset << "+" << length;
  }
}

// ---- the program ---------------------------------------------------------------------------

std::string relay_bin() { return std::string(am_test::kBinDir) + "/netrelay"; }

TEST(NetrelayPlan, CommandLineIsCheckedAndFillsThePlan) {
  const std::vector<std::string> base = {"--group", "239.1.2.3", "--in", "lo", "--out", "lo"};
  struct Row {
    bool whole;  // the row is the whole command line (else it follows a valid base)
    std::vector<std::string> args;
    const char* error;  // nullptr: accepted
  };
  const Row rows[] = {
      {true, {"--in", "lo", "--out", "lo"}, "--group"},
      {true, {"--group", "10.0.0.1", "--in", "lo", "--out", "lo"}, "multicast"},
      {true, {"--group", "239.1.2.3", "--out", "lo"}, "--in"},
      {true, {"--group", "239.1.2.3", "--in", "lo"}, "--out"},
      {false, {"--drop", "3-1"}, "index list"},
      {false, {"--drop-rate", "1.5"}, "rate"},
      {false, {"--port", "0"}, "port"},
      {false, {"--count"}, "needs a value"},
      {false, {"--bogus", "1"}, "unknown option"},
      {false, {"--drop", "4", "--dup-rate", "1", "--seed", "9", "--port", "5004"}, nullptr},
  };
  for (const Row& row : rows) {
    std::vector<std::string> args = {"netrelay"};
    if (!row.whole) args.insert(args.end(), base.begin(), base.end());
    args.insert(args.end(), row.args.begin(), row.args.end());
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    auto opts = std::make_unique<netrelay::Options>();
    std::string err;
    const int rc =
        netrelay::parse_options(static_cast<int>(argv.size()), argv.data(), opts.get(), &err);
    if (row.error != nullptr) {
      EXPECT_EQ(rc, -1) << row.args[0];
      EXPECT_NE(err.find(row.error), std::string::npos) << err;
      continue;
    }
    ASSERT_EQ(rc, 0) << err;
    EXPECT_EQ(opts->port, 5004);
    EXPECT_TRUE(opts->plan.decide(4).drop);
    EXPECT_TRUE(opts->plan.decide(5).dup);
  }
}

constexpr const char* kGroup = "239.78.0.1";
constexpr const char* kGroup2 = "239.78.0.2";
constexpr uint16_t kPort = 59300;
constexpr size_t kPayload = 64;

// Datagram `index`: its index (4 bytes, little-endian) and a pattern the test can check.
std::vector<uint8_t> datagram(uint32_t index) {
  std::vector<uint8_t> d(kPayload);
  for (size_t k = 0; k < d.size(); ++k) d[k] = static_cast<uint8_t>(k * 7 + index);
  std::memcpy(d.data(), &index, sizeof index);
  return d;
}

std::vector<uint32_t> indices(const std::vector<std::vector<uint8_t>>& got) {
  std::vector<uint32_t> out;
  for (const auto& d : got) {
    uint32_t i = UINT32_MAX;
    if (d.size() >= sizeof i) std::memcpy(&i, d.data(), sizeof i);
    out.push_back(i);
  }
  return out;
}

// "netrelay received=1 ..." -> {"received": 1, ...}, from the last such line.
std::map<std::string, uint64_t> counters(const std::string& output) {
  std::map<std::string, uint64_t> result;
  const size_t at = output.rfind("netrelay received=");
  if (at == std::string::npos) return result;
  std::istringstream line(output.substr(at + 9, output.find('\n', at) - at - 9));
  std::string item;
  while (line >> item) {
    const size_t eq = item.find('=');
    if (eq != std::string::npos) result[item.substr(0, eq)] = std::stoull(item.substr(eq + 1));
  }
  return result;
}

// Sender namespace --eth0/ina-- relay namespace --outb/eth0-- receiver namespace.
class NetrelayWire : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
    ASSERT_TRUE(scratch_.ok() && a_.ok() && n_.ok() && b_.ok());
    ASSERT_TRUE(attach(a_, "ina", "10.78.0.1/24", "10.78.0.129/24"));
    ASSERT_TRUE(attach(b_, "outb", "10.78.0.2/24", "10.78.0.130/24"));
  }

  bool attach(const am_test::NetNs& board, const std::string& port, const std::string& board_ip,
              const std::string& port_ip) {
    const std::string b = "ip -n " + board.name() + " ";
    const std::string n = "ip -n " + n_.name() + " ";
    return am_test::shell("ip link add name eth0 netns " + board.name() + " type veth peer name " + port +
              " netns " + n_.name()) == 0 &&
           am_test::shell(b + "addr add " + board_ip + " dev eth0") == 0 && am_test::shell(b + "link set eth0 up") == 0 &&
           am_test::shell(b + "route add 224.0.0.0/4 dev eth0") == 0 &&
           am_test::shell(n + "addr add " + port_ip + " dev " + port) == 0 &&
           am_test::shell(n + "link set dev " + port + " up") == 0;
  }

  // Starts the relay from ina to outb with extra options; waits until it listens.
  std::unique_ptr<am_test::Process> start_relay(const std::vector<std::string>& extra) {
    const std::string ready = scratch_.path() + "/ready";
    unlink(ready.c_str());
    std::vector<std::string> argv = {relay_bin(), "--group", kGroup,  "--in",
                                     "ina",       "--out",   "outb",  "--ready", ready};
    argv.insert(argv.end(), extra.begin(), extra.end());
    auto relay = std::make_unique<am_test::Process>(argv, std::vector<std::string>{}, n_.name(),
                                                    scratch_.path() + "/relay.out");
    EXPECT_TRUE(am_test::wait_for([&] { return access(ready.c_str(), F_OK) == 0; }, 10000))
        << relay->output();
    return relay;
  }

  // Sends datagrams 0..count-1 through a relay that stops after count; returns what arrived
  // (in order) and fills the relay's counters.
  std::vector<std::vector<uint8_t>> run(const std::vector<std::string>& extra, uint32_t count,
                                        std::map<std::string, uint64_t>* seen) {
    NsSocket rx(b_.name());
    NsSocket tx(a_.name());
    EXPECT_TRUE(rx.listen(kGroup, kPort));
    // A held datagram waits for its successor however slowly the sender is scheduled.
    std::vector<std::string> args = {"--hold-ms", "10000", "--count", std::to_string(count),
                                     "--corrupt-offset", "4", "--corrupt-len", "2",
                                     "--truncate-to", "6"};
    args.insert(args.end(), extra.begin(), extra.end());
    auto relay = start_relay(args);
    for (uint32_t i = 0; i < count; ++i) {
      EXPECT_TRUE(tx.send(kGroup, kPort, datagram(i)));
      usleep(1000);
    }
    int status = -1;
    EXPECT_TRUE(relay->wait_exit(30000, &status)) << relay->output();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << relay->output();
    *seen = counters(relay->output());
    return rx.drain(300);  // the relay has sent everything before it exits
  }

  am_test::TempRoot scratch_;
  am_test::NetNs a_;
  am_test::NetNs n_;
  am_test::NetNs b_;
};

TEST_F(NetrelayWire, ForwardsExactlyWhatItWasTold) {
  Plan seed7;  // a seeded rate picks the same datagrams in the program as in the plan
  seed7.set_seed(7);
  seed7.set_rate(Impair::kDrop, 0.25);
  std::vector<uint32_t> kept_by_seed_7;
  for (uint32_t i = 0; i < 12; ++i) {
    if (!seed7.decide(i).drop) kept_by_seed_7.push_back(i);
  }
  ASSERT_LT(kept_by_seed_7.size(), 12u);
  struct Row {
    const char* name;
    std::vector<std::string> args;
    std::vector<uint32_t> expected;
    std::map<std::string, uint64_t> counts;
  };
  const Row rows[] = {
      {"untouched", {}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11},
       {{"received", 12}, {"forwarded", 12}, {"dropped", 0}, {"sent", 12}}},
      {"drop ranges", {"--drop", "3-5,9"}, {0, 1, 2, 6, 7, 8, 10, 11},
       {{"dropped", 4}, {"sent", 8}}},
      {"duplicate", {"--dup", "0,7"}, {0, 0, 1, 2, 3, 4, 5, 6, 7, 7, 8, 9, 10, 11},
       {{"duplicated", 2}, {"forwarded", 12}, {"sent", 14}}},
      {"reorder", {"--reorder", "3,8"}, {0, 1, 2, 4, 3, 5, 6, 7, 9, 8, 10, 11},
       {{"reordered", 2}, {"sent", 12}}},
      {"reorder over a drop", {"--reorder", "3", "--drop", "4"},
       {0, 1, 2, 5, 3, 6, 7, 8, 9, 10, 11}, {{"reordered", 1}, {"dropped", 1}, {"sent", 11}}},
      {"reorder while holding", {"--reorder", "4,5"}, {0, 1, 2, 3, 5, 4, 6, 7, 8, 9, 10, 11},
       {{"reordered", 1}, {"sent", 12}}},
      {"held at the end", {"--reorder", "10", "--drop", "11"},
       {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, {{"reordered", 1}, {"dropped", 1}, {"sent", 11}}},
      {"duplicate and reorder", {"--dup", "6", "--reorder", "6"},
       {0, 1, 2, 3, 4, 5, 7, 6, 6, 8, 9, 10, 11},
       {{"duplicated", 1}, {"reordered", 1}, {"sent", 13}}},
      {"mixed", {"--drop", "1", "--dup", "3", "--reorder", "6"},
       {0, 2, 3, 3, 4, 5, 7, 6, 8, 9, 10, 11},
       {{"received", 12}, {"forwarded", 11}, {"dropped", 1}, {"duplicated", 1},
        {"reordered", 1}, {"sent", 12}, {"send_errors", 0}, {"ignored", 0}}},
      {"seeded rate", {"--drop-rate", "0.25", "--seed", "7"}, kept_by_seed_7, {}},
      {"corrupt and truncate", {"--corrupt", "2,5", "--truncate", "5,7"},
       {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}, {{"corrupted", 2}, {"truncated", 2}}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::map<std::string, uint64_t> seen;
    const auto got = run(row.args, 12, &seen);
    EXPECT_EQ(indices(got), row.expected);
    for (const auto& [key, value] : row.counts) EXPECT_EQ(seen[key], value) << key;
    // Bytes 4 and 5 of a corrupted datagram inverted, a truncated one cut to 6 bytes, no other
    // datagram touched.
    IndexList corrupt, truncate;
    for (size_t k = 0; k + 1 < row.args.size(); ++k) {
      if (row.args[k] == "--corrupt") corrupt.parse(row.args[k + 1].c_str());
      if (row.args[k] == "--truncate") truncate.parse(row.args[k + 1].c_str());
    }
    for (const auto& d : got) {
      const uint32_t i = indices({d})[0];
      std::vector<uint8_t> want = datagram(i);
      if (corrupt.contains(i)) want[4] = static_cast<uint8_t>(~want[4]);
      if (corrupt.contains(i)) want[5] = static_cast<uint8_t>(~want[5]);
      if (truncate.contains(i)) want.resize(6);
      EXPECT_EQ(d, want) << i;
    }
  }
}

TEST_F(NetrelayWire, EachGroupToItselfNothingFromTheOutputSideCountersOnSignalAndAHeldDatagramReleased) {
  NsSocket rx1(b_.name()), rx2(b_.name()), tx(a_.name()), back(b_.name());
  ASSERT_TRUE(rx1.listen(kGroup, kPort));
  ASSERT_TRUE(rx2.listen(kGroup2, kPort));
  const int zero = 0;  // the far side's own datagrams must not reach its receivers directly
  ASSERT_EQ(setsockopt(back.fd(), IPPROTO_IP, IP_MULTICAST_LOOP, &zero, sizeof zero), 0);
  auto relay = start_relay({"--group", kGroup2, "--trace", "--reorder", "6", "--hold-ms", "200", "--duration", "5"});
  for (uint32_t i = 0; i < 6; ++i) {
    ASSERT_TRUE(tx.send((i % 2 == 0) ? kGroup : kGroup2, kPort, datagram(i)));
    ASSERT_TRUE(back.send(kGroup, kPort, datagram(100 + i)));  // from the far side: not relayed
  }
  // Counters on SIGUSR1, asked again until the relay has seen all six.
  EXPECT_TRUE(am_test::wait_for(
      [&] {
        relay->signal(SIGUSR1);
        usleep(100000);
        return relay->output().find("netrelay received=6 ") != std::string::npos;
      },
      10000))
      << relay->output();
  EXPECT_EQ(indices(rx1.drain(300)), (std::vector<uint32_t>{0, 2, 4}));
  EXPECT_EQ(indices(rx2.drain(100)), (std::vector<uint32_t>{1, 3, 5}));
  EXPECT_NE(relay->output().find("netrelay-trace index=5 size=64"), std::string::npos);
  // Datagram 6 has no successor: it goes out alone once the hold time has passed.
  ASSERT_TRUE(tx.send(kGroup, kPort, datagram(6)));
  EXPECT_EQ(indices(rx1.drain(1500)), (std::vector<uint32_t>{6}));
  // The relay stops by itself after its duration, with status 0.
  int status = -1;
  ASSERT_TRUE(relay->wait_exit(15000, &status));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  const auto seen = counters(relay->output());
  EXPECT_EQ(seen.at("sent"), 7u);
  EXPECT_EQ(seen.at("reordered"), 1u);
}

}  // namespace
