// A streaming pair on simulated boards (sim/board) through the relay at 1 % loss, with nobody on
// cmd_core's report port: the receiver's qb_genlock killed and started again (its power-up table,
// raw set-param and step requests observed on the emulated I2C bus, its exit status on SIGTERM;
// the client calls, the status file and the reset walk are unit-tested), a full /tmp, and both
// daemons stopped by SIGTERM in every state, their status files parsed as JSON each time.
#include "am_test_sys.h"
#include <json/json.h>
#include <sched.h>
#include <sys/mount.h>
#include <array>

namespace {

constexpr uint32_t kSetParam = 0x1234, kSetInc = 0x1235;
constexpr int kChipAddr = 0x60;
constexpr uint16_t kServicePort = 11000;

using Bytes = std::vector<uint8_t>;
using MsRegs = std::array<uint8_t, 8>;

Bytes request(uint32_t command, int32_t ch, int32_t arg1) {
  Bytes out(12);
  for (const auto& [at, v] : {std::pair<size_t, uint32_t>{0, command}, {4, ch}, {8, arg1}}) std::memcpy(&out[at], &v, 4);
  return out;
}

// A TX-A and an RX board behind the relay; the receiver's card runs 500 ppm slow, so it steers
// its clock up every ~10 s, and its /tmp is a small tmpfs that gets filled up.
struct Pair {
  char tmpl[32] = "/tmp/am-pair-XXXXXX";
  std::string work = mkdtemp(tmpl) != nullptr ? tmpl : "";
  ~Pair() { board("teardown"), umount2(at("rx", "/tmp").c_str(), MNT_DETACH), am_test::shell("rm -rf " + work); }
  std::string at(const std::string& name, const std::string& path) const { return work + "/" + name + path; }
  std::string log(const char* file = "/tmp/audio_manager.log") const { return am_test::read_file(at("rx", file)); }
  std::string ns() const { return "amp" + std::to_string(getpid()) + "-rx"; }
  int pid(const std::string& name, const std::string& prog = "audio_manager") const {
    return std::atoi(am_test::read_file(at(name, "/run/" + prog + ".pid")).c_str());
  }
  int board(const std::string& args) const {
    return am_test::shell("AM_SIM_STATE=" + work + "/state AM_SIM_PREFIX=" + ns().substr(0, ns().size() - 2) +
                          " AM_BIN_DIR=" + am_test::kBinDir + " AM_LIB_DIR=" + am_test::kLibDir + " bash " +
                          am_test::kSourceDir + "/sim/board " + args);
  }
  bool amctl(const std::string& name, std::initializer_list<std::string> commands) const {
    for (const std::string& c : commands)
      if (board("exec " + name + " -- " + am_test::kBinDir + "/amctl " + c) != 0) return false;
    return true;
  }
  // A fresh receiving daemon (by default without a genlock service of its own), receiving when asked.
  bool restart_rx(bool receive, const std::string& genlock = "--no-genlock") const {
    unlink(at("rx", "/tmp/audio_manager.log").c_str());
    return board("start rx " + genlock + " --env AMSIM_RATE_PPM_PLAY1=-500 --env AMSIM_TIMELOG_PLAY1=/t.log") == 0 &&
           board("wait-log rx 'audio manager init done' --timeout 30") == 0 &&
           (!receive || amctl("rx", {"from-net 02000000a001 0", "stream-in analog 0", "output-src analog stream"}));
  }
  bool plays_on() const {  // the card's time log grows three times (a new run truncates it first)
    size_t last = 0, grown = 0, now = 0;
    return am_test::wait_for([&] {
      return (now = am_test::read_file(at("rx", "/t.log")).size(), grown += now > last, last = now, grown > 3);
    }, 10000, 300);
  }
  bool whole(const std::string& name) const {  // the status files that exist parse as JSON objects
    Json::Value v;
    for (const char* file : {"/tmp/pktdrop.json", "/tmp/genlock.json"})
      if (access(at(name, file).c_str(), F_OK) == 0 &&
          !(Json::Reader().parse(am_test::read_file(at(name, file)), v) && v.isObject()))
        return false;
    return true;
  }
  // SIGTERM: the process and its threads gone with status 0 well within 5 s (time printed), status files whole.
  void sigterm(const std::string& name, const std::string& state) const {
    const int daemon = pid(name);
    const auto t0 = std::chrono::steady_clock::now();
    ASSERT_TRUE(daemon > 0 && kill(daemon, SIGTERM) == 0);
    const std::string status = at(name, "/run/audio_manager.status");  // written once the board's watcher reaped it
    ASSERT_TRUE(am_test::wait_for([&] { return kill(daemon, 0) != 0 && access(status.c_str(), F_OK) == 0; }, 20000, 5));
    const long ms = static_cast<long>((std::chrono::steady_clock::now() - t0) / std::chrono::milliseconds(1));
    std::printf("SIGTERM to exit, %s %s: %ld ms\n", name.c_str(), state.c_str(), ms);
    EXPECT_LT(ms, 5000) << state;
    EXPECT_EQ("0\n", am_test::read_file(status)) << state;
    EXPECT_TRUE(whole(name)) << state;
  }
};

TEST(GenlockService, StreamingPairFullDiskServicesAbsentAndSigtermInEveryState) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  Pair p;
  for (const std::string& args : {"create " + p.at("tx", " --model TX-A"), "create " + p.at("rx", " --model RX"),
                                  "up tx " + p.at("tx", " --mac 02:00:00:00:a0:01 --net n"),
                                  "up rx " + p.at("rx", " --mac 02:00:00:00:a0:02 --net n"),
                                  std::string("relay start r n -- --group 234.48.160.1 --in tx --out rx --drop-rate .01"),
                                  std::string("start tx"), std::string("wait-log tx 'manager init done' --timeout 30")})
    ASSERT_EQ(0, p.board(args)) << args;
  ASSERT_EQ(0, mount("tmpfs", p.at("rx", "/tmp").c_str(), "tmpfs", 0, "size=2m"));
  ASSERT_TRUE(p.restart_rx(true, "") && p.amctl("tx", {"channel-info analog --rate 48000 --channels 2 --size 24",
                                                        "to-net 0 analog 02000000a001"}));
  auto steps = [&] { return am_test::count(p.log("/tmp/qb_genlock.log"), "rate:48000 value:"); };
  auto regs_become = [&](int first, const MsRegs& want) {
    const std::string bytes(want.begin(), want.end());
    return am_test::wait_for([&] { return p.log("/dev/i2c-1").substr(kChipAddr * 256 + first, 8) == bytes; }, 5000);
  };
  // One request to the service from 127.0.0.1:11006 in the receiver's namespace (this thread joins it
  // for the call); the datagram that comes back within wait_ms, empty when none does.
  auto exchange = [&](const Bytes& req, int wait_ms) {
    const int home = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const int ns = open(("/var/run/netns/" + p.ns()).c_str(), O_RDONLY | O_CLOEXEC);
    Bytes got;
    if (setns(ns, CLONE_NEWNET) == 0) {
      am_test::UdpReceiver me(11006);
      sockaddr_in to{};
      to.sin_family = AF_INET, to.sin_port = htons(kServicePort), to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      if (sendto(me.fd(), req.data(), req.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) == 12)
        me.receive(&got, wait_ms);
    }
    return setns(home, CLONE_NEWNET), close(home), close(ns), got;
  };
  std::unique_ptr<am_test::Process> service;
  {
    SCOPED_TRACE("the genlock service killed while the receiver streams, started again: steering resumes");
    ASSERT_TRUE(am_test::wait_for([&] { return steps() > 0; }, 60000, 200)) << p.log();
    const int before = steps();
    const size_t bus_before = p.log("/dev/i2c-1.log").size();
    ASSERT_TRUE(kill(p.pid("rx", "qb_genlock"), SIGKILL) == 0 && p.plays_on() && p.plays_on());
    EXPECT_GT(am_test::count(p.log(), "report audio drop event"), 0) << "sent to nobody on 127.0.0.1:9995";
    service = std::make_unique<am_test::Process>(
        std::vector<std::string>{std::string(am_test::kBinDir) + "/qb_genlock"},
        std::vector<std::string>{"AUDIO_MANAGER_ROOT=" + p.at("rx", "")}, p.ns(), p.at("rx", "/run/genlock.out"));
    ASSERT_TRUE(am_test::wait_for([&] { return am_test::count(p.log("/tmp/qb_genlock.log"), "si5351_task pid:") > 1; },
                                  10000));
    const std::string power_up = p.log("/dev/i2c-1.log").substr(bus_before);  // one byte a message: 11 bytes a line
    ASSERT_GE(power_up.size(), 71u * 11);  // first, PLLA P1 bits 15-8, last:
    EXPECT_EQ(power_up.substr(0, 11) + power_up.substr(24 * 11, 11) + power_up.substr(70 * 11, 11),
              "W 60 03 FF\nW 60 1D 0E\nW 60 03 00\n");
    EXPECT_TRUE(regs_become(58, MsRegs{0x00, 0x01, 0x00, 0x02, 0x80, 0x00, 0x00, 0x00}));
    // Set-param on channel 2 is answered, then programmed; a step is not answered, then programmed.
    const Bytes set_param = request(kSetParam, 2, 44100), reply = exchange(set_param, 3000);
    EXPECT_TRUE(reply.size() == 64 && std::equal(set_param.begin(), set_param.end(), reply.begin())) << reply.size();
    EXPECT_TRUE(regs_become(50, MsRegs{0x58, 0x33, 0x20, 0x11, 0xEE, 0x00, 0x07, 0x96}));
    EXPECT_TRUE(exchange(request(kSetInc, 2, 0), 300).empty()) << "a step is not answered";
    EXPECT_TRUE(regs_become(50, MsRegs{0xB9, 0x05, 0x20, 0x11, 0xED, 0x11, 0x67, 0x5F}));
    EXPECT_TRUE(am_test::wait_for([&] { return steps() > before; }, 60000, 200)) << "no step after the restart";
    p.sigterm("rx", "streaming");
    ASSERT_TRUE(p.restart_rx(false));
    p.sigterm("rx", "idle");
    ASSERT_TRUE(service->signal(SIGSTOP) && p.restart_rx(true));  // the receiver's set-param gets no reply
    EXPECT_EQ(0, p.board("wait-log rx 'qb_audio_oper_playback,hw:1,0,' --timeout 30"));
    p.sigterm("rx", "receiver starting, genlock service hung");
    ASSERT_TRUE(service->signal(SIGCONT) && p.restart_rx(true) && p.plays_on() && service->signal(SIGSTOP));
    ASSERT_TRUE(am_test::write_file(p.at("rx", "/tmp/request-ok"), "") &&
                am_test::write_file(p.at("rx", "/tmp/request"), "dump"));
    EXPECT_TRUE(am_test::wait_for([&] { return access(p.at("rx", "/tmp/request-ok").c_str(), F_OK) != 0; }, 10000, 5));
    p.sigterm("rx", "during a debug dump (its query of the service waits 2 s)");
  }
  SCOPED_TRACE("the receiver's /tmp full: a format change, loss; both keep streaming, status files stay whole");
  ASSERT_TRUE(service->signal(SIGCONT) && p.restart_rx(true) && p.plays_on());
  am_test::shell("dd if=/dev/zero of=" + p.at("rx", "/tmp/filler") + " bs=4k");
  ASSERT_TRUE(p.amctl("tx", {"channel-info analog --rate 96000 --channels 2 --size 24"}));
  // For a statistics cycle with losses and the new run's buffer report, the files stay whole.
  EXPECT_FALSE(am_test::wait_for([&] { return !p.whole("rx"); }, 12000, 20)) << p.at("rx", "/tmp");
  EXPECT_TRUE(p.plays_on());
  const int runs = am_test::count(p.log(), "New audio information head");
  ASSERT_TRUE(unlink(p.at("rx", "/tmp/filler").c_str()) == 0 &&
              p.amctl("tx", {"channel-info analog --rate 48000 --channels 2 --size 24"}));
  EXPECT_TRUE(
      am_test::wait_for([&] { return am_test::count(p.log(), "New audio information head") > runs; }, 20000, 5));
  p.sigterm("rx", "during a format change");
  p.sigterm("tx", "streaming");
  int status = -1;
  ASSERT_TRUE(service->signal(SIGTERM) && service->wait_exit(5000, &status));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "qb_genlock: " << status;
}

}  // namespace
