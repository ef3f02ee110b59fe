#include "am_platform.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

std::mutex g_root_lock;  // guards g_root and g_loaded
std::string g_root;
bool g_loaded = false;

void load_root_locked() {
  const char* env = std::getenv(AM_ROOT_ENV);
  g_root = (env != nullptr) ? env : "";
  while (!g_root.empty() && g_root.back() == '/') {
    g_root.pop_back();  // "/x/" and "/x" name the same root
  }
  g_loaded = true;
}

}  // namespace

const std::string& am_root() {
  std::lock_guard<std::mutex> guard(g_root_lock);
  if (!g_loaded) {
    load_root_locked();
  }
  return g_root;
}

void am_platform_reload() {
  std::lock_guard<std::mutex> guard(g_root_lock);
  load_root_locked();
}

std::string am_path(const char* abs_path) {
  if (abs_path == nullptr) {
    return std::string();
  }
  if (abs_path[0] != '/') {
    return std::string(abs_path);
  }
  return am_root() + abs_path;
}

char* am_path_buf(const char* abs_path, char* buf, size_t size) {
  if (abs_path == nullptr || buf == nullptr || size == 0) {
    return nullptr;
  }
  const std::string& root = am_root();
  const bool relocate = abs_path[0] == '/';
  const size_t prefix = relocate ? root.size() : 0;
  const size_t len = std::strlen(abs_path);
  if (prefix + len + 1 > size) {
    return nullptr;
  }
  if (prefix > 0) {
    std::memcpy(buf, root.data(), prefix);
  }
  std::memcpy(buf + prefix, abs_path, len + 1);
  return buf;
}

bool am_resolve_command(const char* command, char* out, size_t size) {
  if (command == nullptr || out == nullptr || size == 0) {
    return false;
  }
  const size_t skip = std::strspn(command, " \t");
  const char* word = command + skip;
  const std::string& root = am_root();
  const bool relocate = word[0] == '/' && !root.empty();
  const size_t prefix = relocate ? root.size() : 0;
  const size_t len = std::strlen(command);
  if (prefix + len + 1 > size) {
    return false;
  }
  std::memcpy(out, command, skip);
  if (prefix > 0) {
    std::memcpy(out + skip, root.data(), prefix);
  }
  std::memcpy(out + skip + prefix, word, len - skip + 1);
  return true;
}
