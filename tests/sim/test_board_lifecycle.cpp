// sim/board: the board root it creates, the namespaces and links it makes, the daemons it starts
// on them, and its clean-up: nothing (namespace, veth, process) may be left behind, also after a
// failed command or crashed daemon.
#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "am_test_env.h"
#include "am_test_paths.h"

namespace {

struct Result {
  int status = -1;
  std::string out;
};

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

bool process_alive(pid_t pid) { return pid > 0 && kill(pid, 0) == 0; }

Result shell(const std::string& cmd) {
  Result r;
  FILE* p = popen((cmd + " 2>&1").c_str(), "r");
  if (p == nullptr) return r;
  char buf[512];
  while (fgets(buf, sizeof buf, p) != nullptr) r.out += buf;
  const int status = pclose(p);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

std::vector<std::string> list_dir(const char* path, const std::string& prefix) {
  std::vector<std::string> found;
  if (DIR* d = opendir(path)) {
    while (dirent* e = readdir(d)) {
      if (std::strncmp(e->d_name, prefix.c_str(), prefix.size()) == 0) found.push_back(e->d_name);
    }
    closedir(d);
  }
  return found;
}

// Every "sim/board" call of one test: a private state directory and namespace prefix, both
// named after this process, so nothing else on the machine is touched; the destructor tears
// everything down. What a killed earlier test process left behind is torn down first.
class Bench {
 public:
  Bench() {
    sweep_dead_runs();
    const std::string tmpl = "/tmp/am_board_" + std::to_string(getpid()) + "_XXXXXX";
    std::vector<char> pattern(tmpl.begin(), tmpl.end());
    pattern.push_back('\0');
    if (mkdtemp(pattern.data()) != nullptr) dir_ = pattern.data();
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
  std::string ns(const std::string& name) const { return prefix() + name; }
  void use_bin(const std::string& dir) { bin_dir_ = dir; }
  std::string board_cmd() const { return std::string(am_test::kSourceDir) + "/sim/board"; }

  // Runs "sim/board ARGS", output and error together.
  Result run(const std::string& args) const {
    return shell(env(dir_, prefix()) + "AM_BIN_DIR='" + bin_dir_ + "' " + board_cmd() + " " + args);
  }
  // A fresh board root under the bench directory.
  std::string create(const std::string& name, const std::string& options = "") const {
    const std::string root = dir_ + "/" + name;
    const Result r = run("create " + root + " " + options);
    EXPECT_EQ(r.status, 0) << r.out;
    return root;
  }
  // Namespaces of this bench that still exist.
  std::vector<std::string> namespaces() const { return list_dir("/var/run/netns", prefix()); }

 private:
  static std::string prefix_of(const std::string& pid) { return "amb" + pid + "-"; }
  std::string prefix() const { return prefix_of(std::to_string(getpid())); }
  static std::string env(const std::string& dir, const std::string& prefix) {
    return "AM_SIM_STATE='" + dir + "/state' AM_SIM_PREFIX='" + prefix + "' AM_LIB_DIR='" +
           am_test::kLibDir + "' ";
  }
  static void sweep_dead_runs() {
    for (const std::string& name : list_dir("/tmp", "am_board_")) {
      const size_t end = name.find('_', 9);
      const std::string pid = name.substr(9, end == std::string::npos ? 0 : end - 9);
      if (pid.empty() || pid.find_first_not_of("0123456789") != std::string::npos ||
          process_alive(std::atoi(pid.c_str()))) {
        continue;
      }
      const std::string dir = "/tmp/" + name;
      shell(env(dir, prefix_of(pid)) + std::string(am_test::kSourceDir) + "/sim/board teardown");
      std::system(("rm -rf '" + dir + "'").c_str());
    }
  }

  std::string bin_dir_ = am_test::kBinDir;
  std::string dir_;
};

pid_t read_pid(const std::string& path) {
  const std::string text = am_test::read_file(path);
  return text.empty() ? -1 : static_cast<pid_t>(std::atoi(text.c_str()));
}

off_t file_size(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// ---- the board root (no privileges needed) --------------------------------------------------

TEST(BoardRoot, CreateMakesEveryBoardFileWithTheChosenModelAndRefusesMistakes) {
  Bench bench;
  ASSERT_TRUE(bench.ok());
  const std::string root = bench.create("root", "--model TX-A");
  // Register files large enough for the synthesiser at 0x60, the FPGA at 0x48 and the S/PDIF
  // receiver's registers; the switch's sysfs attributes; the stand-ins.
  const std::pair<std::string, off_t> files[] = {
      {"/dev/i2c-1", 256 * 0x61}, {"/dev/i2c-2", 256 * 0x49}, {"/dev/mem", 0x30090000 + 255},
      {"/sys/devices/platform/soc@0/soc@0:bus@30800000/30a30000.i2c/i2c-1/1-005c/"
       "set_mcastaddr", 0},
      {"/customer/bin/audio_codec", 1}, {"/customer/bin/myaplay", 1}, {"/dev/i2c-2.log", 0}};
  for (const auto& [path, size] : files) EXPECT_GE(file_size(root + path), size) << path;
  // The board's log configuration names board paths; the programs relocate them.
  for (const std::string name : {"audio_manager.conf", "qb_genlock.conf"}) {
    EXPECT_EQ(am_test::read_file(root + "/config/logconf/" + name),
              am_test::read_file(std::string(am_test::kSourceDir) + "/config/logconf/" + name));
  }
  const std::string custom = bench.dir() + "/custom.json";
  ASSERT_TRUE(am_test::write_file(custom, "{\"modelNumber\": 4}"));
  const std::pair<std::string, std::string> rows[] = {  // options, boardInfo.json ("": none)
      {"", "{\n  \"modelNumber\": \"TX-A\"\n}\n"},
      {"--model RX", "{\n  \"modelNumber\": \"RX\"\n}\n"},
      {"--no-board-info", ""},
      {"--board-info " + custom, "{\"modelNumber\": 4}"}};
  int n = 0;
  for (const auto& [options, info] : rows) {
    const std::string other = bench.create("b" + std::to_string(n++), options);
    EXPECT_EQ(am_test::read_file(other + "/misc/boardInfo.json"), info) << options;
  }
  // An existing, non-empty root is only reused on request.
  EXPECT_NE(bench.run("create " + root).status, 0);
  EXPECT_EQ(bench.run("create " + root + " --force --model TR-A").status, 0);
  EXPECT_TRUE(contains(am_test::read_file(root + "/misc/boardInfo.json"), "\"TR-A\""));
  for (const char* args : {"create", "frobnicate", ""}) {
    EXPECT_NE(bench.run(args).status, 0) << args;
  }
}

// ---- namespaces, links and daemons ----------------------------------------------------------

class BoardBench : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  }
};

TEST_F(BoardBench, DaemonStartsOnTheRootAndTeardownRemovesEverything) {
  const std::string bin = std::string(am_test::kBinDir) + "/audio_manager";
  if (access(bin.c_str(), X_OK) != 0) GTEST_SKIP() << "audio_manager is not built";
  Bench bench;
  ASSERT_TRUE(bench.ok());
  const std::string root = bench.create("tx", "--model TX-A");
  Result r = bench.run("up tx " + root + " --mac 02:00:00:00:5a:01 --ip 10.77.0.1/24 --net lan");
  ASSERT_EQ(r.status, 0) << r.out;
  const std::string ns = bench.ns("tx");
  EXPECT_TRUE(contains(shell("ip -n " + ns + " route show 224.0.0.0/4").out, "dev eth0"));
  EXPECT_TRUE(contains(shell("ip -n " + ns + " link show eth0").out, "02:00:00:00:5a:01"));
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
  EXPECT_TRUE(contains(r.out, "audio_manager status=0")) << r.out;
  EXPECT_FALSE(process_alive(pid));
  EXPECT_TRUE(contains(am_test::read_file(root + "/tmp/audio_manager.log"), "Terminating Exit"));

  // Started again, it is torn down while running.
  ASSERT_EQ(bench.run("start tx --no-genlock").status, 0);
  const pid_t again = read_pid(root + "/run/audio_manager.pid");
  EXPECT_TRUE(process_alive(again));
  EXPECT_EQ(bench.run("teardown").status, 0);
  EXPECT_FALSE(process_alive(again));
  EXPECT_TRUE(bench.namespaces().empty());
  EXPECT_EQ(bench.run("status").out, "");
}

TEST_F(BoardBench, StartPassesTheBoardEnvironmentAndStopEscalates) {
  Bench bench;
  ASSERT_TRUE(bench.ok());
  // A stand-in daemon that ignores SIGTERM and reports its environment.
  const std::string fake = bench.dir() + "/fakebin";
  ASSERT_TRUE(am_test::make_dirs(fake));
  ASSERT_TRUE(am_test::write_file(fake + "/audio_manager",
                                  "#!/bin/sh\ntrap '' TERM\n"
                                  "echo \"root=$AUDIO_MANAGER_ROOT home=$HOME "
                                  "alsa=$ALSA_CONFIG_PATH\"\n"
                                  "while :; do sleep 1; done\n"));
  chmod((fake + "/audio_manager").c_str(), 0755);
  bench.use_bin(fake);
  const std::string root = bench.create("f");
  ASSERT_EQ(bench.run("up f " + root).status, 0);
  Result r = bench.run("start f");
  ASSERT_EQ(r.status, 0) << r.out;
  const std::string out = root + "/run/audio_manager.out";
  ASSERT_TRUE(am_test::wait_for([&] { return contains(am_test::read_file(out), "root="); }, 10000));
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

TEST_F(BoardBench, LinkedAndBridgedBoardsShareMulticast) {
  Bench bench;
  ASSERT_TRUE(bench.ok());
  const std::string root = bench.create("r");
  ASSERT_EQ(bench.run("up a " + root + " --mac 02:00:00:00:00:0a").status, 0);
  ASSERT_EQ(bench.run("up b " + root + " --mac 02:00:00:00:00:0b").status, 0);
  Result r = bench.run("link a b");
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_NE(bench.run("link a b").status, 0);  // eth0 exists already
  for (const std::string name : {"c", "d", "e"}) {
    r = bench.run("up " + name + " " + root + " --net lan --bridge");
    ASSERT_EQ(r.status, 0) << r.out;
  }
  struct Row {
    const char* from;
    std::vector<const char*> to;
  };
  const Row rows[] = {{"a", {"b"}}, {"b", {"a"}}, {"c", {"d", "e"}}, {"e", {"c", "d"}}};
  for (const Row& row : rows) {
    std::vector<std::unique_ptr<am_test::NsSocket>> rx;
    for (const char* name : row.to) {
      rx.push_back(std::make_unique<am_test::NsSocket>(bench.ns(name)));
      ASSERT_TRUE(rx.back()->listen("234.48.0.10", 59300)) << name;
    }
    am_test::NsSocket tx(bench.ns(row.from));
    const std::vector<uint8_t> text(row.from, row.from + 1);
    ASSERT_TRUE(tx.send("234.48.0.10", 59300, text));
    for (size_t i = 0; i < rx.size(); ++i) {
      const auto got = rx[i]->drain(1000);
      EXPECT_EQ(got, std::vector<std::vector<uint8_t>>{text}) << row.from << " -> " << row.to[i];
    }
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
      [&] { return !shell("ip netns pids " + bench.ns("crash")).out.empty(); }, 10000));
  EXPECT_EQ(bench.namespaces().size(), 2u);
  r = bench.run("teardown");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_TRUE(am_test::wait_for([&] { return !stray.running(); }, 5000));
  EXPECT_TRUE(bench.namespaces().empty());
  EXPECT_EQ(bench.run("teardown").status, 0);  // again: nothing to do
}

}  // namespace
