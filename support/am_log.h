// Logging of the daemon and its services: one log4cpp category, "CATEGORY", printf-style, every
// message ending with " --[file:line]". Use the AM_LOG_* macros; a format given to them must not
// carry the ending itself.
#pragma once

#include <cstdarg>

// log4cpp priority values, so callers need not include log4cpp.
enum am_log_level_e {
  AM_LOG_LEVEL_ERROR = 300,
  AM_LOG_LEVEL_WARN = 400,
  AM_LOG_LEVEL_INFO = 600,
  AM_LOG_LEVEL_DEBUG = 700,
};

// Name of the log category every message goes to.
inline constexpr const char* AM_LOG_CATEGORY = "CATEGORY";

// Configures logging from a log4cpp property file, given as an absolute board path (resolved
// under the root). If the file is missing or broken, says so on standard error and logs to
// standard error instead. Returns 0 when the file was used, -1 otherwise.
int am_log_configure(const char* property_file);

// Logs one message at the given level (format already carrying the " --[%s:%u]" ending).
void am_log_write(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void am_log_vwrite(int level, const char* format, va_list args);

// Whether a message at this level would be written (lets callers skip costly formatting).
bool am_log_enabled(int level);

#if defined(__FILE_NAME__)
#define AM_LOG_FILE __FILE_NAME__
#else
#define AM_LOG_FILE __FILE__
#endif

#define AM_LOG_AT(level, fmt, ...) \
  am_log_write((level), fmt " --[%s:%u]", ##__VA_ARGS__, AM_LOG_FILE, static_cast<unsigned>(__LINE__))
#define AM_LOG_INFO(fmt, ...) AM_LOG_AT(AM_LOG_LEVEL_INFO, fmt, ##__VA_ARGS__)
#define AM_LOG_WARN(fmt, ...) AM_LOG_AT(AM_LOG_LEVEL_WARN, fmt, ##__VA_ARGS__)
#define AM_LOG_ERROR(fmt, ...) AM_LOG_AT(AM_LOG_LEVEL_ERROR, fmt, ##__VA_ARGS__)
#define AM_LOG_DEBUG(fmt, ...) AM_LOG_AT(AM_LOG_LEVEL_DEBUG, fmt, ##__VA_ARGS__)

// Tests may observe every formatted message (after the ending is appended). Pass nullptr to stop.
typedef void (*am_log_observer_fn)(int level, const char* message, void* ctx);
void am_log_set_observer(am_log_observer_fn fn, void* ctx);
