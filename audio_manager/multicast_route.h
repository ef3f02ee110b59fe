// Multicast forwarding in the board's Ethernet switch, through the switch driver's sysfs
// attributes.
#pragma once

inline constexpr const char* MCAST_ROUTE_SYSFS_DIR =
    "/sys/devices/platform/soc@0/soc@0:bus@30800000/30a30000.i2c/i2c-1/1-005c/";

// Asks the switch to forward a group. 0, or -1 for a null or empty address.
int set_mcast_route_rtl8364(const char* ipaddr);
// Removes a group's forwarding. 0, or -1 for a null or empty address.
int del_mcast_route_rtl8364(const char* ipaddr);
