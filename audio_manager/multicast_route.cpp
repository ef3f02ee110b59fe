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

// Writes "<group><suffix>" to the attribute through the shell; -1 when the command line does not
// fit (a long board root), rather than running a cut-off command.
int write_attribute(const char* attribute, const char* ipaddr, const char* suffix) {
  char command[kCommandSize] = {};
  const int n = std::snprintf(command, sizeof command, "echo %s%s > %s", ipaddr, suffix,
                              attribute_path(attribute).c_str());
  if (n < 0 || static_cast<size_t>(n) >= sizeof command) {
    return -1;
  }
  posix_system(command);
  return 0;
}

}  // namespace

int set_mcast_route_rtl8364(const char* ipaddr) {
  if (ipaddr == nullptr || ipaddr[0] == '\0') {
    return -1;
  }
  // The switch driver's answer is not checked: the group is asked for again on the next run.
  return write_attribute(kSetAttribute, ipaddr, " 1");
}

int del_mcast_route_rtl8364(const char* ipaddr) {
  if (ipaddr == nullptr || ipaddr[0] == '\0') {
    return -1;
  }
  return write_attribute(kDelAttribute, ipaddr, "");
}
