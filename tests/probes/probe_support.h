/* What every probe prints and connects to. */
#ifndef TALVEX_PROBE_SUPPORT_H
#define TALVEX_PROBE_SUPPORT_H

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

/* A call's result and, when it failed, its errno: the line tests compare with and without the
 * agent. */
static inline void report(const char* what, long result) {
  printf("%s result=%ld errno=%d\n", what, result, result < 0 ? errno : 0);
}

static inline struct sockaddr_in loopback(int port) {
  struct sockaddr_in address;
  memset(&address, 0, sizeof address);
  address.sin_family = AF_INET;
  address.sin_port = htons((uint16_t)port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

#endif
