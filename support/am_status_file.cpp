#include "am_status_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "am_log.h"
#include "am_platform.h"

namespace {

// Writes all len bytes, again after a short write or a signal; the bytes written.
size_t write_fully(int fd, const char* data, size_t len) {
  size_t done = 0;
  while (done < len) {
    const ssize_t n = write(fd, data + done, len - done);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      break;  // ENOSPC, EIO ...: the caller keeps the old file
    }
    done += static_cast<size_t>(n);
  }
  return done;
}

}  // namespace

int am_status_file_replace(const char* path, const char* tmp_path, const void* data, size_t len,
                           mode_t mode) {
  if (path == nullptr || tmp_path == nullptr || (data == nullptr && len > 0)) {
    return -1;
  }
  const std::string file = am_path(path);
  const std::string tmp = am_path(tmp_path);
  const int fd = open(tmp.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) {
    AM_LOG_ERROR("open %s err", tmp.c_str());
    return -1;
  }
  const size_t written = write_fully(fd, static_cast<const char*>(data), len);
  const bool closed = close(fd) == 0;
  if (written != len || !closed) {
    AM_LOG_ERROR("write %d return %d", static_cast<int>(len), static_cast<int>(written));
    unlink(tmp.c_str());
    return -1;
  }
  if (rename(tmp.c_str(), file.c_str()) != 0) {
    AM_LOG_ERROR("rename %s to %s err", tmp.c_str(), file.c_str());
    unlink(tmp.c_str());
    return -1;
  }
  return 0;
}
