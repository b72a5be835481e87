/* Stands in for the recorder's closed clock library: one entry point, currentTime, returning
 * wall-clock nanoseconds. Tests read TALVEX_STANDIN_FIXED_TIME to get a value they can assert. */
#include <stdint.h>
#include <stdlib.h>
#include <time.h>

int64_t currentTime(void) {
  const char* fixed = getenv("TALVEX_STANDIN_FIXED_TIME");
  if (fixed != NULL) return strtoll(fixed, NULL, 10);
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}
