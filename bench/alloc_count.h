// Counting allocator (libam_alloc_count.so): linked into a benchmark, or preloaded into a daemon
// with AM_ALLOC_COUNT_CTL naming the control file (see alloc_count.cpp).
#pragma once

extern "C" {
// Resets every count and counts from now on.
void am_alloc_count_start();
// Stops counting (the counts stay readable).
void am_alloc_count_stop();
// Allocations counted on the calling thread since the last start.
unsigned long am_alloc_count_of_thread();
}
