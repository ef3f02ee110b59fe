/* Coverage builds only (AM_COVERAGE), linked into the long-running programs: tests that end them
 * with SIGKILL would lose all their counters, so a thread writes them out every half second and
 * starts counting afresh (gcov adds each write-out to the file's figures). */
#include <pthread.h>
#include <stddef.h>
#include <time.h>

void __gcov_dump(void);
void __gcov_reset(void);

enum { kDumpIntervalNs = 500 * 1000 * 1000 };

static void* dump_loop(void* arg) {
  (void)arg;
  const struct timespec pause = {0, kDumpIntervalNs};
  for (;;) {
    nanosleep(&pause, NULL);
    __gcov_dump();
    __gcov_reset();
  }
  return NULL;
}

__attribute__((constructor)) static void start_dump_loop(void) {
  pthread_t tid;
  if (pthread_create(&tid, NULL, dump_loop, NULL) == 0) {
    pthread_detach(tid);
  }
}
