// Small utilities: a raw byte image saved to a file and read back, and the MAC of "eth0".
#include "qb_audio_misc_util.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "am_log.h"
#include "am_platform.h"

namespace {

constexpr const char* kMacInterface = "eth0";
constexpr int kMacTextLen = 12;

// Closes a descriptor when it goes out of scope.
class scoped_fd {
 public:
  explicit scoped_fd(int fd) : fd_(fd) {}
  ~scoped_fd() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  scoped_fd(const scoped_fd&) = delete;
  scoped_fd& operator=(const scoped_fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

FILE* open_file(const char* path, const char* mode) {
  FILE* fp = std::fopen(am_path(path).c_str(), mode);
  if (fp == nullptr) {
    AM_LOG_ERROR("fopen %s error!!!", path);
  }
  return fp;
}

}  // namespace

// The file and the records in it are the caller's choice; the path is a board path.
int audio_info_to_flash(const char* path, const void* data, int count) {
  if (path == nullptr || data == nullptr || count <= 0) {
    return -1;
  }
  FILE* fp = open_file(path, "w+e");
  if (fp == nullptr) {
    return -1;
  }
  const size_t written = std::fwrite(data, 1, static_cast<size_t>(count), fp);
  std::fflush(fp);
  std::fclose(fp);
  return static_cast<int>(written);
}

int audio_info_from_flash(const char* path, void* data, int count) {
  if (path == nullptr || data == nullptr || count <= 0) {
    return -1;
  }
  FILE* fp = open_file(path, "re");
  if (fp == nullptr) {
    return -1;
  }
  const size_t got = std::fread(data, 1, static_cast<size_t>(count), fp);
  std::fclose(fp);
  return static_cast<int>(got);
}

// The query socket is released on every path (scoped_fd).
int get_mac(char* buf, size_t size) {
  if (buf == nullptr || size == 0) {
    return -1;
  }
  scoped_fd sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (sock.get() < 0) {
    AM_LOG_ERROR("socket err");
    return -1;
  }
  struct ifreq ifr;
  std::memset(&ifr, 0, sizeof ifr);
  std::strncpy(ifr.ifr_name, kMacInterface, IFNAMSIZ - 1);
  if (ioctl(sock.get(), SIOCGIFHWADDR, &ifr) < 0) {
    AM_LOG_ERROR("ioctl err");
    return -1;
  }
  const auto* mac = reinterpret_cast<const unsigned char*>(ifr.ifr_hwaddr.sa_data);
  std::snprintf(buf, size, "%02x%02x%02x%02x%02x%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                mac[5]);
  return kMacTextLen;
}
