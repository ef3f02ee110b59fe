// Counting allocator: malloc, calloc, realloc, the aligned allocations and operator new are
// counted per thread and per call stack while counting is switched on, then handed to glibc.
// Two ways to use it:
//  - linked into a benchmark: am_alloc_count_start() / am_alloc_count_stop() / _of_thread();
//  - preloaded into a daemon (LD_PRELOAD) with AM_ALLOC_COUNT_CTL=FILE: a thread polls FILE;
//    "start" resets and switches counting on, "stop" switches it off and writes the report to
//    FILE.<pid>.out (one "thread TID NAME COUNT" line per thread, then per thread and call stack
//    one "site COUNT TID" line followed by "  MODULE OFFSET" lines, innermost frame first).
//    AM_ALLOC_COUNT_IGNORE=TEXT leaves out allocations whose call stack passes through a module
//    whose path contains TEXT (e.g. a stand-in driver that is not part of the program measured).
// Nothing here allocates while counting: the tables are fixed arrays, the report is written with
// stack buffers.
#include "alloc_count.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t n, size_t size);
void* __libc_realloc(void* p, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

namespace {

constexpr int kThreads = 256;
constexpr int kSites = 64;
constexpr int kDepth = 16;  // frames kept of a call stack
constexpr unsigned kPollMs = 100;

struct ThreadSlot {
  std::atomic<long> tid{0};
  std::atomic<unsigned long> count{0};
};
struct SiteSlot {
  std::atomic<unsigned long> key{0};  // hash of the frames; 0 while free
  std::atomic<unsigned long> count{0};
  void* frames[kDepth];
  int depth;
  long tid;  // the thread that allocated
};

ThreadSlot g_threads[kThreads];
SiteSlot g_sites[kSites];
std::atomic<bool> g_on{false};
std::atomic<unsigned long> g_lost{0};  // counted allocations of threads or sites beyond the tables
std::atomic<unsigned long> g_ignored{0};
const char* g_ignore = nullptr;  // AM_ALLOC_COUNT_IGNORE

bool ignored(void* const* frames, int n) {
  if (g_ignore == nullptr) return false;
  for (int i = 0; i < n; ++i) {
    Dl_info info;
    if (dladdr(frames[i], &info) != 0 && info.dli_fname != nullptr && std::strstr(info.dli_fname, g_ignore) != nullptr)
      return true;
  }
  return false;
}
__thread int t_slot __attribute__((tls_model("initial-exec"))) = -1;
// Set while this thread takes a backtrace: what that allocates (once, loading the unwinder) is ours.
__thread bool t_busy __attribute__((tls_model("initial-exec"))) = false;

ThreadSlot* thread_slot() {
  if (t_slot < 0) {
    const long tid = syscall(SYS_gettid);
    for (int i = 0; i < kThreads && t_slot < 0; ++i) {
      long free_tid = 0;
      if (g_threads[i].tid.load() == tid || g_threads[i].tid.compare_exchange_strong(free_tid, tid)) t_slot = i;
    }
    if (t_slot < 0) return nullptr;
  }
  return &g_threads[t_slot];
}

void count() {
  if (!g_on.load(std::memory_order_relaxed) || t_busy) return;
  ThreadSlot* t = thread_slot();
  if (t == nullptr) {
    ++g_lost;
    return;
  }
  void* frames[kDepth + 2];
  t_busy = true;
  const int n = backtrace(frames, kDepth + 2);
  const bool skip = ignored(frames, n);
  t_busy = false;
  if (skip) {
    ++g_ignored;
    return;
  }
  ++t->count;
  // Frames 0 and 1 are this function and the allocation function.
  const int depth = n > 2 ? n - 2 : 0;
  unsigned long key = (1469598103934665603UL ^ static_cast<unsigned long>(t_slot)) * 1099511628211UL;
  for (int i = 0; i < depth; ++i) key = (key ^ reinterpret_cast<unsigned long>(frames[i + 2])) * 1099511628211UL;
  key = key == 0 ? 1 : key;
  for (SiteSlot& s : g_sites) {
    unsigned long none = 0;
    if (s.key.load() == key) {
      ++s.count;
      return;
    }
    if (s.key.load() == 0 && s.key.compare_exchange_strong(none, key)) {
      std::memcpy(s.frames, frames + 2, sizeof(void*) * static_cast<size_t>(depth));
      s.depth = depth;
      s.tid = t->tid.load();
      ++s.count;
      return;
    }
  }
  ++g_lost;
}

void reset() {
  for (ThreadSlot& t : g_threads) t.count = 0;
  for (SiteSlot& s : g_sites) {
    s.count = 0;
    s.key = 0;
  }
  g_lost = 0;
  g_ignored = 0;
}

// Thread name from /proc (or "?" once the thread is gone), without allocating.
void thread_name(long tid, char* out, size_t size) {
  char path[64];
  std::snprintf(path, sizeof(path), "/proc/self/task/%ld/comm", tid);
  std::snprintf(out, size, "?");
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  const ssize_t n = read(fd, out, size - 1);
  close(fd);
  out[n > 0 ? n : 0] = '\0';
  if (char* nl = std::strchr(out, '\n')) *nl = '\0';
}

void write_report(const char* path) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return;
  char line[512];
  for (ThreadSlot& t : g_threads) {
    const long tid = t.tid.load();
    if (tid == 0) continue;
    char name[32];
    thread_name(tid, name, sizeof(name));
    const int n = std::snprintf(line, sizeof(line), "thread %ld %s %lu\n", tid, name, t.count.load());
    if (write(fd, line, static_cast<size_t>(n)) < 0) break;
  }
  for (SiteSlot& s : g_sites) {
    if (s.key.load() == 0 || s.count.load() == 0) continue;
    int n = std::snprintf(line, sizeof(line), "site %lu %ld\n", s.count.load(), s.tid);
    if (write(fd, line, static_cast<size_t>(n)) < 0) break;
    for (int i = 0; i < s.depth; ++i) {
      Dl_info info;
      const bool known = dladdr(s.frames[i], &info) != 0 && info.dli_fname != nullptr;
      // The return address minus one lies inside the calling instruction.
      const unsigned long offset =
          known ? static_cast<unsigned long>(static_cast<char*>(s.frames[i]) - static_cast<char*>(info.dli_fbase)) - 1
                : 0;
      n = std::snprintf(line, sizeof(line), "  %s 0x%lx\n", known ? info.dli_fname : "?", offset);
      if (write(fd, line, static_cast<size_t>(n)) < 0) break;
    }
  }
  const int n = std::snprintf(line, sizeof(line), "lost %lu\nignored %lu\n", g_lost.load(), g_ignored.load());
  if (write(fd, line, static_cast<size_t>(n)) < 0) {
  }
  close(fd);
}

void* poll_control(void* arg) {
  const char* ctl = static_cast<const char*>(arg);
  char out[4096];
  std::snprintf(out, sizeof(out), "%s.%d.out", ctl, static_cast<int>(getpid()));
  bool on = false;
  for (;;) {
    usleep(kPollMs * 1000);
    char word[16] = {};
    const int fd = open(ctl, O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    const ssize_t n = read(fd, word, sizeof(word) - 1);
    close(fd);
    if (n <= 0) continue;
    if (!on && std::strncmp(word, "start", 5) == 0) {
      am_alloc_count_start();
      on = true;
    } else if (on && std::strncmp(word, "stop", 4) == 0) {
      am_alloc_count_stop();
      write_report(out);
      on = false;
    }
  }
  return nullptr;
}

__attribute__((constructor)) void start_polling() {
  g_ignore = std::getenv("AM_ALLOC_COUNT_IGNORE");
  const char* ctl = std::getenv("AM_ALLOC_COUNT_CTL");
  if (ctl == nullptr || ctl[0] == '\0') return;
  pthread_t thread;
  if (pthread_create(&thread, nullptr, poll_control, const_cast<char*>(ctl)) == 0) {
    pthread_setname_np(thread, "alloc_count");
    pthread_detach(thread);
  }
}

void* counted_new(size_t size) {
  count();
  void* p = __libc_malloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}

}  // namespace

extern "C" {

void am_alloc_count_start() {
  reset();
  g_on = true;
}
void am_alloc_count_stop() { g_on = false; }
unsigned long am_alloc_count_of_thread() {
  ThreadSlot* t = thread_slot();
  return t == nullptr ? 0 : t->count.load();
}

void* malloc(size_t size) {
  count();
  return __libc_malloc(size);
}
void* calloc(size_t n, size_t size) {
  count();
  return __libc_calloc(n, size);
}
void* realloc(void* p, size_t size) {
  count();
  return __libc_realloc(p, size);
}
void* memalign(size_t alignment, size_t size) {
  count();
  return __libc_memalign(alignment, size);
}
void* aligned_alloc(size_t alignment, size_t size) {
  count();
  return __libc_memalign(alignment, size);
}
int posix_memalign(void** out, size_t alignment, size_t size) {
  count();
  void* p = __libc_memalign(alignment, size);
  if (p == nullptr) return ENOMEM;
  *out = p;
  return 0;
}

}  // extern "C"

void* operator new(size_t size) { return counted_new(size); }
void* operator new[](size_t size) { return counted_new(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  count();
  return __libc_malloc(size == 0 ? 1 : size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  count();
  return __libc_malloc(size == 0 ? 1 : size);
}
