// Multicast forwarding in the board's Ethernet switch: a group is added or removed by writing it
// to the switch driver's sysfs attributes through the shell.
#include "multicast_route.h"

#include <cstdio>
#include <string>

#include "am_platform.h"
#include "posix_system.h"

namespace {

constexpr const char* kSetAttribute = "set_mcastaddr";
constexpr const char* kDelAttribute = "del_mcastaddr";
constexpr size_t kCommandSize = 512;

// The attribute's path on this board (under the root when relocated).
std::string attribute_path(const char* attribute) {
  return am_path((std::string(MCAST_ROUTE_SYSFS_DIR) + attribute).c_str());
}

}  // namespace

int set_mcast_route_rtl8364(const char* ipaddr) {
  if (ipaddr == nullptr || ipaddr[0] == '\0') {
    return -1;
  }
  char command[kCommandSize] = {};
  std::snprintf(command, sizeof command, "echo %s 1 > %s", ipaddr,
                attribute_path(kSetAttribute).c_str());
  // The switch driver's answer is not checked: the group is asked for again on the next run.
  posix_system(command);
  return 0;
}

int del_mcast_route_rtl8364(const char* ipaddr) {
  if (ipaddr == nullptr || ipaddr[0] == '\0') {
    return -1;
  }
  char command[kCommandSize] = {};
  std::snprintf(command, sizeof command, "echo %s > %s", ipaddr,
                attribute_path(kDelAttribute).c_str());
  posix_system(command);
  return 0;
}
