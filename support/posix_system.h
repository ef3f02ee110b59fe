// Runs a shell command with SIGCHLD at its default disposition for the duration of the call.
#pragma once

// The program named by an absolute first word is looked up under the board root (am_platform.h).
// Returns the result of system(), or -1 when the command is empty or too long.
int posix_system(const char* command);
