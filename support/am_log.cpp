#include "am_log.h"

#include <atomic>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <string>

#include <log4cpp/Category.hh>
#include <log4cpp/OstreamAppender.hh>
#include <log4cpp/PatternLayout.hh>
#include <log4cpp/PropertyConfigurator.hh>

#include "am_platform.h"

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

}  // namespace

int am_log_configure(const char* property_file) {
  const std::string path = am_path(property_file);
  try {
    log4cpp::PropertyConfigurator::configure(path);
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
