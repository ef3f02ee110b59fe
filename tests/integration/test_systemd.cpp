// The systemd side of the daemons: `make install` puts valid units whose ExecStart is the
// installed program (systemd-analyze verify accepts them), and both daemons tell the service
// manager READY=1 once they serve and STOPPING=1 when a termination signal arrives, then exit 0.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <ostream>
#include <string>

#include "am_test_env.h"
#include "am_test_paths.h"

namespace {

const std::string kBuildDir = std::string(am_test::kBinDir) + "/..";
constexpr int kGenlockPort = 11000;

// Output and exit status of a shell command.
int shell(const std::string& cmd, std::string* out) {
  out->clear();
  FILE* p = popen((cmd + " 2>&1").c_str(), "r");
  if (p == nullptr) return -1;
  char buf[512];
  for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out->append(buf, n);
  const int st = pclose(p);
  return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

TEST(SystemdInstall, UnitsPointAtTheInstalledProgramsAndVerify) {
  if (system("command -v systemd-analyze >/dev/null 2>&1") != 0) GTEST_SKIP() << "systemd-analyze missing";
  am_test::TempRoot tmp;
  ASSERT_TRUE(tmp.ok());
  std::string out;
  // A staged install (DESTDIR) for the prefix /usr: files under the stage, paths for the board.
  ASSERT_EQ(0, shell("DESTDIR=" + tmp.path() + "/stage cmake --install " + kBuildDir + " --prefix /usr", &out)) << out;
  for (const char* f : {"bin/audio_manager", "bin/qb_genlock", "bin/amctl", "share/audio_manager/wireshark/audio_manager.lua"})
    EXPECT_EQ(0, access((tmp.path() + "/stage/usr/" + f).c_str(), R_OK)) << f;
  const std::string unit = am_test::read_file(tmp.path() + "/stage/usr/lib/systemd/system/audio_manager.service");
  EXPECT_NE(std::string::npos, unit.find("\nExecStart=/usr/bin/audio_manager\n")) << unit;
  EXPECT_NE(std::string::npos, unit.find("\nWants=qb_genlock.service\n"));

  // An install whose ExecStart exists on this host, so that verify checks the whole unit.
  const std::string prefix = tmp.path() + "/prefix";
  ASSERT_EQ(0, shell("cmake --install " + kBuildDir + " --prefix " + prefix, &out)) << out;
  for (const char* name : {"audio_manager", "qb_genlock"}) {
    const std::string path = prefix + "/lib/systemd/system/" + name + ".service";
    EXPECT_NE(std::string::npos, am_test::read_file(path).find("ExecStart=" + prefix + "/bin/" + name + "\n"));
    // verify exits 0 even on unknown keys or bad values: it must print nothing at all.
    EXPECT_EQ(0, shell("systemd-analyze verify " + path, &out)) << name;
    EXPECT_EQ("", out) << name;
  }
}

// The service manager's notification socket: a datagram socket bound at path. -1 on failure.
int notify_socket(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  path.copy(addr.sun_path, sizeof addr.sun_path - 1);
  timeval tv{0, 100 * 1000};
  if (fd >= 0 && (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
                  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) != 0)) {
    close(fd);
    return -1;
  }
  return fd;
}

// Notices until one holds `want` (true) or timeout_ms passes; *seen collects them all.
bool wait_notice(int fd, const std::string& want, int timeout_ms, std::string* seen) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (std::chrono::steady_clock::now() < end) {
    char buf[256];
    const ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n <= 0) continue;
    *seen += std::string(buf, static_cast<size_t>(n)) + "|";
    if (std::string(buf, static_cast<size_t>(n)).find(want) != std::string::npos) return true;
  }
  return false;
}

// True when 127.0.0.1:port is taken inside the namespace.
bool port_taken(const am_test::NetNs& ns, int port) {
  return ns.run([port] {
           const int fd = socket(AF_INET, SOCK_DGRAM, 0);
           sockaddr_in a{};
           a.sin_family = AF_INET;
           a.sin_port = htons(static_cast<uint16_t>(port));
           a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
           return bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 && errno == EADDRINUSE ? 0 : 1;
         }) == 0;
}

struct Daemon {
  const char* program;
  int stop_signal;
  const char* ready_log;  // in its log when READY=1 has come
};

void PrintTo(const Daemon& d, std::ostream* os) { *os << d.program; }

class SystemdNotify : public ::testing::TestWithParam<Daemon> {};

TEST_P(SystemdNotify, ReadyAfterStartStoppingOnSignalThenExitZero) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  const Daemon d = GetParam();
  am_test::TempRoot root({"dev", "tmp", "misc", "home", "customer/bin", "config/logconf"});
  ASSERT_TRUE(root.ok());
  const std::string conf = "log4cpp.rootCategory=INFO, file\nlog4cpp.appender.file=FileAppender\n"
                           "log4cpp.appender.file.fileName=/tmp/daemon.log\nlog4cpp.appender.file.layout=BasicLayout\n";
  ASSERT_TRUE(root.write(std::string("/config/logconf/") + d.program + ".conf", conf));
  ASSERT_TRUE(root.write("/misc/boardInfo.json", "{\"modelNumber\": \"TR-A\"}"));
  ASSERT_TRUE(root.write("/dev/i2c-1.log", "") && root.write("/dev/i2c-2", std::string(65536, '\0')));
  ASSERT_TRUE(root.write("/customer/bin/audio_codec", "#!/bin/sh\nexit 0\n"));
  ASSERT_EQ(0, chmod(root.at("/customer/bin/audio_codec").c_str(), 0755));
  const int notify = notify_socket(root.path() + "/notify.sock");
  ASSERT_GE(notify, 0);
  const std::unique_ptr<const int, void (*)(const int*)> closer(&notify, [](const int* fd) { close(*fd); });
  am_test::NetNs ns;
  ASSERT_TRUE(ns.ok());
  am_test::Process daemon({std::string(am_test::kBinDir) + "/" + d.program},
                          {"AUDIO_MANAGER_ROOT=" + root.path(), "HOME=" + root.path() + "/home",
                           "NOTIFY_SOCKET=" + root.path() + "/notify.sock"},
                          ns.name(), root.path() + "/daemon.out");
  ASSERT_TRUE(daemon.started());
  std::string seen;
  ASSERT_TRUE(wait_notice(notify, "READY=1", 20000, &seen)) << seen << daemon.output();
  EXPECT_NE(std::string::npos, am_test::read_file(root.at("/tmp/daemon.log")).find(d.ready_log))
      << "READY=1 came before start-up was complete";
  if (std::string(d.program) == "qb_genlock") {
    EXPECT_TRUE(port_taken(ns, kGenlockPort)) << "READY=1 came before the socket was bound";
  }
  EXPECT_EQ(std::string::npos, seen.find("STOPPING=1"));

  ASSERT_TRUE(daemon.signal(d.stop_signal));
  EXPECT_TRUE(wait_notice(notify, "STOPPING=1", 10000, &seen)) << seen;
  int status = 0;
  ASSERT_TRUE(daemon.wait_exit(10000, &status)) << daemon.output();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

INSTANTIATE_TEST_SUITE_P(Daemons, SystemdNotify,
                         ::testing::Values(Daemon{"audio_manager", SIGTERM, "audio manager init done"},
                                           Daemon{"qb_genlock", SIGTSTP, "si5351_task pid:"}),
                         [](const ::testing::TestParamInfo<Daemon>& i) { return std::string(i.param.program); });

}  // namespace
