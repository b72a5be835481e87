/* A resolver for test names: preloaded after the agent, it is the getaddrinfo the agent calls as
 * the C library's. "two.test" gives two IPv4 entries, "mixed.test" an IPv4 then an IPv6 entry,
 * "v6first.test" an IPv6 then an IPv4 entry; every other name goes to the real resolver. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <dlfcn.h>
#include <netdb.h>
#include <stdlib.h>
#include <string.h>

#define CRAFTED 0x40000000

/* The first version of the C library's symbols on each x86 ABI. */
#if defined(__x86_64__)
#define FIRST_GLIBC "GLIBC_2.2.5"
#else
#define FIRST_GLIBC "GLIBC_2.0"
#endif

static struct addrinfo* entry(int family, const char* text, int port) {
  struct addrinfo* e = calloc(1, sizeof *e);
  e->ai_flags = CRAFTED;
  e->ai_family = family;
  e->ai_socktype = SOCK_STREAM;
  e->ai_protocol = IPPROTO_TCP;
  if (family == AF_INET) {
    struct sockaddr_in* a = calloc(1, sizeof *a);
    a->sin_family = AF_INET;
    a->sin_port = htons((uint16_t)port);
    inet_pton(AF_INET, text, &a->sin_addr);
    e->ai_addr = (struct sockaddr*)a;
    e->ai_addrlen = sizeof *a;
  } else {
    struct sockaddr_in6* a = calloc(1, sizeof *a);
    a->sin6_family = AF_INET6;
    a->sin6_port = htons((uint16_t)port);
    a->sin6_flowinfo = htonl(0x0a0b0c0d);
    inet_pton(AF_INET6, text, &a->sin6_addr);
    e->ai_addr = (struct sockaddr*)a;
    e->ai_addrlen = sizeof *a;
  }
  return e;
}

int getaddrinfo(const char* node, const char* service, const struct addrinfo* hints, struct addrinfo** result) {
  if (node != NULL && strcmp(node, "two.test") == 0) {
    *result = entry(AF_INET, "10.0.0.1", 80);
    (*result)->ai_next = entry(AF_INET, "10.0.0.2", 80);
    return 0;
  }
  if (node != NULL && strcmp(node, "mixed.test") == 0) {
    *result = entry(AF_INET, "10.0.0.7", 80);
    (*result)->ai_next = entry(AF_INET6, "2001:db8::7", 80);
    return 0;
  }
  if (node != NULL && strcmp(node, "v6first.test") == 0) {
    *result = entry(AF_INET6, "2001:db8::9", 80);
    (*result)->ai_next = entry(AF_INET, "10.0.0.9", 80);
    return 0;
  }
  /* dlvsym, not dlsym: with the agent loaded, dlsym answers with the agent's own hook. */
  int (*real)(const char*, const char*, const struct addrinfo*, struct addrinfo**) =
      (int (*)(const char*, const char*, const struct addrinfo*, struct addrinfo**))dlvsym(RTLD_NEXT, "getaddrinfo",
                                                                                           FIRST_GLIBC);
  return real(node, service, hints, result);
}

void freeaddrinfo(struct addrinfo* list) {
  if (list != NULL && (list->ai_flags & CRAFTED)) {
    while (list != NULL) {
      struct addrinfo* next = list->ai_next;
      free(list->ai_addr);
      free(list);
      list = next;
    }
    return;
  }
  void (*real)(struct addrinfo*) = (void (*)(struct addrinfo*))dlvsym(RTLD_NEXT, "freeaddrinfo", FIRST_GLIBC);
  real(list);
}
