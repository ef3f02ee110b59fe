#include "am_notify.h"

#if AM_HAVE_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace {

void notify(const char* state) {
#if AM_HAVE_SYSTEMD
  // NOTIFY_SOCKET stays set: STOPPING=1 follows READY=1. Helper programs inherit it, but the
  // units accept notices from the main process only (NotifyAccess=main).
  (void)sd_notify(0, state);
#else
  (void)state;
#endif
}

}  // namespace

void am_notify_ready(void) { notify("READY=1"); }

void am_notify_stopping(void) { notify("STOPPING=1"); }
