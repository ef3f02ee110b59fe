// netrelay: its impairment plan (index lists, seeded rates) and the program itself between two
// network namespaces: it must drop, duplicate, reorder, corrupt and truncate exactly the
// datagrams it was told to, and count what it did.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "am_test_env.h"
#include "am_test_paths.h"
#include "netrelay_plan.h"

namespace {

using netrelay::Impair;
using netrelay::IndexList;
using netrelay::Plan;

// ---- the plan -------------------------------------------------------------------------------

TEST(NetrelayIndexList, ParsesListsAndRanges) {
  struct Row {
    const char* text;
    std::vector<uint64_t> in;
    std::vector<uint64_t> out;
  };
  const Row rows[] = {
      {"", {}, {0, 1, 100}},
      {"0", {0}, {1}},
      {"3,7,10-12", {3, 7, 10, 11, 12}, {0, 2, 4, 6, 8, 9, 13}},
      {"5-5,1", {1, 5}, {0, 2, 4, 6}},
      {"4-8,6-10,20", {4, 8, 9, 10, 20}, {3, 11, 19, 21}},  // overlapping ranges merge
      {"1099511627776", {1099511627776ULL}, {0}},
  };
  for (const Row& row : rows) {
    IndexList list;
    ASSERT_TRUE(list.parse(row.text)) << row.text;
    for (uint64_t i : row.in) EXPECT_TRUE(list.contains(i)) << row.text << " " << i;
    for (uint64_t i : row.out) EXPECT_FALSE(list.contains(i)) << row.text << " " << i;
  }
}

TEST(NetrelayIndexList, RefusesMalformedText) {
  for (const char* text : {"12-10", "a", "1,", ",1", "1,,2", "1-", "-1", "1 2", "3-4-5", "1.5",
                           "99999999999999999999", "1099511627777"}) {
    IndexList list;
    EXPECT_FALSE(list.parse(text)) << text;
  }
}

TEST(NetrelayPlan, ListsChooseExactlyTheirIndices) {
  Plan plan;
  ASSERT_TRUE(plan.list(Impair::kDrop).parse("2,5"));
  ASSERT_TRUE(plan.list(Impair::kDup).parse("5,7"));
  ASSERT_TRUE(plan.list(Impair::kReorder).parse("7"));
  ASSERT_TRUE(plan.list(Impair::kCorrupt).parse("8"));
  ASSERT_TRUE(plan.list(Impair::kTruncate).parse("8-9"));
  for (uint64_t i = 0; i < 12; ++i) {
    const netrelay::Action a = plan.decide(i);
    EXPECT_EQ(a.drop, i == 2 || i == 5) << i;
    EXPECT_EQ(a.dup, i == 7) << i;  // 5 is dropped: nothing else happens to it
    EXPECT_EQ(a.reorder, i == 7) << i;
    EXPECT_EQ(a.corrupt, i == 8) << i;
    EXPECT_EQ(a.truncate, i == 8 || i == 9) << i;
  }
}

TEST(NetrelayPlan, RatesAreRepeatableIndependentAndNearTheirValue) {
  constexpr uint64_t kRuns = 100000;
  Plan a;
  a.set_seed(42);
  a.set_rate(Impair::kDrop, 0.25);
  Plan b = a;
  b.set_rate(Impair::kDup, 0.5);  // another kind does not move the drop decisions
  Plan c = a;
  c.set_seed(43);
  uint64_t dropped = 0;
  uint64_t same_as_other_seed = 0;
  for (uint64_t i = 0; i < kRuns; ++i) {
    const bool drop = a.decide(i).drop;
    ASSERT_EQ(drop, b.decide(i).drop) << i;
    ASSERT_EQ(drop, a.decide(i).drop) << i;
    dropped += drop ? 1 : 0;
    same_as_other_seed += (drop == c.decide(i).drop) ? 1 : 0;
  }
  EXPECT_NEAR(static_cast<double>(dropped) / kRuns, 0.25, 0.01);
  EXPECT_LT(same_as_other_seed, kRuns * 9 / 10);  // another seed picks other datagrams
  for (uint64_t i = 0; i < 1000; ++i) {
    const double u = a.draw(Impair::kCorrupt, i);
    ASSERT_GE(u, 0.0);
    ASSERT_LT(u, 1.0);
  }
}

TEST(NetrelayPlan, RateZeroAndOneAreExact) {
  Plan none;
  none.set_rate(Impair::kDrop, 0.0);
  Plan all;
  all.set_rate(Impair::kDrop, 1.0);
  for (uint64_t i = 0; i < 10000; ++i) {
    ASSERT_FALSE(none.decide(i).drop);
    ASSERT_TRUE(all.decide(i).drop);
  }
}

TEST(NetrelayPlan, CorruptionStaysInsideTheDatagram) {
  struct Row {
    size_t offset;
    size_t length;
    std::vector<uint8_t> expected;
  };
  const Row rows[] = {
      {0, 1, {0xFF, 1, 2, 3}},
      {1, 2, {0, 0xFE, 0xFD, 3}},
      {2, 100, {0, 1, 0xFD, 0xFC}},
      {4, 4, {0, 1, 2, 3}},
      {1000, 4, {0, 1, 2, 3}},
      {3, SIZE_MAX, {0, 1, 2, 0xFC}},
  };
  for (const Row& row : rows) {
    std::vector<uint8_t> data = {0, 1, 2, 3};
    netrelay::corrupt_bytes(data.data(), data.size(), row.offset, row.length);
    EXPECT_EQ(data, row.expected) << row.offset << "+" << row.length;
  }
  netrelay::corrupt_bytes(nullptr, 4, 0, 4);  // no crash
}

// ---- the program: usage ---------------------------------------------------------------------

std::string relay_bin() { return std::string(am_test::kBinDir) + "/netrelay"; }

TEST(NetrelayProgram, RefusesBadCommandLines) {
  am_test::TempRoot scratch;
  ASSERT_TRUE(scratch.ok());
  const std::vector<std::string> base = {"--group", "239.1.2.3", "--in", "lo", "--out", "lo"};
  struct Row {
    bool whole;  // the row is the whole command line (else it follows a valid base)
    std::vector<std::string> args;
    const char* message;
  };
  const Row rows[] = {
      {true, {"--in", "lo", "--out", "lo"}, "--group"},
      {true, {"--group", "10.0.0.1", "--in", "lo", "--out", "lo"}, "multicast"},
      {true, {"--group", "239.1.2.3", "--out", "lo"}, "--in"},
      {true, {"--group", "239.1.2.3", "--in", "lo"}, "--out"},
      {false, {"--drop", "3-1"}, "index list"},
      {false, {"--reorder", "x"}, "index list"},
      {false, {"--drop-rate", "1.5"}, "rate"},
      {false, {"--port", "0"}, "port"},
      {false, {"--count"}, "needs a value"},
      {false, {"--bogus", "1"}, "unknown option"},
  };
  for (const Row& row : rows) {
    std::vector<std::string> argv = {relay_bin()};
    if (!row.whole) {
      argv.insert(argv.end(), base.begin(), base.end());
    }
    argv.insert(argv.end(), row.args.begin(), row.args.end());
    const std::string out = scratch.path() + "/usage.out";
    am_test::Process relay(argv, {}, "", out);
    ASSERT_TRUE(relay.started());
    int status = 0;
    ASSERT_TRUE(relay.wait_exit(5000, &status)) << row.args[0];
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << row.args[0];
    EXPECT_NE(relay.output().find(row.message), std::string::npos) << relay.output();
  }
  am_test::Process help({relay_bin(), "--help"}, {}, "", scratch.path() + "/help.out");
  int status = -1;
  ASSERT_TRUE(help.wait_exit(5000, &status));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_NE(help.output().find("--reorder"), std::string::npos);
}

// ---- the program between namespaces ---------------------------------------------------------

constexpr const char* kGroup = "239.78.0.1";
constexpr const char* kGroup2 = "239.78.0.2";
constexpr uint16_t kPort = 59300;
constexpr size_t kPayload = 64;
constexpr int kSendGapMs = 2;

int sh(const std::string& cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()); }

// A datagram socket created inside a namespace (the socket stays in it for its whole life).
class NsSocket {
 public:
  explicit NsSocket(const std::string& ns) {
    std::thread t([&] {
      const int nsfd = open(("/var/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
      if (nsfd < 0) {
        return;
      }
      if (setns(nsfd, CLONE_NEWNET) == 0) {
        fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      }
      close(nsfd);
    });
    t.join();
  }
  ~NsSocket() {
    if (fd_ >= 0) close(fd_);
  }
  NsSocket(const NsSocket&) = delete;
  NsSocket& operator=(const NsSocket&) = delete;
  int fd() const { return fd_; }

  // Receiver: port bound, member of group through the namespace's multicast route.
  bool listen(const char* group) {
    const int one = 1;
    const int zero = 0;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(kPort);
    ip_mreqn mreq{};
    inet_pton(AF_INET, group, &mreq.imr_multiaddr);
    return fd_ >= 0 && setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) == 0 &&
           setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_ALL, &zero, sizeof zero) == 0 &&
           bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
           setsockopt(fd_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &mreq, sizeof mreq) == 0;
  }

  // Datagrams until none arrives for idle_ms.
  std::vector<std::vector<uint8_t>> drain(int idle_ms) {
    std::vector<std::vector<uint8_t>> got;
    uint8_t buf[2048];
    pollfd p{fd_, POLLIN, 0};
    while (poll(&p, 1, idle_ms) > 0) {
      const ssize_t n = recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
      if (n >= 0) got.emplace_back(buf, buf + n);
    }
    return got;
  }

 private:
  int fd_ = -1;
};

// Datagram `index`: its index (4 bytes, little-endian) and a pattern the test can check.
std::vector<uint8_t> datagram(uint32_t index) {
  std::vector<uint8_t> d(kPayload);
  for (size_t k = 0; k < d.size(); ++k) d[k] = static_cast<uint8_t>(k * 7 + index);
  std::memcpy(d.data(), &index, sizeof index);
  return d;
}

uint32_t index_of(const std::vector<uint8_t>& d) {
  uint32_t i = UINT32_MAX;
  if (d.size() >= sizeof i) std::memcpy(&i, d.data(), sizeof i);
  return i;
}

bool send_to(int fd, const char* group, uint32_t index) {
  const std::vector<uint8_t> d = datagram(index);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(kPort);
  inet_pton(AF_INET, group, &to.sin_addr);
  return sendto(fd, d.data(), d.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) ==
         static_cast<ssize_t>(d.size());
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
    if (!am_test::have_netns()) {
      GTEST_SKIP() << "needs root and network namespaces";
    }
    ASSERT_TRUE(scratch_.ok());
    ASSERT_TRUE(a_.ok() && n_.ok() && b_.ok());
    ASSERT_TRUE(attach(a_, "ina", "10.78.0.1/24", "10.78.0.129/24"));
    ASSERT_TRUE(attach(b_, "outb", "10.78.0.2/24", "10.78.0.130/24"));
  }

  bool attach(const am_test::NetNs& board, const std::string& port, const std::string& board_ip,
              const std::string& port_ip) {
    const std::string b = "ip -n " + board.name() + " ";
    const std::string n = "ip -n " + n_.name() + " ";
    return sh("ip link add name eth0 netns " + board.name() + " type veth peer name " + port +
              " netns " + n_.name()) == 0 &&
           sh(b + "addr add " + board_ip + " dev eth0") == 0 &&
           sh(b + "link set eth0 up") == 0 &&
           sh(b + "route add 224.0.0.0/4 dev eth0") == 0 &&
           sh(n + "addr add " + port_ip + " dev " + port) == 0 &&
           sh(n + "link set dev " + port + " up") == 0;
  }

  // Starts the relay from ina to outb with extra options; waits until it listens.
  std::unique_ptr<am_test::Process> start_relay(const std::vector<std::string>& extra) {
    const std::string ready = scratch_.path() + "/ready";
    unlink(ready.c_str());
    std::vector<std::string> argv = {relay_bin(), "--group", kGroup, "--in",  "ina",
                                     "--out",     "outb",    "--ready", ready};
    argv.insert(argv.end(), extra.begin(), extra.end());
    auto relay = std::make_unique<am_test::Process>(argv, std::vector<std::string>{}, n_.name(),
                                                    scratch_.path() + "/relay.out");
    const bool up = am_test::wait_for([&] { return access(ready.c_str(), F_OK) == 0; }, 5000);
    EXPECT_TRUE(up) << relay->output();
    return relay;
  }

  // Sends datagrams 0..count-1 through a relay that stops after count; returns what arrived
  // (in order) and fills the relay's counters.
  std::vector<std::vector<uint8_t>> run(const std::vector<std::string>& extra, uint32_t count,
                                        std::map<std::string, uint64_t>* seen) {
    NsSocket rx(b_.name());
    NsSocket tx(a_.name());
    EXPECT_TRUE(rx.listen(kGroup));
    EXPECT_GE(tx.fd(), 0);
    // A held datagram waits for its successor however slowly the sender is scheduled.
    std::vector<std::string> args = {"--hold-ms", "5000"};
    args.insert(args.end(), extra.begin(), extra.end());
    args.insert(args.end(), {"--count", std::to_string(count)});
    auto relay = start_relay(args);
    for (uint32_t i = 0; i < count; ++i) {
      EXPECT_TRUE(send_to(tx.fd(), kGroup, i));
      std::this_thread::sleep_for(std::chrono::milliseconds(kSendGapMs));
    }
    int status = -1;
    EXPECT_TRUE(relay->wait_exit(20000, &status)) << relay->output();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << relay->output();
    *seen = counters(relay->output());
    return rx.drain(500);
  }

  std::vector<uint32_t> indices(const std::vector<std::vector<uint8_t>>& got) {
    std::vector<uint32_t> out;
    for (const auto& d : got) out.push_back(index_of(d));
    return out;
  }

  am_test::TempRoot scratch_;
  am_test::NetNs a_;
  am_test::NetNs n_;
  am_test::NetNs b_;
};

TEST_F(NetrelayWire, ForwardsExactlyWhatItWasTold) {
  struct Row {
    const char* name;
    std::vector<std::string> args;
    std::vector<uint32_t> expected;
    std::map<std::string, uint64_t> counts;
  };
  const Row rows[] = {
      {"untouched", {}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11},
       {{"received", 12}, {"forwarded", 12}, {"dropped", 0}, {"sent", 12}}},
      {"drop", {"--drop", "2,5"}, {0, 1, 3, 4, 6, 7, 8, 9, 10, 11},
       {{"forwarded", 10}, {"dropped", 2}, {"sent", 10}}},
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
       {0, 1, 2, 3, 4, 5, 7, 6, 6, 8, 9, 10, 11}, {{"duplicated", 1}, {"reordered", 1},
                                                   {"sent", 13}}},
      {"mixed", {"--drop", "1", "--dup", "3", "--reorder", "6"},
       {0, 2, 3, 3, 4, 5, 7, 6, 8, 9, 10, 11},
       {{"received", 12}, {"forwarded", 11}, {"dropped", 1}, {"duplicated", 1},
        {"reordered", 1}, {"sent", 12}, {"send_errors", 0}, {"ignored", 0}}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::map<std::string, uint64_t> seen;
    const auto got = run(row.args, 12, &seen);
    EXPECT_EQ(indices(got), row.expected);
    for (const auto& [key, value] : row.counts) EXPECT_EQ(seen[key], value) << key;
    for (const auto& d : got) EXPECT_EQ(d, datagram(index_of(d)));  // content untouched
  }
}

TEST_F(NetrelayWire, CorruptsAndTruncatesOnlyTheChosenDatagrams) {
  std::map<std::string, uint64_t> seen;
  auto got = run({"--corrupt", "2,5", "--corrupt-offset", "4", "--corrupt-len", "2",
                  "--truncate", "7", "--truncate-to", "3"},
                 10, &seen);
  ASSERT_EQ(got.size(), 10u);
  for (uint32_t i = 0; i < 10; ++i) {
    std::vector<uint8_t> want = datagram(i);
    if (i == 2 || i == 5) {
      want[4] = static_cast<uint8_t>(~want[4]);
      want[5] = static_cast<uint8_t>(~want[5]);
    }
    if (i == 7) {
      want.resize(3);
      EXPECT_EQ(got[i], want) << i;
      continue;
    }
    EXPECT_EQ(got[i], want) << i;
  }
  EXPECT_EQ(seen["corrupted"], 2u);
  EXPECT_EQ(seen["truncated"], 1u);

  // A corruption window beyond the datagram changes nothing but is still counted.
  got = run({"--corrupt", "1", "--corrupt-offset", "1000"}, 3, &seen);
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(got[1], datagram(1));
  EXPECT_EQ(seen["corrupted"], 1u);
}

TEST_F(NetrelayWire, SeededDropRateIsRepeatable) {
  constexpr uint32_t kCount = 200;
  std::map<std::string, uint64_t> first_counts;
  std::map<std::string, uint64_t> second_counts;
  std::map<std::string, uint64_t> other_counts;
  const auto first = indices(run({"--drop-rate", "0.25", "--seed", "7"}, kCount, &first_counts));
  const auto second =
      indices(run({"--drop-rate", "0.25", "--seed", "7"}, kCount, &second_counts));
  const auto other = indices(run({"--drop-rate", "0.25", "--seed", "8"}, kCount, &other_counts));
  EXPECT_EQ(first, second);
  EXPECT_NE(first, other);
  EXPECT_EQ(first_counts["dropped"], kCount - first.size());
  EXPECT_EQ(other_counts["dropped"], kCount - other.size());
  EXPECT_GT(first_counts["dropped"], 20u);  // 50 expected; a wide band
  EXPECT_LT(first_counts["dropped"], 90u);
  for (size_t i = 1; i < first.size(); ++i) ASSERT_LT(first[i - 1], first[i]);  // order kept
}

TEST_F(NetrelayWire, ForwardsEachGroupToItselfAndNothingFromTheOutputSide) {
  NsSocket rx1(b_.name());
  NsSocket rx2(b_.name());
  NsSocket tx(a_.name());
  NsSocket back(b_.name());
  ASSERT_TRUE(rx1.listen(kGroup));
  ASSERT_TRUE(rx2.listen(kGroup2));
  const int zero = 0;  // the far side's own datagrams must not reach its receivers directly
  ASSERT_EQ(setsockopt(back.fd(), IPPROTO_IP, IP_MULTICAST_LOOP, &zero, sizeof zero), 0);
  auto relay = start_relay({"--group", kGroup2, "--trace"});
  for (uint32_t i = 0; i < 6; ++i) {
    ASSERT_TRUE(send_to(tx.fd(), (i % 2 == 0) ? kGroup : kGroup2, i));
    ASSERT_TRUE(send_to(back.fd(), kGroup, 100 + i));  // from the far side: not relayed
    std::this_thread::sleep_for(std::chrono::milliseconds(kSendGapMs));
  }
  const auto got1 = indices(rx1.drain(500));
  const auto got2 = indices(rx2.drain(100));
  EXPECT_EQ(got1, (std::vector<uint32_t>{0, 2, 4}));
  EXPECT_EQ(got2, (std::vector<uint32_t>{1, 3, 5}));

  ASSERT_TRUE(relay->signal(SIGUSR1));
  EXPECT_TRUE(am_test::wait_for(
      [&] { return relay->output().find("netrelay received=6 ") != std::string::npos; }, 5000))
      << relay->output();
  ASSERT_TRUE(relay->signal(SIGTERM));
  int status = -1;
  ASSERT_TRUE(relay->wait_exit(5000, &status));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  std::map<std::string, uint64_t> seen = counters(relay->output());
  EXPECT_EQ(seen["received"], 6u);
  EXPECT_EQ(seen["sent"], 6u);
  EXPECT_NE(relay->output().find("netrelay-trace index=5 size=64"), std::string::npos);
}

TEST_F(NetrelayWire, StopsAfterItsDurationAndReleasesAHeldDatagram) {
  NsSocket rx(b_.name());
  NsSocket tx(a_.name());
  ASSERT_TRUE(rx.listen(kGroup));
  auto relay = start_relay({"--reorder", "1", "--hold-ms", "200", "--duration", "1.5"});
  ASSERT_TRUE(send_to(tx.fd(), kGroup, 0));
  ASSERT_TRUE(send_to(tx.fd(), kGroup, 1));
  // Datagram 1 has no successor: it goes out alone once the hold time has passed.
  EXPECT_EQ(indices(rx.drain(1000)), (std::vector<uint32_t>{0, 1}));
  int status = -1;
  ASSERT_TRUE(relay->wait_exit(10000, &status));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(counters(relay->output())["reordered"], 1u);
}

}  // namespace
