#include "am_log.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <set>
#include <string>

#include <log4cpp/Category.hh>
#include <log4cpp/OstreamAppender.hh>
#include <log4cpp/PatternLayout.hh>
#include <log4cpp/PropertyConfigurator.hh>

#include "am_platform.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace {

std::once_flag g_fallback_once;
std::atomic<bool> g_configured{false};

std::mutex g_observer_lock;  // guards g_observer and g_observer_ctx
am_log_observer_fn g_observer = nullptr;
void* g_observer_ctx = nullptr;

// Size of the text buffer a message is formatted into before it is handed on; longer texts are cut.
constexpr size_t kMessageMax = 2048;

void install_stderr_fallback() {
  log4cpp::Category& root = log4cpp::Category::getRoot();
  root.removeAllAppenders();
  auto* appender = new log4cpp::OstreamAppender("stderr", &std::cerr);
  auto* layout = new log4cpp::PatternLayout();
  layout->setConversionPattern("%d{%Y-%m-%d %H:%M:%S.%l} [%p] %m%n");
  appender->setLayout(layout);
  root.addAppender(appender);
  root.setPriority(log4cpp::Priority::INFO);
}

log4cpp::Category& category() {
  if (!g_configured.load(std::memory_order_acquire)) {
    std::call_once(g_fallback_once, [] {
      if (!g_configured.load(std::memory_order_acquire)) {
        install_stderr_fallback();
      }
    });
  }
  return log4cpp::Category::getInstance(AM_LOG_CATEGORY);
}

// Rewrites the absolute file names of the appenders ("...fileName=/tmp/x.log") to lie under the
// board root, so that a relocated daemon never writes into the host's own /tmp. Returns the text.
bool relocate_appender_files(const std::string& path, std::string* text) {
  std::ifstream in(path);
  if (!in) {
    return false;
  }
  std::ostringstream out;
  std::string line;
  while (std::getline(in, line)) {
    const size_t eq = line.find('=');
    const std::string key = eq == std::string::npos ? "" : line.substr(0, eq);
    const bool names_file = key.size() >= 9 && key.compare(key.size() - 9, 9, ".fileName") == 0;
    if (names_file && eq + 1 < line.size() && line[eq + 1] == '/') {
      line = key + "=" + am_path(line.c_str() + eq + 1);
    }
    out << line << '\n';
  }
  *text = out.str();
  return true;
}

// Configures log4cpp from the text of a property file (written to a private temporary file).
void configure_from_text(const std::string& text) {
  char tmp[] = "/tmp/am_logconf_XXXXXX";
  const int fd = mkostemp(tmp, O_CLOEXEC);
  if (fd < 0) {
    throw log4cpp::ConfigureFailure("cannot create a temporary configuration");
  }
  const ssize_t written = write(fd, text.data(), text.size());
  close(fd);
  if (written != static_cast<ssize_t>(text.size())) {
    unlink(tmp);
    throw log4cpp::ConfigureFailure("cannot write a temporary configuration");
  }
  try {
    log4cpp::PropertyConfigurator::configure(tmp);
  } catch (...) {
    unlink(tmp);
    throw;
  }
  unlink(tmp);
}

// The descriptors this process has open now.
std::set<int> open_descriptors() {
  std::set<int> fds;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) {
    return fds;
  }
  const int own = dirfd(dir);
  for (const dirent* entry = readdir(dir); entry != nullptr; entry = readdir(dir)) {
    char* end = nullptr;
    const long fd = std::strtol(entry->d_name, &end, 10);
    if (end != entry->d_name && *end == '\0' && fd != own) {
      fds.insert(static_cast<int>(fd));
    }
  }
  closedir(dir);
  return fds;
}

// The appenders open their files without close-on-exec; a program the daemon starts must not
// inherit them, so every descriptor the configuration opened gets the flag.
void close_on_exec_since(const std::set<int>& before) {
  for (const int fd : open_descriptors()) {
    if (fd > STDERR_FILENO && before.count(fd) == 0) {
      const int flags = fcntl(fd, F_GETFD);
      if (flags >= 0) {
        fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
      }
    }
  }
}

}  // namespace

int am_log_configure(const char* property_file) {
  const std::string path = am_path(property_file);
  const std::set<int> before = open_descriptors();
  try {
    std::string relocated;
    if (!am_root().empty() && relocate_appender_files(path, &relocated)) {
      configure_from_text(relocated);
    } else {
      log4cpp::PropertyConfigurator::configure(path);
    }
    close_on_exec_since(before);
    g_configured.store(true, std::memory_order_release);
    return 0;
  } catch (const log4cpp::ConfigureFailure& failure) {
    std::cerr << "log configuration " << path << " unusable (" << failure.what()
              << "), logging to standard error" << std::endl;
  } catch (const std::exception& failure) {
    std::cerr << "log configuration " << path << " unusable (" << failure.what()
              << "), logging to standard error" << std::endl;
  }
  std::call_once(g_fallback_once, [] {});
  install_stderr_fallback();
  g_configured.store(true, std::memory_order_release);
  return -1;
}

bool am_log_enabled(int level) {
  return category().isPriorityEnabled(level);
}

void am_log_vwrite(int level, const char* format, va_list args) {
  char message[kMessageMax];
  const int n = std::vsnprintf(message, sizeof message, format, args);
  if (n < 0) {
    return;
  }
  {
    std::lock_guard<std::mutex> guard(g_observer_lock);
    if (g_observer != nullptr) {
      g_observer(level, message, g_observer_ctx);
    }
  }
  try {
    category().log(level, "%s", message);
  } catch (...) {
    // a failing appender never takes the daemon down
  }
}

void am_log_write(int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  am_log_vwrite(level, format, args);
  va_end(args);
}

void am_log_set_observer(am_log_observer_fn fn, void* ctx) {
  std::lock_guard<std::mutex> guard(g_observer_lock);
  g_observer = fn;
  g_observer_ctx = ctx;
}
