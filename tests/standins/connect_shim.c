/* A user's own preloaded library of the most common kind: it wraps connect and hands the call on
 * to whatever comes next, found with dlsym(RTLD_NEXT). */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stddef.h>
#include <sys/socket.h>

int connect(int fd, const struct sockaddr* address, socklen_t length) {
  static int (*next)(int, const struct sockaddr*, socklen_t);
  if (next == NULL) next = (int (*)(int, const struct sockaddr*, socklen_t))dlsym(RTLD_NEXT, "connect");
  return next(fd, address, length);
}
