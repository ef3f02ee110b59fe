// sim/board: the board root it creates, the namespaces and links it makes, the daemons it starts
// on them, and its clean-up: nothing (namespace, veth, process) may be left behind, also after a
// failed command or crashed daemon.
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "am_platform.h"
#include "am_test_env.h"
#include "am_test_paths.h"
#include "posix_system.h"
#include "qb_audio_misc_util.h"

namespace {

constexpr const char* kSwitchSysfs =
    "/sys/devices/platform/soc@0/soc@0:bus@30800000/30a30000.i2c/i2c-1/1-005c";
constexpr off_t kSpdifPhys = 0x30090000;
constexpr off_t kSpdifMapLength = 255;

struct Result {
  int status = -1;
  std::string out;
};

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

bool process_alive(pid_t pid) { return pid > 0 && kill(pid, 0) == 0; }

// Every "sim/board" call of one test: a private state directory and namespace prefix, so
// nothing else on the machine is touched; the destructor tears everything down.
class Bench {
 public:
  explicit Bench(const std::string& bin_dir = am_test::kBinDir) : bin_dir_(bin_dir) {
    char pattern[] = "/tmp/am_board_XXXXXX";
    if (mkdtemp(pattern) != nullptr) dir_ = pattern;
    prefix_ = "amb" + std::to_string(getpid() % 100000) + "-";
  }
  ~Bench() {
    if (dir_.empty()) return;
    run("teardown");
    std::system(("rm -rf '" + dir_ + "'").c_str());
  }
  Bench(const Bench&) = delete;
  Bench& operator=(const Bench&) = delete;

  bool ok() const { return !dir_.empty(); }
  const std::string& dir() const { return dir_; }
  std::string ns(const std::string& name) const { return prefix_ + name; }
  std::string env() const {
    return "AM_SIM_STATE='" + dir_ + "/state' AM_SIM_PREFIX='" + prefix_ + "' AM_BIN_DIR='" +
           bin_dir_ + "' AM_LIB_DIR='" + am_test::kLibDir + "' ";
  }
  std::string board_cmd() const { return std::string(am_test::kSourceDir) + "/sim/board"; }

  // Runs "sim/board ARGS", output and error together.
  Result run(const std::string& args) const {
    Result r;
    FILE* p = popen((env() + board_cmd() + " " + args + " 2>&1").c_str(), "r");
    if (p == nullptr) return r;
    char buf[512];
    while (fgets(buf, sizeof buf, p) != nullptr) r.out += buf;
    const int status = pclose(p);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
  }

  // A fresh board root under the bench directory.
  std::string create(const std::string& name, const std::string& options = "") const {
    const std::string root = dir_ + "/" + name;
    const Result r = run("create " + root + " " + options);
    EXPECT_EQ(r.status, 0) << r.out;
    return root;
  }

  // Namespaces of this bench that still exist.
  std::vector<std::string> namespaces() const {
    std::vector<std::string> found;
    DIR* d = opendir("/var/run/netns");
    if (d == nullptr) return found;
    while (dirent* e = readdir(d)) {
      if (std::strncmp(e->d_name, prefix_.c_str(), prefix_.size()) == 0) found.push_back(e->d_name);
    }
    closedir(d);
    return found;
  }

 private:
  std::string bin_dir_;
  std::string dir_;
  std::string prefix_;
};

pid_t read_pid(const std::string& path) {
  const std::string text = am_test::read_file(path);
  return text.empty() ? -1 : static_cast<pid_t>(std::atoi(text.c_str()));
}

off_t file_size(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// Runs fn in a child that has joined the namespace; its result is the child's exit status.
int run_in_ns(const std::string& ns, const std::function<int()>& fn) {
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    const int fd = open(("/var/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) _exit(255);
    _exit(fn() & 0xFF);
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

// A datagram socket made inside a namespace; it stays there for its life.
int socket_in_ns(const std::string& ns) {
  int fd = -1;
  std::thread t([&] {
    const int nsfd = open(("/var/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
    if (nsfd >= 0 && setns(nsfd, CLONE_NEWNET) == 0) fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (nsfd >= 0) close(nsfd);
  });
  t.join();
  return fd;
}

bool join_group(int fd, const char* group, uint16_t port) {
  const int one = 1;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  ip_mreqn mreq{};
  inet_pton(AF_INET, group, &mreq.imr_multiaddr);
  return setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) == 0 &&
         bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
         setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &mreq, sizeof mreq) == 0;
}

std::string receive_text(int fd, int timeout_ms) {
  pollfd p{fd, POLLIN, 0};
  char buf[256] = {};
  if (poll(&p, 1, timeout_ms) <= 0) return "";
  const ssize_t n = recv(fd, buf, sizeof buf - 1, 0);
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

// ---- the board root (no privileges needed) --------------------------------------------------

TEST(BoardRoot, CreateMakesEveryBoardFile) {
  Bench bench;
  ASSERT_TRUE(bench.ok());
  const std::string root = bench.create("root", "--model TX-A");
  struct Row {
    std::string path;
    bool dir;
    off_t min_size;  // -1: any
  };
  const std::string sysfs = kSwitchSysfs;
  const Row rows[] = {
      {"/misc/boardInfo.json", false, 1},
      {"/config/logconf/audio_manager.conf", false, 1},
      {"/config/logconf/qb_genlock.conf", false, 1},
      {"/dev/i2c-1", false, 256 * 0x61},  // the clock synthesiser at 0x60
      {"/dev/i2c-2", false, 256 * 0x49},  // the FPGA at 0x48
      {"/dev/i2c-1.log", false, 0},
      {"/dev/i2c-2.log", false, 0},
      {"/dev/mem", false, kSpdifPhys + kSpdifMapLength},
      {sysfs + "/set_mcastaddr", false, 0},
      {sysfs + "/del_mcastaddr", false, 0},
      {"/customer/bin/audio_codec", false, 1},
      {"/customer/bin/myaplay", false, 1},
      {"/tmp", true, -1},
      {"/home", true, -1},
  };
  for (const Row& row : rows) {
    struct stat st {};
    ASSERT_EQ(stat((root + row.path).c_str(), &st), 0) << row.path;
    EXPECT_EQ(S_ISDIR(st.st_mode), row.dir) << row.path;
    if (row.min_size >= 0) {
      EXPECT_GE(st.st_size, row.min_size) << row.path;
    }
  }
  EXPECT_EQ(file_size(root + "/dev/i2c-2.log"), 0);
  EXPECT_TRUE(contains(am_test::read_file(root + "/misc/boardInfo.json"),
                       "\"modelNumber\": \"TX-A\""));
  // The board's log configuration names board paths; the programs relocate them.
  for (const char* conf : {"audio_manager", "qb_genlock"}) {
    const std::string name = std::string(conf) + ".conf";
    EXPECT_EQ(am_test::read_file(root + "/config/logconf/" + name),
              am_test::read_file(std::string(am_test::kSourceDir) + "/config/logconf/" + name));
  }
}

TEST(BoardRoot, StandInsRecordTheirArgumentsWhenRunFromTheRoot) {
  Bench bench;
  ASSERT_TRUE(bench.ok());
  am_test::TempRoot root;
  ASSERT_TRUE(root.ok());
  ASSERT_EQ(bench.run("create " + root.path()).status, 0);
  am_platform_reload();
  EXPECT_EQ(posix_system("/customer/bin/audio_codec --start"), 0);
  EXPECT_EQ(posix_system("/customer/bin/audio_codec -v 7"), 0);
  EXPECT_EQ(am_test::read_file(root.at("/customer/bin/audio_codec.args")), "--start\n-v 7\n");
  EXPECT_EQ(posix_system("/customer/bin/myaplay -Dhw:1,0 -r 48000 -f S24_LE -c 2 --addr "
                         "234.48.0.1 --port 59300 --group &"),
            0);
  EXPECT_TRUE(am_test::wait_for(
      [&] {
        return am_test::read_file(root.at("/customer/bin/myaplay.args")) ==
               "-Dhw:1,0 -r 48000 -f S24_LE -c 2 --addr 234.48.0.1 --port 59300 --group\n";
      },
      5000));
}

TEST(BoardRoot, ModelChoicesAndRefusals) {
  Bench bench;
  ASSERT_TRUE(bench.ok());
  EXPECT_TRUE(contains(am_test::read_file(bench.create("rx", "--model RX") +
                                          "/misc/boardInfo.json"),
                       "\"RX\""));
  EXPECT_EQ(file_size(bench.create("none", "--no-board-info") + "/misc/boardInfo.json"), -1);
  const std::string custom = bench.dir() + "/custom.json";
  ASSERT_TRUE(am_test::write_file(custom, "{\"modelNumber\": 4}"));
  EXPECT_EQ(am_test::read_file(bench.create("custom", "--board-info " + custom) +
                               "/misc/boardInfo.json"),
            "{\"modelNumber\": 4}");
  // An existing, non-empty root is only reused on request.
  const std::string root = bench.dir() + "/rx";
  EXPECT_NE(bench.run("create " + root).status, 0);
  EXPECT_EQ(bench.run("create " + root + " --force --model TR-A").status, 0);
  EXPECT_TRUE(contains(am_test::read_file(root + "/misc/boardInfo.json"), "\"TR-A\""));
  EXPECT_NE(bench.run("create").status, 0);
  EXPECT_NE(bench.run("frobnicate").status, 0);
  EXPECT_EQ(bench.run("--help").status, 0);
}

// ---- namespaces, links and daemons ----------------------------------------------------------

class BoardBench : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  }
};

TEST_F(BoardBench, DaemonStartsOnTheRootAndStopsCleanly) {
  const std::string bin = std::string(am_test::kBinDir) + "/audio_manager";
  if (access(bin.c_str(), X_OK) != 0) GTEST_SKIP() << "audio_manager is not built";
  Bench bench;
  ASSERT_TRUE(bench.ok());
  const std::string root = bench.create("tx", "--model TX-A");
  Result r = bench.run("up tx " + root + " --mac 02:00:00:00:5a:01 --ip 10.77.0.1/24 --net lan");
  ASSERT_EQ(r.status, 0) << r.out;
  const std::string ns = bench.ns("tx");

  // The board's own MAC as the daemon reads it, and the multicast route.
  EXPECT_EQ(run_in_ns(ns, [] {
              char mac[13] = {};
              return get_mac(mac, sizeof mac) == 12 && std::strcmp(mac, "020000005a01") == 0 ? 0
                                                                                           : 1;
            }),
            0);
  FILE* p = popen(("ip -n " + ns + " route show 224.0.0.0/4").c_str(), "r");
  ASSERT_NE(p, nullptr);
  char line[256] = {};
  const bool have_route = fgets(line, sizeof line, p) != nullptr && contains(line, "dev eth0");
  pclose(p);
  EXPECT_TRUE(have_route) << line;

  r = bench.run("start tx");
  ASSERT_EQ(r.status, 0) << r.out;
  r = bench.run("wait-log tx 'audio manager init done' --timeout 30");
  EXPECT_EQ(r.status, 0) << r.out << am_test::read_file(root + "/run/audio_manager.out");
  const pid_t pid = read_pid(root + "/run/audio_manager.pid");
  EXPECT_TRUE(process_alive(pid));
  EXPECT_TRUE(contains(bench.run("status").out, "audio_manager=running"));
  EXPECT_TRUE(contains(am_test::read_file(root + "/customer/bin/audio_codec.args"), "--start"));
  EXPECT_TRUE(contains(am_test::read_file(root + "/dev/i2c-2.log"), "W 48 "));

  r = bench.run("stop tx");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_TRUE(contains(r.out, "audio_manager status=0")) << r.out;
  EXPECT_FALSE(process_alive(pid));
  EXPECT_TRUE(contains(am_test::read_file(root + "/tmp/audio_manager.log"), "Terminating Exit"));

  EXPECT_EQ(bench.run("teardown").status, 0);
  EXPECT_TRUE(bench.namespaces().empty());
  EXPECT_EQ(bench.run("status").out, "");
}

// A stand-in daemon that ignores SIGTERM and reports its environment, to check the launcher.
class FakeDaemon {
 public:
  explicit FakeDaemon(const std::string& dir) : dir_(dir + "/fakebin") {
    am_test::make_dirs(dir_);
    am_test::write_file(dir_ + "/audio_manager",
                        "#!/bin/sh\n"
                        "trap '' TERM\n"
                        "echo \"root=$AUDIO_MANAGER_ROOT home=$HOME alsa=$ALSA_CONFIG_PATH\"\n"
                        "while :; do sleep 1; done\n");
    chmod((dir_ + "/audio_manager").c_str(), 0755);
  }
  const std::string& dir() const { return dir_; }

 private:
  std::string dir_;
};

TEST_F(BoardBench, StartPassesTheBoardEnvironmentAndStopEscalates) {
  char pattern[] = "/tmp/am_fake_XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  const std::string fake_dir = pattern;
  FakeDaemon fake(fake_dir);
  {
    Bench bench(fake.dir());
    ASSERT_TRUE(bench.ok());
    const std::string root = bench.create("f");
    ASSERT_EQ(bench.run("up f " + root).status, 0);
    Result r = bench.run("start f");
    ASSERT_EQ(r.status, 0) << r.out;
    const std::string out = root + "/run/audio_manager.out";
    ASSERT_TRUE(am_test::wait_for([&] { return contains(am_test::read_file(out), "root="); },
                                  5000));
    const std::string text = am_test::read_file(out);
    EXPECT_TRUE(contains(text, "root=" + root + " ")) << text;
    EXPECT_TRUE(contains(text, "home=" + root + "/home ")) << text;
    EXPECT_TRUE(contains(text, "alsa=/usr/share/alsa/alsa.conf:")) << text;
    EXPECT_NE(bench.run("start f").status, 0);  // one daemon per board

    const pid_t pid = read_pid(root + "/run/audio_manager.pid");
    r = bench.run("stop f --timeout 1");
    EXPECT_TRUE(contains(r.out, "audio_manager status=killed")) << r.out;
    EXPECT_FALSE(process_alive(pid));
  }
  std::system(("rm -rf '" + fake_dir + "'").c_str());
}

TEST_F(BoardBench, LinkedAndBridgedBoardsShareMulticast) {
  Bench bench;
  ASSERT_TRUE(bench.ok());
  const std::string root = bench.create("r");
  ASSERT_EQ(bench.run("up a " + root + " --mac 02:00:00:00:00:0a").status, 0);
  ASSERT_EQ(bench.run("up b " + root + " --mac 02:00:00:00:00:0b").status, 0);
  Result r = bench.run("link a b");
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_NE(bench.run("link a b").status, 0);  // eth0 exists already
  for (const char* name : {"c", "d", "e"}) {
    r = bench.run(std::string("up ") + name + " " + root + " --net lan --bridge");
    ASSERT_EQ(r.status, 0) << r.out;
  }

  struct Row {
    const char* from;
    std::vector<const char*> to;
  };
  const Row rows[] = {{"a", {"b"}}, {"b", {"a"}}, {"c", {"d", "e"}}, {"e", {"c", "d"}}};
  for (const Row& row : rows) {
    std::vector<int> rx;
    for (const char* name : row.to) {
      rx.push_back(socket_in_ns(bench.ns(name)));
      ASSERT_TRUE(join_group(rx.back(), "234.48.0.10", 59300)) << name;
    }
    const int tx = socket_in_ns(bench.ns(row.from));
    ASSERT_GE(tx, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(59300);
    inet_pton(AF_INET, "234.48.0.10", &to.sin_addr);
    const std::string text = std::string("from ") + row.from;
    ASSERT_EQ(sendto(tx, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to),
              static_cast<ssize_t>(text.size()));
    for (size_t i = 0; i < rx.size(); ++i) {
      EXPECT_EQ(receive_text(rx[i], 3000), text) << row.from << " -> " << row.to[i];
      close(rx[i]);
    }
    close(tx);
  }
  EXPECT_EQ(bench.run("down a").status, 0);
  EXPECT_EQ(bench.namespaces().size(), 5u);  // b, c, d, e and the network "lan"
  EXPECT_EQ(bench.run("teardown").status, 0);
  EXPECT_TRUE(bench.namespaces().empty());
}

TEST_F(BoardBench, NothingIsLeftBehindAfterFailures) {
  Bench bench;
  ASSERT_TRUE(bench.ok());
  const std::string root = bench.create("r");

  // A command that fails after making its namespace removes it again.
  Result r = bench.run("up bad " + root + " --ip 10.77.0.300/24 --net lan");
  EXPECT_NE(r.status, 0);
  EXPECT_TRUE(contains(r.out, "removing board bad")) << r.out;
  EXPECT_EQ(file_size("/var/run/netns/" + bench.ns("bad")), -1);
  EXPECT_FALSE(contains(bench.run("status").out, "board bad"));
  for (const char* args : {"up Bad_Name /tmp", "up x /nonexistent", "up y /tmp --mac 1:2",
                           "up z /tmp --bridge"}) {
    EXPECT_NE(bench.run(args).status, 0) << args;
  }

  // Processes still running in a board's namespace, with their launcher gone.
  ASSERT_EQ(bench.run("up crash " + root + " --net lan").status, 0);
  am_test::Process stray({bench.board_cmd(), "exec", "crash", "--", "sleep", "300"},
                         {"AM_SIM_STATE=" + bench.dir() + "/state",
                          "AM_SIM_PREFIX=" + bench.ns("")});
  ASSERT_TRUE(stray.started());
  ASSERT_TRUE(am_test::wait_for(
      [&] {
        FILE* p = popen(("ip netns pids " + bench.ns("crash")).c_str(), "r");
        char line[64] = {};
        const bool any = p != nullptr && fgets(line, sizeof line, p) != nullptr;
        if (p != nullptr) pclose(p);
        return any;
      },
      5000));
  EXPECT_EQ(bench.namespaces().size(), 2u);

  r = bench.run("teardown");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_TRUE(am_test::wait_for([&] { return !stray.running(); }, 5000));
  EXPECT_TRUE(bench.namespaces().empty());
  EXPECT_EQ(bench.run("teardown").status, 0);  // again: nothing to do
}

}  // namespace
