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

TEST(AudioInfoFile, RoundTripShortReadAndRefusals) {
  am_test::TempRoot root({"tmp"});
  LogRecorder log;
  qb_audio_info recs[2] = {make_record(14, 8, 0xC0, 1), make_record(2, 2, 0x80)};
  struct stat st;
  EXPECT_EQ(audio_info_to_flash("/tmp/ainfo.bin", &recs[0], 0), -1);
  EXPECT_EQ(audio_info_to_flash("/tmp/ainfo.bin", nullptr, 20), -1);
  EXPECT_EQ(audio_info_to_flash(nullptr, &recs[0], 20), -1);
  EXPECT_NE(stat(root.at("/tmp/ainfo.bin").c_str(), &st), 0);  // no file created

  EXPECT_EQ(audio_info_to_flash("/tmp/ainfo.bin", &recs[0], 20), 20);
  ASSERT_EQ(stat(root.at("/tmp/ainfo.bin").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 20);  // raw bytes, no header
  qb_audio_info back[2];
  std::memset(back, 0, sizeof back);
  EXPECT_EQ(audio_info_from_flash("/tmp/ainfo.bin", back, 40), 20);
  EXPECT_EQ(std::memcmp(&back[0], &recs[0], 20), 0);
  EXPECT_EQ(audio_info_to_flash("/tmp/ainfo.bin", recs, 40), 40);
  EXPECT_EQ(audio_info_to_flash("/tmp/ainfo.bin", &recs[1], 20), 20);  // truncates
  EXPECT_EQ(audio_info_from_flash("/tmp/ainfo.bin", back, 40), 20);
  EXPECT_EQ(std::memcmp(&back[0], &recs[1], 20), 0);
  EXPECT_EQ(audio_info_from_flash("/tmp/ainfo.bin", back, -1), -1);

  EXPECT_EQ(audio_info_from_flash("/tmp/missing.bin", back, 20), -1);
  EXPECT_TRUE(log.has("fopen /tmp/missing.bin error!!!", AM_LOG_LEVEL_ERROR));
  EXPECT_EQ(audio_info_to_flash("/nodir/x.bin", back, 20), -1);
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

TEST(MacIdentity, Eth0OfTheNamespaceAndNone) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  am_test::NetNs with_eth0;
  am_test::NetNs without;
  ASSERT_TRUE(with_eth0.ok() && without.ok());
  const std::string pre = with_eth0.exec_prefix();
  ASSERT_EQ(std::system((pre + "ip link add eth0 type veth peer name eth1").c_str()), 0);
  ASSERT_EQ(std::system((pre + "ip link set eth0 address 02:1a:2b:3c:4d:5e").c_str()), 0);
  EXPECT_EQ(with_eth0.run([] {
              const int before = open_fds();
              char full[13];
              char part[7];
              std::memset(full, 'x', sizeof full);
              if (get_mac(full, sizeof full) != 12 || std::string(full) != "021a2b3c4d5e") return 1;
              if (get_mac(part, sizeof part) != 12 || std::string(part) != "021a2b") return 2;
              return open_fds() == before ? 0 : 3;  // the query socket is released
            }),
            0);
  EXPECT_EQ(without.run([] {
              LogRecorder log;
              const int before = open_fds();
              char buf[13] = "unchanged";
              if (get_mac(buf, sizeof buf) != -1 || !log.has("ioctl err", AM_LOG_LEVEL_ERROR)) return 1;
              return (open_fds() == before && std::string(buf) == "unchanged") ? 0 : 2;
            }),
            0);
}

}  // namespace
