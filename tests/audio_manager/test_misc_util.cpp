// Saved audio records (raw bytes, no header) and the MAC text of "eth0".
#include <sys/stat.h>

#include "am_unit.h"
#include "qb_audio_misc_util.h"

namespace am_unit {
namespace {

TEST(AudioInfoFile, RoundTripShortReadAndRefusals) {
  am_test::TempRoot root({"tmp"});
  const qb_audio_info recs[2] = {make_record(14, 8, 0xC0, 1), make_record(2, 2, 0x80)};
  qb_audio_info back[2] = {};
  struct stat st;
  EXPECT_EQ(audio_info_to_flash("/tmp/ainfo.bin", &recs[0], 0) + audio_info_to_flash("/tmp/ainfo.bin", nullptr, 20) +
                audio_info_to_flash(nullptr, &recs[0], 20), -3);
  EXPECT_NE(stat(root.at("/tmp/ainfo.bin").c_str(), &st), 0);  // no file created
  EXPECT_EQ(audio_info_to_flash("/tmp/ainfo.bin", recs, 40), 40);
  EXPECT_EQ(audio_info_to_flash("/tmp/ainfo.bin", &recs[1], 20), 20);  // truncates
  EXPECT_EQ(audio_info_from_flash("/tmp/ainfo.bin", back, 40), 20);
  EXPECT_TRUE(same(back[0], recs[1]));
  EXPECT_EQ(audio_info_from_flash("/tmp/ainfo.bin", back, -1) + audio_info_from_flash("/tmp/missing.bin", back, 20) +
                audio_info_to_flash("/nodir/x.bin", back, 20), -3);
}

// get_mac in a named namespace the test thread joins, with and without an "eth0".
TEST(MacIdentity, Eth0OfTheNamespaceAndNone) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  am_test::NetNs ns;
  ASSERT_TRUE(ns.ok());
  const int home = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC), there = open(("/run/netns/" + ns.name()).c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(setns(there, CLONE_NEWNET), 0);
  char buf[13] = "unchanged";
  const int without = get_mac(buf, sizeof buf);
  am_test::shell("ip -n " + ns.name() + " link add eth0 address 02:1a:2b:3c:4d:5e type veth peer name eth1");
  char full[13], part[7];
  const std::vector<int> got = {without, get_mac(full, sizeof full), get_mac(part, sizeof part), get_mac(nullptr, 4)};
  setns(home, CLONE_NEWNET);
  close(home), close(there);
  EXPECT_EQ(got, (std::vector<int>{-1, 12, 12, -1}));
  EXPECT_EQ(std::string(buf) + " " + full + " " + part, "unchanged 021a2b3c4d5e 021a2b");
}

}  // namespace
}  // namespace am_unit
