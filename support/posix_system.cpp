#include "posix_system.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "am_platform.h"

extern char** environ;

namespace {

// Longest command line accepted once the program path is relocated.
constexpr size_t kCommandMax = 4096;
// The shell that runs a command line, as system() runs it.
constexpr const char* kShell = "/bin/sh";
// The helper inherits standard input, output and error, and nothing above them.
constexpr int kFirstClosedFd = STDERR_FILENO + 1;

// Starts the shell on the command line with every descriptor above standard error closed, and
// waits for it; the result reads like system()'s.
int run_shell(const char* command_line) {
  posix_spawn_file_actions_t actions;
  if (posix_spawn_file_actions_init(&actions) != 0) {
    return -1;
  }
  posix_spawn_file_actions_addclosefrom_np(&actions, kFirstClosedFd);
  char sh[] = "sh";
  char dash_c[] = "-c";
  char* argv[] = {sh, dash_c, const_cast<char*>(command_line), nullptr};
  pid_t pid = -1;
  const int err = posix_spawn(&pid, kShell, &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (err != 0) {
    return -1;
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      return -1;
    }
  }
  return status;
}

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
  const int result = run_shell(resolved);
  sigaction(SIGCHLD, &old, nullptr);
  return result;
}
