// The integration test environment cleans up after itself: roots, namespaces, processes.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "am_platform.h"
#include "am_test_env.h"

TEST(AmTestEnv, TempRootSetsAndRestoresTheRoot) {
  std::string path;
  const std::string before = am_root();
  {
    am_test::TempRoot root({"dev", "misc/sub"});
    ASSERT_TRUE(root.ok());
    path = root.path();
    EXPECT_EQ(am_path("/dev/i2c-2"), path + "/dev/i2c-2");
    struct stat st;
    EXPECT_EQ(stat(root.at("/misc/sub").c_str(), &st), 0);
    ASSERT_TRUE(root.write("/config/logconf/x.conf", "abc"));
    EXPECT_EQ(am_test::read_file(root.at("/config/logconf/x.conf")), "abc");
  }
  EXPECT_EQ(access(path.c_str(), F_OK), -1);
  EXPECT_EQ(am_root(), before);
}

TEST(AmTestEnv, ProcessExitOutputSignalAndKill) {
  am_test::TempRoot root;
  am_test::Process p({"/bin/sh", "-c", "echo \"$AM_X\"; echo err >&2; exit 3"}, {"AM_X=hello"}, "",
                     root.path() + "/out.txt");
  int status = 0;
  ASSERT_TRUE(p.wait_exit(10000, &status));
  EXPECT_EQ(WEXITSTATUS(status), 3);
  EXPECT_EQ(p.output(), "hello\nerr\n");
  EXPECT_FALSE(p.signal(SIGTERM));
  pid_t pid = -1;
  {
    am_test::Process q({"sleep", "100"});
    pid = q.pid();
    EXPECT_FALSE(q.wait_exit(50));
    EXPECT_TRUE(q.signal(SIGTERM));
    ASSERT_TRUE(q.wait_exit(10000, &status));
    EXPECT_TRUE(WIFSIGNALED(status));
    am_test::Process r({"sleep", "100"});
    pid = r.pid();
  }
  EXPECT_EQ(kill(pid, 0), -1) << "killed on destruction";
}

TEST(AmTestEnv, NetNsRunsCodeInsideAndIsRemoved) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  std::string name;
  {
    am_test::NetNs ns;
    ASSERT_TRUE(ns.ok());
    name = ns.name();
    // Port 8382 is free inside the new namespace whatever the host runs, and loopback is up.
    EXPECT_EQ(ns.run([] {
      am_test::UdpReceiver rx(8382);
      am_test::UdpReceiver tx(0);
      if (!rx.ok() || !tx.ok()) return 1;
      std::vector<uint8_t> got;
      return rx.receive(&got, 50) ? 2 : 0;
    }),
              0);
    EXPECT_EQ(ns.run([] { return 7; }), 7);
    EXPECT_EQ(ns.run([] { for (;;) pause(); return 0; }, 200), -1);

    am_test::TempRoot root;
    am_test::Process p({"ip", "-o", "link", "show"}, {}, ns.name(), root.path() + "/links");
    ASSERT_TRUE(p.wait_exit(10000));
    const std::string links = p.output();
    EXPECT_NE(links.find("lo:"), std::string::npos);
    EXPECT_EQ(links.find("eth"), std::string::npos) << links;
    EXPECT_EQ(ns.exec_prefix(), "ip netns exec " + name + " ");
  }
  EXPECT_EQ(access(("/var/run/netns/" + name).c_str(), F_OK), -1);
}
