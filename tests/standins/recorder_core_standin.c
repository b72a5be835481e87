/* Stands in for the recorder's closed clock library: one entry point, currentTime, returning
 * wall-clock nanoseconds. TALVEX_STANDIN_FIXED_TIME makes the clock return a value tests can
 * assert; TALVEX_STANDIN_SOCKET_ON_LOAD makes the library use sockets while it is being loaded,
 * which happens in the middle of the agent's start-up. */
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

int64_t currentTime(void) {
  const char* fixed = getenv("TALVEX_STANDIN_FIXED_TIME");
  if (fixed != NULL) return strtoll(fixed, NULL, 10);
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

__attribute__((constructor)) static void useSocketsOnLoad(void) {
  if (getenv("TALVEX_STANDIN_SOCKET_ON_LOAD") == NULL) return;
  int s = socket(AF_INET, SOCK_STREAM, 0);
  int closed = close(s);
  errno = 0;
  int again = close(s);
  printf("standin-on-load socket-valid=%d close=%d close-again=%d errno=%d\n", s >= 0, closed, again, errno);
}
