#include "posix_system.h"

#include <csignal>
#include <cstdlib>

#include "am_platform.h"

namespace {
// Longest command line accepted once the program path is relocated.
constexpr size_t kCommandMax = 4096;
}  // namespace

int posix_system(const char* command) {
  if (command == nullptr || command[0] == '\0') {
    return -1;
  }
  char resolved[kCommandMax];
  if (!am_resolve_command(command, resolved, sizeof resolved)) {
    return -1;
  }
  struct sigaction dfl = {};
  struct sigaction old = {};
  dfl.sa_handler = SIG_DFL;
  sigemptyset(&dfl.sa_mask);
  sigaction(SIGCHLD, &dfl, &old);
  const int result = std::system(resolved);
  sigaction(SIGCHLD, &old, nullptr);
  return result;
}
