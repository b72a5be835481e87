/* A user's own preloaded library of the most common kind: it wraps connect and getaddrinfo and
 * hands each call on to whatever comes next, found with dlsym(RTLD_NEXT). */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <netdb.h>
#include <stddef.h>
#include <sys/socket.h>

int connect(int fd, const struct sockaddr* address, socklen_t length) {
  static int (*next)(int, const struct sockaddr*, socklen_t);
  if (next == NULL) next = (int (*)(int, const struct sockaddr*, socklen_t))dlsym(RTLD_NEXT, "connect");
  return next(fd, address, length);
}

int getaddrinfo(const char* node, const char* service, const struct addrinfo* hints, struct addrinfo** result) {
  static int (*next)(const char*, const char*, const struct addrinfo*, struct addrinfo**);
  if (next == NULL) {
    next = (int (*)(const char*, const char*, const struct addrinfo*, struct addrinfo**))dlsym(RTLD_NEXT, "getaddrinfo");
  }
  return next(node, service, hints, result);
}
