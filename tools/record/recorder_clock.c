/* The clock the agent asks the recorder core library for: nanoseconds since the Unix epoch.
 * Shipped so that recordings carry nanosecond time stamps out of the box. */
#include <stdint.h>
#include <time.h>

int64_t currentTime(void) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}
