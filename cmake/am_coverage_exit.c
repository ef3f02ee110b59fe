/* Coverage builds only (AM_COVERAGE): the daemons' shutdown and the tests' forked children leave
 * through _exit, which skips the gcov counters' write-out at exit. Every program is linked with
 * -Wl,--wrap=_exit, so that its _exit calls come here first. */
void __gcov_dump(void);
__attribute__((noreturn)) void __real__exit(int status);

__attribute__((noreturn)) void __wrap__exit(int status) {
  __gcov_dump();
  __real__exit(status);
}
