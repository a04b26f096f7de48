// Preloaded by runner.py for "frozen" cases: the wall clock stands still at
// KX_FROZEN_MS, so a lock file's age is exact to the millisecond whatever the
// time between writing it and the program reading it.
#include <stdlib.h>
#include <sys/time.h>

int gettimeofday(struct timeval* tv, void* tz) {
  const char* ms = getenv("KX_FROZEN_MS");
  const long long now = ms != NULL ? atoll(ms) : 0;
  (void)tz;
  tv->tv_sec = (time_t)(now / 1000);
  tv->tv_usec = (suseconds_t)(now % 1000 * 1000);
  return 0;
}
