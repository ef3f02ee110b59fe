// Runs a shell command with SIGCHLD at its default disposition for the duration of the call.
#pragma once

// The program named by an absolute first word is looked up under the board root (am_platform.h).
// The command inherits standard input, output and error only: every other descriptor is closed
// in the child. Returns the wait status as system() does, or -1 when the command is empty or too
// long or the shell cannot be started.
int posix_system(const char* command);
