#include "diff_time.h"

#include <cstdio>
#include <mutex>

namespace {

// The traces, and the lock that guards them: any thread may trace.
struct diff_time_state_t {
  std::mutex lock;
  DIFF_TM_T traces[DIFF_TM_TRACE_NUM];
};
diff_time_state_t g_stDiffTm;

long interval_us(const DIFF_TM_ELEM_T& from, const DIFF_TM_ELEM_T& to) {
  // the nanosecond difference is truncated toward zero, as C division does
  return static_cast<long>(to.tm.tv_sec - from.tm.tv_sec) * 1000000L +
         static_cast<long>(to.tm.tv_nsec - from.tm.tv_nsec) / 1000L;
}

void print_trace_locked(const DIFF_TM_T& trace) {
  if (trace.s32ElemCount < 2) {
    return;
  }
  std::printf("\n");
  for (int i = 0; i + 1 < trace.s32ElemCount; ++i) {
    std::printf("%s-->%s : %ld\n", trace.stDiffTmElem[i].str, trace.stDiffTmElem[i + 1].str,
                interval_us(trace.stDiffTmElem[i], trace.stDiffTmElem[i + 1]));
  }
  std::printf("\n");
}

bool valid_trace(int trace) { return trace >= 0 && trace < DIFF_TM_TRACE_NUM; }

}  // namespace

void set_diff_time(int trace, DIFF_TM_E kind, const char* name) {
  if (!valid_trace(trace)) {
    return;
  }
  std::lock_guard<std::mutex> guard(g_stDiffTm.lock);
  DIFF_TM_T& t = g_stDiffTm.traces[trace];
  // a start point begins a new trace: the points of the previous one are dropped
  if (kind == DIFF_TM_START) {
    t.s32ElemCount = 0;
  }
  if (t.s32ElemCount >= DIFF_TM_ELEM_MAX) {
    return;
  }
  DIFF_TM_ELEM_T& elem = t.stDiffTmElem[t.s32ElemCount];
  clock_gettime(CLOCK_MONOTONIC, &elem.tm);
  std::snprintf(elem.str, sizeof elem.str, "%s", name != nullptr ? name : "");
  ++t.s32ElemCount;
  if (kind == DIFF_TM_END) {
    print_trace_locked(t);
  }
}

std::string get_diff_time(int trace) {
  if (!valid_trace(trace)) {
    return std::string();
  }
  std::lock_guard<std::mutex> guard(g_stDiffTm.lock);
  const DIFF_TM_T& t = g_stDiffTm.traces[trace];
  if (t.s32ElemCount < 2) {
    return std::string();
  }
  std::string text = "[";
  char number[32];
  for (int i = 0; i + 1 < t.s32ElemCount; ++i) {
    std::snprintf(number, sizeof number, "%ld-", interval_us(t.stDiffTmElem[i], t.stDiffTmElem[i + 1]));
    text += number;
  }
  text += "]";
  return text;
}
