// Small utilities: a raw byte image saved to a file and read back, and the MAC of "eth0".
#include "qb_audio_misc_util.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "am_log.h"
#include "am_platform.h"

namespace {

constexpr const char* kMacInterface = "eth0";
constexpr int kMacTextLen = 12;

// Opens path in mode and moves count bytes with io(file, count). Bytes moved, or -1.
template <typename Io>
int with_file(const char* path, const void* data, int count, const char* mode, Io io) {
  if (path == nullptr || data == nullptr || count <= 0) {
    return -1;
  }
  FILE* fp = std::fopen(am_path(path).c_str(), mode);
  if (fp == nullptr) {
    AM_LOG_ERROR("fopen %s error!!!", path);
    return -1;
  }
  const size_t moved = io(fp, static_cast<size_t>(count));
  std::fclose(fp);  // flushes a write
  return static_cast<int>(moved);
}

}  // namespace

// The file and the records in it are the caller's choice; the path is a board path.
int audio_info_to_flash(const char* path, const void* data, int count) {
  return with_file(path, data, count, "w+e",
                   [data](FILE* fp, size_t n) { return std::fwrite(data, 1, n, fp); });
}

int audio_info_from_flash(const char* path, void* data, int count) {
  return with_file(path, data, count, "re",
                   [data](FILE* fp, size_t n) { return std::fread(data, 1, n, fp); });
}

int get_mac(char* buf, size_t size) {
  if (buf == nullptr || size == 0) {
    return -1;
  }
  const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (sock < 0) {
    AM_LOG_ERROR("socket err");
    return -1;
  }
  struct ifreq ifr{};
  std::strncpy(ifr.ifr_name, kMacInterface, IFNAMSIZ - 1);
  const int queried = ioctl(sock, SIOCGIFHWADDR, &ifr);
  close(sock);
  if (queried < 0) {
    AM_LOG_ERROR("ioctl err");
    return -1;
  }
  const auto* mac = reinterpret_cast<const unsigned char*>(ifr.ifr_hwaddr.sa_data);
  std::snprintf(buf, size, "%02x%02x%02x%02x%02x%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                mac[5]);
  return kMacTextLen;
}
