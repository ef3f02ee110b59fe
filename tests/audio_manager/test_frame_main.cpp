// Daemon frame and utilities: board mode from the model text and the board-information file, the
// init-list walks and the once-only shutdown, the time-point tracer, multicast forwarding requests,
// audio info persistence and the MAC of "eth0".
#include <dirent.h>
#include <sys/stat.h>

#include <thread>

#include "am_unit.h"
#include "diff_time.h"
#include "multicast_route.h"
#include "qb_audio_misc_util.h"

namespace am_unit {
namespace {

TEST(FrameBoardMode, ModelTextAndBoardInfoFile) {
  const std::pair<const char*, int> models[] = {
      {"QB-AV-TX-A-100", QB_BOARD_MODE_TX_A}, {"RX", QB_BOARD_MODE_RX}, {"TR-A", QB_BOARD_MODE_TR_A},
      {"TR", QB_BOARD_MODE_TR}, {"TR-A RX", QB_BOARD_MODE_RX} /* RX is tested before TR-A */,
      {"RX TX-A", QB_BOARD_MODE_TX_A} /* TX-A first of all */, {"XTR-AX", QB_BOARD_MODE_TR_A}, {"TRX", QB_BOARD_MODE_RX},
      {"TX", QB_BOARD_MODE_UNKNOWN}, {"tx-a", QB_BOARD_MODE_UNKNOWN}, {"", QB_BOARD_MODE_UNKNOWN},
      {nullptr, QB_BOARD_MODE_UNKNOWN}};
  for (const auto& c : models) EXPECT_EQ(qb_board_mode_from_model(c.first), c.second) << (c.first ? c.first : "(null)");

  const std::string deep(5000, '[');
  const std::string big = R"({"modelNumber":"TX-A","pad":")" + std::string(70000, 'x') + "\"}";
  const std::pair<const char*, int> files[] = {
      {R"({"serial":"1","modelNumber":"VX-TR-A","hw":2})", QB_BOARD_MODE_TR_A}, {nullptr, QB_BOARD_MODE_UNKNOWN},
      {"", QB_BOARD_MODE_UNKNOWN}, {"modelNumber=TX-A", QB_BOARD_MODE_UNKNOWN}, {R"({"modelNumber":17})", QB_BOARD_MODE_UNKNOWN},
      {R"({"modelNumber":{"name":"TX-A"}})", QB_BOARD_MODE_UNKNOWN}, {R"({"modelNumber":""})", QB_BOARD_MODE_UNKNOWN},
      {R"({"model":"TX-A"})", QB_BOARD_MODE_UNKNOWN}, {R"(["modelNumber","TX-A"])", QB_BOARD_MODE_UNKNOWN},
      {R"({"modelNumber":"VX-100"})", QB_BOARD_MODE_UNKNOWN}, {deep.c_str(), QB_BOARD_MODE_UNKNOWN},
      {big.c_str(), QB_BOARD_MODE_UNKNOWN} /* too large to be a board file */};
  for (const auto& c : files) {
    SCOPED_TRACE(c.first ? std::string(c.first).substr(0, 40) : "no file");
    am_test::TempRoot root({"misc"});
    ASSERT_TRUE(c.first == nullptr || root.write("/misc/boardInfo.json", c.first));
    EXPECT_EQ(GetModeFromJsonFile2(), c.second);
  }
  // A FIFO without a writer would block a plain open for ever; a folder cannot be read.
  am_test::TempRoot root({"misc"});
  ASSERT_EQ(mkfifo(root.at("/misc/boardInfo.json").c_str(), 0600), 0);
  EXPECT_EQ(GetModeFromJsonFile2(), QB_BOARD_MODE_UNKNOWN);
  ASSERT_EQ(unlink(root.at("/misc/boardInfo.json").c_str()), 0);
  ASSERT_TRUE(am_test::make_dirs(root.at("/misc/boardInfo.json")));
  EXPECT_EQ(GetModeFromJsonFile2(), QB_BOARD_MODE_UNKNOWN);
}

// The init list walks record the rows they call; a failing module does not stop the walk.
std::vector<std::string> g_calls;
template <int Row>
int init_row() { return g_calls.push_back("init" + std::to_string(Row)), 0; }
template <int Row>
int uninit_row() { return g_calls.push_back("uninit" + std::to_string(Row)), 0; }
const qb_init_fun_list_t kTestList[] = {
    {init_row<0>, uninit_row<0>, nullptr, nullptr}, {nullptr, uninit_row<1>, nullptr, nullptr},
    {init_row<2>, nullptr, nullptr, nullptr},       {nullptr, nullptr, nullptr, nullptr},
    {init_row<4>, uninit_row<4>, nullptr, nullptr},
};
constexpr int kTestRows = sizeof kTestList / sizeof kTestList[0];
const std::vector<std::string> kStopOrder = {"uninit4", "uninit1", "uninit0"};

TEST(FrameInitList, StartsForwardAndStopsBackwardSkippingEmptyEntries) {
  g_calls.clear();
  qb_init_list_start(kTestList, kTestRows);
  EXPECT_EQ(g_calls, (std::vector<std::string>{"init0", "init2", "init4"}));
  g_calls.clear();
  qb_init_list_stop(kTestList, kTestRows);
  EXPECT_EQ(g_calls, kStopOrder);
  g_calls.clear();
  qb_init_list_start(nullptr, 3);
  qb_init_list_stop(nullptr, 3);
  EXPECT_TRUE(g_calls.empty());
}

// The once-only guard is process-wide, so the shutdown steps run in a child process.
void shutdown_twice_in_child() {
  g_calls.clear();
  audio_exit_set(0);
  const int first = qb_audio_shutdown_steps(kTestList, kTestRows);
  const bool exit_set = audio_exit_get() == 1;
  const int second = qb_audio_shutdown_steps(kTestList, kTestRows);
  std::_Exit((first == 1 && second == 0 && exit_set && g_calls == kStopOrder) ? 0 : 1);
}

TEST(FrameShutdownDeathTest, StepsRunOnceInReverseOrder) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(shutdown_twice_in_child(), ::testing::ExitedWithCode(0), "");
}

TEST(DiffTime, TracesIntervalsAndLimits) {
  set_diff_time(4, DIFF_TM_START, "a");  // outside the four traces: ignored
  set_diff_time(-1, DIFF_TM_START, "a");
  EXPECT_EQ(get_diff_time(4), "");
  EXPECT_EQ(diff_time_snapshot(4).s32ElemCount, 0);
  testing::internal::CaptureStdout();
  set_diff_time(0, DIFF_TM_START, std::string(200, 'x').c_str());
  set_diff_time(1, DIFF_TM_END, "first-and-last");  // one point: nothing printed
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(get_diff_time(0), "");  // fewer than two points: no intervals
  EXPECT_EQ(std::string(diff_time_snapshot(0).stDiffTmElem[0].str), std::string(DIFF_TM_NAME_MAX - 1, 'x'));

  set_diff_time(2, DIFF_TM_START, "open");
  std::this_thread::sleep_for(std::chrono::milliseconds(3));
  set_diff_time(2, DIFF_TM_POINT, "params");
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  testing::internal::CaptureStdout();
  set_diff_time(2, DIFF_TM_END, "first-write");
  const std::string printed = testing::internal::GetCapturedStdout();
  long first = -1, second = -1;
  int used = 0;
  ASSERT_EQ(std::sscanf(printed.c_str(), "\nopen-->params : %ld\nparams-->first-write : %ld\n\n%n", &first, &second, &used), 2)
      << printed;
  EXPECT_EQ(static_cast<size_t>(used), printed.size()) << printed;
  EXPECT_GE(first, 3000);
  EXPECT_GE(second, 2000);
  const std::string text = get_diff_time(2);
  char tail = 0;
  ASSERT_EQ(std::sscanf(text.c_str(), "[%ld-%ld-%c", &first, &second, &tail), 3) << text;
  EXPECT_EQ(tail, ']');
  EXPECT_GE(first, 3000);

  set_diff_time(3, DIFF_TM_START, "s");
  for (int i = 0; i < 150; ++i) set_diff_time(3, DIFF_TM_POINT, "p");
  EXPECT_EQ(diff_time_snapshot(3).s32ElemCount, DIFF_TM_ELEM_MAX);
  set_diff_time(3, DIFF_TM_START, "again");  // a new trace
  EXPECT_EQ(diff_time_snapshot(3).s32ElemCount, 1);
  EXPECT_STREQ(diff_time_snapshot(3).stDiffTmElem[0].str, "again");
}

TEST(MulticastRoute, AddAndRemoveWriteTheGroupToTheSwitchDriver) {
  const std::string dir = "/sys/devices/platform/soc@0/soc@0:bus@30800000/30a30000.i2c/i2c-1/1-005c/";
  {
    am_test::TempRoot root;  // no switch driver: the shell's redirection fails, not reported
    EXPECT_EQ(set_mcast_route_rtl8364("234.48.0.1"), 0);
    EXPECT_EQ(del_mcast_route_rtl8364("234.48.0.1"), 0);
  }
  am_test::TempRoot root;
  ASSERT_TRUE(am_test::make_dirs(root.at(dir)));
  for (const char* empty : {"", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(set_mcast_route_rtl8364(empty), -1);
    EXPECT_EQ(del_mcast_route_rtl8364(empty), -1);
  }
  EXPECT_EQ(am_test::read_file(root.at(dir + "set_mcastaddr")) + am_test::read_file(root.at(dir + "del_mcastaddr")), "");
  EXPECT_EQ(set_mcast_route_rtl8364("234.52.229.246"), 0);
  EXPECT_EQ(del_mcast_route_rtl8364("234.52.229.246"), 0);
  EXPECT_EQ(am_test::read_file(root.at(dir + "set_mcastaddr")), "234.52.229.246 1\n");
  EXPECT_EQ(am_test::read_file(root.at(dir + "del_mcastaddr")), "234.52.229.246\n");
}

TEST(AudioInfoFile, RoundTripShortReadAndRefusals) {
  am_test::TempRoot root({"tmp"});
  qb_audio_info recs[2] = {make_record(14, 8, 0xC0, 1), make_record(2, 2, 0x80)};
  qb_audio_info back[2];
  std::memset(back, 0, sizeof back);
  struct stat st;
  EXPECT_EQ(audio_info_to_flash("/tmp/ainfo.bin", &recs[0], 0), -1);
  EXPECT_EQ(audio_info_to_flash("/tmp/ainfo.bin", nullptr, 20), -1);
  EXPECT_EQ(audio_info_to_flash(nullptr, &recs[0], 20), -1);
  EXPECT_NE(stat(root.at("/tmp/ainfo.bin").c_str(), &st), 0);  // no file created
  EXPECT_EQ(audio_info_to_flash("/tmp/ainfo.bin", recs, 40), 40);
  EXPECT_EQ(audio_info_to_flash("/tmp/ainfo.bin", &recs[1], 20), 20);  // truncates
  ASSERT_EQ(stat(root.at("/tmp/ainfo.bin").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 20);  // raw bytes, no header
  EXPECT_EQ(audio_info_from_flash("/tmp/ainfo.bin", back, 40), 20);
  EXPECT_EQ(std::memcmp(&back[0], &recs[1], 20), 0);
  EXPECT_EQ(audio_info_from_flash("/tmp/ainfo.bin", back, -1), -1);
  EXPECT_EQ(audio_info_from_flash("/tmp/missing.bin", back, 20), -1);
  EXPECT_EQ(audio_info_to_flash("/nodir/x.bin", back, 20), -1);
}

int open_fds() {
  int n = 0;
  DIR* d = opendir("/proc/self/fd");
  if (d == nullptr) return -1;
  while (readdir(d) != nullptr) ++n;
  closedir(d);
  return n;
}

TEST(MacIdentity, Eth0OfTheNamespaceAndNone) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  am_test::NetNs with_eth0, without;
  ASSERT_TRUE(with_eth0.ok() && without.ok());
  const std::string pre = with_eth0.exec_prefix();
  ASSERT_EQ(std::system((pre + "ip link add eth0 type veth peer name eth1").c_str()), 0);
  ASSERT_EQ(std::system((pre + "ip link set eth0 address 02:1a:2b:3c:4d:5e").c_str()), 0);
  EXPECT_EQ(with_eth0.run([] {
              const int before = open_fds();
              char full[13], part[7];
              if (get_mac(full, sizeof full) != 12 || std::string(full) != "021a2b3c4d5e") return 1;
              if (get_mac(part, sizeof part) != 12 || std::string(part) != "021a2b") return 2;
              return open_fds() == before ? 0 : 3;  // the query socket is released
            }), 0);
  EXPECT_EQ(without.run([] {
              const int before = open_fds();
              char buf[13] = "unchanged";
              if (get_mac(buf, sizeof buf) != -1) return 1;
              return (open_fds() == before && std::string(buf) == "unchanged") ? 0 : 2;
            }), 0);
}

}  // namespace
}  // namespace am_unit
