// The host platform seam: every absolute path the daemon touches (devices, sysfs attributes,
// files under /tmp, /misc, /config and the programs under /customer/bin) goes through am_path.
// With AUDIO_MANAGER_ROOT set, "/dev/i2c-2" becomes "$AUDIO_MANAGER_ROOT/dev/i2c-2"; unset, the
// board's real paths are used unchanged.
#pragma once

#include <cstddef>
#include <string>

// Name of the environment variable that relocates the board's file system.
inline constexpr const char* AM_ROOT_ENV = "AUDIO_MANAGER_ROOT";

// The root prefix in force ("" on the board). Read from the environment once; see am_platform_reload.
const std::string& am_root();

// Re-reads AUDIO_MANAGER_ROOT (tests change it between cases).
void am_platform_reload();

// Resolves an absolute path under the root. Relative paths are returned unchanged.
std::string am_path(const char* abs_path);

// Same, into a caller's buffer; returns buf, or nullptr when the result does not fit.
char* am_path_buf(const char* abs_path, char* buf, size_t size);

// Rewrites a shell command whose first word is an absolute program path so that the program is
// looked up under the root; the arguments are kept as they are. Returns false when it does not fit.
bool am_resolve_command(const char* command, char* out, size_t size);
