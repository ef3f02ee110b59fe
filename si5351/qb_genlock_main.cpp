// qb_genlock: the genlock service process. It owns the Si5351 clock synthesiser, programs its
// power-up table and serves the genlock requests of the audio playback engines on
// 127.0.0.1:11000 until SIGTERM, SIGINT or SIGTSTP. Under systemd it says READY=1 once the chip is
// initialised and the service socket is bound, and STOPPING=1 when a signal ends it.
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "am_log.h"
#include "am_notify.h"
#include "qb_si5351.h"

namespace {

constexpr const char* QB_GENLOCK_LOG_CONF = "/config/logconf/qb_genlock.conf";

// Signals that end the service, as they end audio_manager.
constexpr int kTerminationSignals[] = {SIGTERM, SIGINT, SIGTSTP};

std::atomic<bool> g_exit_requested{false};
// Wakes the main thread: written by the signal handler and by the service thread once its socket
// is bound.
int g_wake_fd = -1;

void wake_main() {
  const int saved_errno = errno;
  const uint64_t one = 1;
  (void)!write(g_wake_fd, &one, sizeof one);
  errno = saved_errno;
}

void on_terminate(int /*sig*/) {
  g_exit_requested.store(true);
  wake_main();
}

void install_handlers() {
  struct sigaction action;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  action.sa_handler = on_terminate;
  for (const int signo : kTerminationSignals) {
    sigaction(signo, &action, nullptr);
  }
}

}  // namespace

int main() {
  static_assert(std::atomic<bool>::is_always_lock_free, "signal handler needs a lock-free flag");
  am_log_configure(QB_GENLOCK_LOG_CONF);
  g_wake_fd = eventfd(0, EFD_CLOEXEC);
  if (g_wake_fd < 0) {
    AM_LOG_ERROR("eventfd err, errno %d", errno);
    return 1;
  }
  install_handlers();
  si5351_svr_on_open_set(wake_main);
  if (qb_si5351_start2() != 0) {
    return 1;
  }
  bool ready = false;
  while (!g_exit_requested.load()) {
    // qb_si5351_start2 has programmed the chip; the service thread binds its socket soon after.
    if (!ready && si5351_svr_is_open()) {
      am_notify_ready();
      ready = true;
    }
    uint64_t wakes = 0;
    (void)!read(g_wake_fd, &wakes, sizeof wakes);  // blocks until a signal or the bound socket
  }
  am_notify_stopping();
  AM_LOG_INFO("qb_genlock exit");
  fflush(stdout);
  // The service thread has no stop operation and is still running: leave without running static
  // destructors under its feet.
  _exit(0);
}
