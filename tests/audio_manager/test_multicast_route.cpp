// Multicast forwarding requests to the switch driver's sysfs attributes.
#include <gtest/gtest.h>

#include <string>

#include "am_test_env.h"
#include "multicast_route.h"

namespace {

const std::string kDir = "/sys/devices/platform/soc@0/soc@0:bus@30800000/30a30000.i2c/i2c-1/1-005c/";

TEST(MulticastRoute, AddAndRemoveWriteTheGroupToTheAttributes) {
  am_test::TempRoot root;
  ASSERT_TRUE(am_test::make_dirs(root.at(kDir)));
  for (const char* empty : {"", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(set_mcast_route_rtl8364(empty), -1);
    EXPECT_EQ(del_mcast_route_rtl8364(empty), -1);
  }
  EXPECT_EQ(am_test::read_file(root.at(kDir + "set_mcastaddr")), "");  // nothing was run
  EXPECT_EQ(am_test::read_file(root.at(kDir + "del_mcastaddr")), "");
  EXPECT_EQ(set_mcast_route_rtl8364("234.52.229.246"), 0);
  EXPECT_EQ(del_mcast_route_rtl8364("234.52.229.246"), 0);
  EXPECT_EQ(am_test::read_file(root.at(kDir + "set_mcastaddr")), "234.52.229.246 1\n");
  EXPECT_EQ(am_test::read_file(root.at(kDir + "del_mcastaddr")), "234.52.229.246\n");
}

TEST(MulticastRoute, DriverFailureIsNotReported) {
  am_test::TempRoot root;  // no switch driver: the shell's redirection fails
  EXPECT_EQ(set_mcast_route_rtl8364("234.48.0.1"), 0);
  EXPECT_EQ(del_mcast_route_rtl8364("234.48.0.1"), 0);
}

}  // namespace
