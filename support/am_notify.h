// Readiness and stop notices to the service manager. Both daemons run as Type=notify units: they
// say READY=1 once they serve requests and STOPPING=1 when their shutdown begins. Without
// NOTIFY_SOCKET in the environment (started by hand or by a test) the calls do nothing; builds
// without libsystemd (a cross build whose target library is missing) compile them to nothing.
#pragma once

// "READY=1": start-up is complete.
void am_notify_ready(void);
// "STOPPING=1": the shutdown has begun.
void am_notify_stopping(void);
