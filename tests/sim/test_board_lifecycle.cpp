// sim/board: create, up, link and teardown, which leaves nothing (namespace, process) behind, also
// after a failed command and with a process still running in a board's namespace.
#include <dirent.h>
#include "am_test_sys.h"

namespace {

const std::string kPrefix = "amb" + std::to_string(getpid()) + "-";

std::vector<std::string> namespaces() {
  std::vector<std::string> found;
  if (DIR* d = opendir("/var/run/netns")) {
    while (dirent* e = readdir(d))
      if (std::strncmp(e->d_name, kPrefix.c_str(), kPrefix.size()) == 0) found.push_back(e->d_name);
    closedir(d);
  }
  return found;
}

TEST(BoardBench, CreateUpLinkAndTeardownLeaveNothingBehind) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  am_test::TempRoot dir;
  ASSERT_TRUE(dir.ok());
  const std::string env = "AM_SIM_STATE=" + dir.path() + "/state AM_SIM_PREFIX=" + kPrefix;
  const std::string board_cmd = std::string(am_test::kSourceDir) + "/sim/board";
  auto board = [&](const std::string& args) {
    const int rc = std::system(("env " + env + " " + board_cmd + " " + args + " >>" + dir.path() + "/out 2>&1").c_str());
    return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
  };
  const std::string root = dir.path() + "/r";
  ASSERT_EQ(0, board("create " + root + " --model TX-A"));
  EXPECT_EQ("{\n  \"modelNumber\": \"TX-A\"\n}\n", am_test::read_file(root + "/misc/boardInfo.json"));
  EXPECT_NE(0, board("create " + root)) << "an existing root is only reused with --force";
  EXPECT_NE(0, board("up bad " + root + " --ip 10.77.0.300/24 --net lan"));
  EXPECT_NE(0, access(("/var/run/netns/" + kPrefix + "bad").c_str(), F_OK)) << "a failed command removes its board";
  ASSERT_EQ(0, board("up a " + root + " --mac 02:00:00:00:00:0a"));
  ASSERT_EQ(0, board("up b " + root + " --mac 02:00:00:00:00:0b"));
  ASSERT_EQ(0, board("link a b")) << am_test::read_file(dir.path() + "/out");
  {
    am_test::NsSocket rx(kPrefix + "b"), tx(kPrefix + "a");
    ASSERT_TRUE(rx.listen("234.48.0.10", 59300));
    ASSERT_TRUE(tx.send("234.48.0.10", 59300, {0x5a}));
    EXPECT_EQ(rx.drain(1000), std::vector<std::vector<uint8_t>>{{0x5a}});
  }
  am_test::Process stray({board_cmd, "exec", "a", "--", "sleep", "300"},
                         {"AM_SIM_STATE=" + dir.path() + "/state", "AM_SIM_PREFIX=" + kPrefix});
  ASSERT_TRUE(am_test::wait_for([&] { return am_test::shell("test -n \"$(ip netns pids " + kPrefix + "a)\"") == 0; }, 10000));
  EXPECT_EQ(3u, namespaces().size()) << "a, b and the network lan";
  EXPECT_EQ(0, board("teardown")) << am_test::read_file(dir.path() + "/out");
  EXPECT_TRUE(am_test::wait_for([&] { return !stray.running(); }, 5000));
  EXPECT_TRUE(namespaces().empty());
  EXPECT_EQ(0, board("teardown")) << "again: nothing to do";
}

}  // namespace
