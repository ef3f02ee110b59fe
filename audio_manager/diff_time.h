// Time-point tracer: up to four traces of named CLOCK_MONOTONIC points, printed as the intervals
// between consecutive points in microseconds. A diagnostic aid; nothing in the daemon's data path
// calls it.
#pragma once

#include <ctime>
#include <string>

#include "qb_types.h"

typedef enum {
  DIFF_TM_START = 0,
  DIFF_TM_POINT = 1,
  DIFF_TM_END = 2,
  DIFF_TM_BOTTOM = 3,
} DIFF_TM_E;

// Number of traces, and points one trace holds.
inline constexpr int DIFF_TM_TRACE_NUM = 4;
inline constexpr int DIFF_TM_ELEM_MAX = 100;
// Longest point name kept (longer names are cut).
inline constexpr int DIFF_TM_NAME_MAX = 64;

typedef struct {
  struct timespec tm;
  char str[DIFF_TM_NAME_MAX];
} DIFF_TM_ELEM_T;

typedef struct {
  DIFF_TM_ELEM_T stDiffTmElem[DIFF_TM_ELEM_MAX];
  qb_s32_t s32ElemCount;
} DIFF_TM_T;

// Stores a time point named `name` in trace `trace` (0-3); DIFF_TM_END also prints the trace.
void set_diff_time(int trace, DIFF_TM_E kind, const char* name);

// The trace's intervals as "[1200-340-]"; "" for fewer than two points or a trace outside 0-3.
std::string get_diff_time(int trace);
