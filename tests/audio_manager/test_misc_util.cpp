// Audio info persistence and the MAC of "eth0" (inside network namespaces of the test's own).
#include <dirent.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "qb_audio_misc_util.h"
#include "test_misc_helpers.h"

namespace {

using routing_test::LogRecorder;
using routing_test::make_record;

TEST(AudioInfoFile, RefusesEmptyRequestsWithoutCreatingAFile) {
  am_test::TempRoot root({"tmp"});
  const qb_audio_info rec = make_record(2, 2, 0x80);
  EXPECT_EQ(audio_info_to_flash("/tmp/ainfo.bin", &rec, 0), -1);
  EXPECT_EQ(audio_info_to_flash("/tmp/ainfo.bin", nullptr, 20), -1);
  EXPECT_EQ(audio_info_to_flash(nullptr, &rec, 20), -1);
  struct stat st;
  EXPECT_NE(stat(root.at("/tmp/ainfo.bin").c_str(), &st), 0);
  qb_audio_info back;
  EXPECT_EQ(audio_info_from_flash("/tmp/ainfo.bin", &back, -1), -1);
}

TEST(AudioInfoFile, RecordRoundTripAndShortRead) {
  am_test::TempRoot root({"tmp"});
  qb_audio_info recs[2] = {make_record(14, 8, 0xC0, 1), make_record(2, 2, 0x80)};
  recs[0].ChStat[3] = 9;
  EXPECT_EQ(audio_info_to_flash("/tmp/ainfo.bin", &recs[0], 20), 20);
  struct stat st;
  ASSERT_EQ(stat(root.at("/tmp/ainfo.bin").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 20);  // raw bytes, no header
  qb_audio_info back[2];
  std::memset(back, 0, sizeof back);
  EXPECT_EQ(audio_info_from_flash("/tmp/ainfo.bin", &back[0], 20), 20);
  EXPECT_EQ(std::memcmp(&back[0], &recs[0], 20), 0);
  EXPECT_EQ(audio_info_from_flash("/tmp/ainfo.bin", back, 40), 20);
  // Saving again truncates.
  EXPECT_EQ(audio_info_to_flash("/tmp/ainfo.bin", recs, 40), 40);
  EXPECT_EQ(audio_info_to_flash("/tmp/ainfo.bin", &recs[1], 20), 20);
  EXPECT_EQ(audio_info_from_flash("/tmp/ainfo.bin", back, 40), 20);
  EXPECT_EQ(std::memcmp(&back[0], &recs[1], 20), 0);
}

TEST(AudioInfoFile, OpenFailureIsLogged) {
  am_test::TempRoot root({"tmp"});
  LogRecorder log;
  char buf[20];
  EXPECT_EQ(audio_info_from_flash("/tmp/missing.bin", buf, 20), -1);
  EXPECT_TRUE(log.has("fopen /tmp/missing.bin error!!!", AM_LOG_LEVEL_ERROR));
  EXPECT_EQ(audio_info_to_flash("/nodir/x.bin", buf, 20), -1);
  EXPECT_TRUE(log.has("fopen /nodir/x.bin error!!!", AM_LOG_LEVEL_ERROR));
}

int open_fds() {
  int n = 0;
  DIR* d = opendir("/proc/self/fd");
  if (d == nullptr) return -1;
  while (readdir(d) != nullptr) ++n;
  closedir(d);
  return n;
}

TEST(MacIdentity, ReadsEth0OfTheNamespace) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  am_test::NetNs ns;
  ASSERT_TRUE(ns.ok());
  const std::string pre = ns.exec_prefix();
  ASSERT_EQ(std::system((pre + "ip link add eth0 type veth peer name eth1").c_str()), 0);
  ASSERT_EQ(std::system((pre + "ip link set eth0 address 02:1a:2b:3c:4d:5e").c_str()), 0);
  const int rc = ns.run([] {
    const int before = open_fds();
    char full[13];
    std::memset(full, 'x', sizeof full);
    if (get_mac(full, sizeof full) != 12) return 1;
    if (std::string(full) != "021a2b3c4d5e") return 2;
    char part[7];
    if (get_mac(part, sizeof part) != 12) return 3;
    if (std::string(part) != "021a2b") return 4;
    if (open_fds() != before) return 5;  // the query socket is released
    return 0;
  });
  EXPECT_EQ(rc, 0);
}

TEST(MacIdentity, WithoutEth0) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  am_test::NetNs ns;
  ASSERT_TRUE(ns.ok());
  const int rc = ns.run([] {
    LogRecorder log;
    const int before = open_fds();
    char buf[13] = "unchanged";
    if (get_mac(buf, sizeof buf) != -1) return 1;
    if (!log.has("ioctl err", AM_LOG_LEVEL_ERROR)) return 2;
    if (open_fds() != before) return 3;
    if (std::string(buf) != "unchanged") return 4;
    return 0;
  });
  EXPECT_EQ(rc, 0);
}

}  // namespace
