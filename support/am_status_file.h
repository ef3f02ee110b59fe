// Status files that other programs read while the daemons rewrite them ("/tmp/pktdrop.json",
// "/tmp/genlock.json"): a reader sees the old text or the new one, whole, never a part of one.
#pragma once

#include <sys/types.h>

#include <cstddef>

// Replaces the file at the board path `path` with `len` bytes of `data`. The bytes go to
// `tmp_path`, a board path in the same folder (created with `mode`, truncated, close-on-exec),
// which is then renamed over `path`; nothing is synced to the disk. When the temporary file
// cannot be created, takes fewer bytes than given (a full disk) or cannot be closed or renamed,
// the failure is logged, the temporary file is removed and `path` keeps its old content.
// 0; -1 on failure.
int am_status_file_replace(const char* path, const char* tmp_path, const void* data, size_t len,
                           mode_t mode);
