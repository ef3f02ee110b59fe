// Shared by the fuzz targets: a board root in a fresh temporary folder (AUDIO_MANAGER_ROOT), in
// memory when we may, with emulated I2C buses, a private network namespace with its loopback up,
// logging formatted but not written, and no child programs or pauses. Each target includes it once.
#pragma once

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <log4cpp/Category.hh>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "am_log.h"
#include "am_platform.h"

// Commands for helper programs (the codec, multicast routes, the debug marker) are resolved under
// the root as the daemon resolves them, but never run: a fuzz run does not fork.
int posix_system(const char* command) {
  char resolved[4096];
  return command != nullptr && command[0] != '\0' && am_resolve_command(command, resolved, sizeof resolved) ? 0 : -1;
}

// The daemon's settle pauses only give other threads time; a fuzz run has none of them.
extern "C" int usleep(useconds_t) { return 0; }

namespace fuzz_board {

inline std::string g_root;

inline void write(const std::string& board_path, const std::string& content) {
  const std::filesystem::path path = g_root + board_path;
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

inline void loopback_up() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  struct ifreq ifr {};
  std::strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
  if (fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &ifr) == 0) {
    ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP);
    (void)ioctl(fd, SIOCSIFFLAGS, &ifr);
  }
  if (fd >= 0) close(fd);
}

// A TR-A board: boardInfo.json, empty register files for both I2C buses, /tmp, /customer/bin
// (empty: helper programs are absent). Removed again when the process exits normally.
inline void setup() {
  char tmpl[] = "/tmp/am_fuzz_XXXXXX";
  if (mkdtemp(tmpl) == nullptr) std::abort();
  g_root = tmpl;
  // The root on a memory file system of a mount namespace of our own when we may (root): the
  // emulated buses and status files are opened, written and replaced for every request.
  if (unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0)
    (void)mount("tmpfs", tmpl, "tmpfs", 0, nullptr);
  setenv(AM_ROOT_ENV, g_root.c_str(), 1);
  am_platform_reload();
  write("/misc/boardInfo.json", "{\"modelNumber\": \"TR-A\"}");
  for (const char* bus : {"/dev/i2c-1", "/dev/i2c-2"}) write(bus, "");
  for (const char* dir : {"/tmp", "/customer/bin"}) std::filesystem::create_directories(g_root + dir);
  std::atexit([] { std::error_code ignored; umount2(g_root.c_str(), MNT_DETACH), std::filesystem::remove_all(g_root, ignored); });
  // Datagrams to the peers (bridge services, reports, genlock) stay inside a namespace of our own
  // when we may create one (root); otherwise they go to the host's loopback.
  if (unshare(CLONE_NEWNET) == 0) loopback_up();
  (void)am_log_enabled(AM_LOG_LEVEL_ERROR);  // installs the default appender
  log4cpp::Category::getRoot().setPriority(log4cpp::Priority::FATAL);
}

}  // namespace fuzz_board
