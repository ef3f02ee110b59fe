// Small utilities of the routing module: a raw byte image saved to a file and read back, and the
// device's own MAC address as a 12-character text.
#pragma once

#include <cstddef>

// Writes count bytes to path (created or truncated). Bytes written, or -1.
int audio_info_to_flash(const char* path, const void* data, int count);
// Reads up to count bytes from path. Bytes read, or -1.
int audio_info_from_flash(const char* path, void* data, int count);
// MAC of "eth0" as "%02x" x 6 into buf (truncated to size). 12, or -1.
int get_mac(char* buf, size_t size);
