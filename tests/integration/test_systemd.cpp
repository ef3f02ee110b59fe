// The systemd side of the daemons: `make install` puts valid units whose ExecStart is the
// installed program, and both daemons send READY=1 once they serve and STOPPING=1 on a termination
// signal, then exit 0.
#include "am_test_sys.h"
#include <sys/un.h>

namespace {

const std::string kBuildDir = std::string(am_test::kBinDir) + "/..";
constexpr int kGenlockPort = 11000;

TEST(SystemdInstall, UnitsPointAtTheInstalledProgramsAndVerify) {
  if (system("command -v systemd-analyze >/dev/null 2>&1") != 0) GTEST_SKIP() << "systemd-analyze missing";
  am_test::TempRoot tmp;
  int rc = -1;
  // A staged install (DESTDIR) for the prefix /usr: files under the stage, paths for the board.
  std::string out = am_test::output_of("DESTDIR=" + tmp.path() + "/stage cmake --install " + kBuildDir + " --prefix /usr 2>&1", &rc);
  ASSERT_EQ(0, rc) << out;
  for (const char* f : {"bin/audio_manager", "bin/qb_genlock", "bin/amctl", "share/audio_manager/wireshark/audio_manager.lua"})
    EXPECT_EQ(0, access((tmp.path() + "/stage/usr/" + f).c_str(), R_OK)) << f;
  const std::string unit = am_test::read_file(tmp.path() + "/stage/usr/lib/systemd/system/audio_manager.service");
  EXPECT_NE(std::string::npos, unit.find("\nExecStart=/usr/bin/audio_manager\n")) << unit;
  EXPECT_NE(std::string::npos, unit.find("\nWants=qb_genlock.service\n"));
  // An install whose ExecStart exists here, so that verify checks the whole unit.
  const std::string prefix = tmp.path() + "/prefix";
  out = am_test::output_of("cmake --install " + kBuildDir + " --prefix " + prefix + " 2>&1", &rc);
  ASSERT_EQ(0, rc) << out;
  for (const std::string name : {"audio_manager", "qb_genlock"}) {
    const std::string path = prefix + "/lib/systemd/system/" + name + ".service";
    EXPECT_NE(std::string::npos, am_test::read_file(path).find("ExecStart=" + prefix + "/bin/" + name + "\n"));
    // verify exits 0 even on unknown keys or bad values: it must print nothing at all.
    EXPECT_EQ("", am_test::output_of("systemd-analyze verify " + path + " 2>&1", &rc)) << name;
    EXPECT_EQ(0, rc) << name;
  }
}

TEST(SystemdNotify, ReadyAfterStartStoppingOnSignalThenExitZero) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  struct Row { std::string program; int stop_signal; const char* ready_log; };  // ready_log: in its log once READY=1 has come
  for (const Row& d : {Row{"audio_manager", SIGTERM, "audio manager init done"}, Row{"qb_genlock", SIGTSTP, "si5351_task pid:"}}) {
    SCOPED_TRACE(d.program);
    am_test::TempRoot root({"tmp", "home"});
    ASSERT_TRUE(am_test::write_board(root, "TR-A"));
    ASSERT_TRUE(root.write("/config/logconf/" + d.program + ".conf",
                           "log4cpp.rootCategory=INFO, file\nlog4cpp.appender.file=FileAppender\n"
                           "log4cpp.appender.file.fileName=/tmp/daemon.log\nlog4cpp.appender.file.layout=BasicLayout\n"));
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    (root.path() + "/notify.sock").copy(addr.sun_path, sizeof addr.sun_path - 1);
    const timeval tv{0, 100 * 1000};
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
    ASSERT_EQ(0, setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv));
    std::string seen;
    auto notice = [&](const std::string& want, int timeout_ms) {
      return am_test::wait_for([&] {
        char buf[256];
        const ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n > 0) seen += std::string(buf, static_cast<size_t>(n)) + "|";
        return seen.find(want) != std::string::npos;
      }, timeout_ms, 1);
    };
    am_test::NetNs ns;
    am_test::Process daemon({std::string(am_test::kBinDir) + "/" + d.program},
                            {"AUDIO_MANAGER_ROOT=" + root.path(), "HOME=" + root.path() + "/home",
                             "NOTIFY_SOCKET=" + root.path() + "/notify.sock"},
                            ns.name(), root.path() + "/daemon.out");
    EXPECT_TRUE(notice("READY=1", 20000)) << seen << daemon.output();
    EXPECT_NE(std::string::npos, am_test::read_file(root.at("/tmp/daemon.log")).find(d.ready_log))
        << "READY=1 came before start-up was complete";
    if (d.program == "qb_genlock") {
      EXPECT_EQ(0, ns.run([] {
        sockaddr_in a{};
        a.sin_family = AF_INET, a.sin_port = htons(kGenlockPort), a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return bind(socket(AF_INET, SOCK_DGRAM, 0), reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 && errno == EADDRINUSE ? 0 : 1;
      })) << "READY=1 came before the socket was bound";
    }
    EXPECT_EQ(std::string::npos, seen.find("STOPPING=1"));
    ASSERT_TRUE(daemon.signal(d.stop_signal));
    EXPECT_TRUE(notice("STOPPING=1", 10000)) << seen;
    int status = 0;
    EXPECT_TRUE(daemon.wait_exit(10000, &status)) << daemon.output();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    close(fd);
  }
}

}  // namespace
