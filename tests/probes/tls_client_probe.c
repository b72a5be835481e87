/* tls_client_probe lookup NAME: prints whether dlsym(RTLD_DEFAULT, NAME) finds anything.
 * tls_client_probe callers OBJECT...: opens each object in a local scope and prints what its
 * callTlsLibrary returns.
 *
 * A TLS client on a non-blocking socket that opens its TLS library itself (dlopen in a local
 * scope, functions through dlsym of its handle), for either ABI without the library's development
 * files: usage: tls_client_probe openssl|gnutls LIBRARY PORT BODY_BYTES [CHUNK]
 * CHUNK: the request is written in writes of at most that many bytes (the cost bench counts them).
 * With TALVEX_PROBE_KEY_UPDATE set, the OpenSSL client asks for a TLS 1.3 key update after the
 * handshake and again half-way through its request (each direction's keys change).
 * It posts BODY_BYTES bytes of a pattern to 127.0.0.1:PORT, waits for the answer with a peek,
 * then reads it to the end, and prints it on stdout. On stderr: "retries N" (how often the
 * library said to wait: WANT_READ, WANT_WRITE, GNUTLS_E_AGAIN) and "peeked N".
 * Exit status 0 when the whole answer came, 2 on a usage or library error. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

enum { kWantRead = 2, kWantWrite = 3, kZeroReturn = 6 };
enum { kGnutlsClient = 1 << 1, kGnutlsNonblock = 1 << 3, kGnutlsCertificate = 1, kGnutlsAgain = -28,
       kGnutlsInterrupted = -52 };

static void* library;
static int retries;
static size_t chunk = (size_t)-1;

static void* need(const char* name) {
  void* f = dlsym(library, name);
  if (f == NULL) {
    fprintf(stderr, "no %s in the library\n", name);
    exit(2);
  }
  return f;
}

static void waitFor(int fd, short events) {
  struct pollfd p = {fd, events, 0};
  ++retries;
  if (poll(&p, 1, 20000) != 1) {
    fprintf(stderr, "timed out waiting for the socket\n");
    exit(2);
  }
}

static char* request(size_t body, size_t* length) {
  char head[128];
  const int n = snprintf(head, sizeof head, "POST /probe HTTP/1.1\r\nHost: localhost\r\nContent-Length: %zu\r\n\r\n", body);
  char* text = malloc((size_t)n + body);
  memcpy(text, head, (size_t)n);
  for (size_t i = 0; i < body; ++i) text[n + i] = (char)('a' + i % 26);
  *length = (size_t)n + body;
  return text;
}

static int openssl(int fd, const char* text, size_t length) {
  void* (*method)(void) = need("TLS_client_method");
  void* (*ctxNew)(void*) = need("SSL_CTX_new");
  void* (*sslNew)(void*) = need("SSL_new");
  int (*setFd)(void*, int) = need("SSL_set_fd");
  int (*connectTls)(void*) = need("SSL_connect");
  int (*getError)(void*, int) = need("SSL_get_error");
  int (*writeEx)(void*, const void*, size_t, size_t*) = need("SSL_write_ex");
  int (*peek)(void*, void*, int) = need("SSL_peek");
  int (*readEx)(void*, void*, size_t, size_t*) = need("SSL_read_ex");
  void* ssl = sslNew(ctxNew(method()));
  setFd(ssl, fd);
  for (;;) {
    const int r = connectTls(ssl);
    if (r == 1) break;
    const int e = getError(ssl, r);
    if (e != kWantRead && e != kWantWrite) {
      fprintf(stderr, "SSL_connect: error %d\n", e);
      return 2;
    }
    waitFor(fd, e == kWantRead ? POLLIN : POLLOUT);
  }
  int (*keyUpdate)(void*, int) = getenv("TALVEX_PROBE_KEY_UPDATE") != NULL ? need("SSL_key_update") : NULL;
  enum { kKeyUpdateRequested = 1 };
  /* The library refuses one where it cannot be had (not TLS 1.3): the probe fails, not passes. */
  if (keyUpdate != NULL && keyUpdate(ssl, kKeyUpdateRequested) != 1) {
    fprintf(stderr, "SSL_key_update refused\n");
    return 2;
  }
  int halfway = keyUpdate != NULL;
  size_t done = 0;
  while (done < length) {
    if (halfway && done >= length / 2) {
      if (keyUpdate(ssl, kKeyUpdateRequested) != 1) {
        fprintf(stderr, "SSL_key_update refused\n");
        return 2;
      }
      halfway = 0;
    }
    size_t written = 0;
    const size_t piece = length - done < chunk ? length - done : chunk;
    const int r = writeEx(ssl, text + done, piece, &written);
    if (r == 1) {
      done += written;
      continue;
    }
    const int e = getError(ssl, r);
    if (e != kWantRead && e != kWantWrite) return 2;
    waitFor(fd, e == kWantRead ? POLLIN : POLLOUT);
  }
  char buffer[4096];
  int peeked;
  while ((peeked = peek(ssl, buffer, 16)) <= 0) {
    const int e = getError(ssl, peeked);
    if (e != kWantRead && e != kWantWrite) return 2;
    waitFor(fd, e == kWantRead ? POLLIN : POLLOUT);
  }
  fprintf(stderr, "peeked %d\n", peeked);
  for (;;) {
    size_t got = 0;
    const int r = readEx(ssl, buffer, sizeof buffer, &got);
    if (r == 1) {
      fwrite(buffer, 1, got, stdout);
      continue;
    }
    const int e = getError(ssl, r);
    if (e == kWantRead || e == kWantWrite) {
      waitFor(fd, e == kWantRead ? POLLIN : POLLOUT);
      continue;
    }
    /* The server closes without a closing alert: the end of its answer. */
    return 0;
  }
}

static int gnutls(int fd, const char* text, size_t length) {
  int (*allocate)(void**) = need("gnutls_certificate_allocate_credentials");
  int (*init)(void**, unsigned) = need("gnutls_init");
  int (*priority)(void*) = need("gnutls_set_default_priority");
  int (*credentials)(void*, int, void*) = need("gnutls_credentials_set");
  void (*transport)(void*, int, int) = need("gnutls_transport_set_int2");
  int (*handshake)(void*) = need("gnutls_handshake");
  long (*send)(void*, const void*, size_t) = need("gnutls_record_send");
  long (*recv)(void*, void*, size_t) = need("gnutls_record_recv");
  void* credential = NULL;
  void* session = NULL;
  if (allocate(&credential) != 0 || init(&session, kGnutlsClient | kGnutlsNonblock) != 0) {
    fprintf(stderr, "gnutls_init failed\n");
    return 2;
  }
  priority(session);
  credentials(session, kGnutlsCertificate, credential);
  transport(session, fd, fd);
  int r;
  while ((r = handshake(session)) < 0) {
    if (r != kGnutlsAgain && r != kGnutlsInterrupted) {
      fprintf(stderr, "gnutls_handshake: %d\n", r);
      return 2;
    }
    waitFor(fd, POLLIN | POLLOUT);
  }
  size_t done = 0;
  while (done < length) {
    const long n = send(session, text + done, length - done < chunk ? length - done : chunk);
    if (n > 0) {
      done += (size_t)n;
    } else if (n == kGnutlsAgain || n == kGnutlsInterrupted) {
      waitFor(fd, POLLOUT);
    } else {
      fprintf(stderr, "gnutls_record_send: %ld\n", n);
      return 2;
    }
  }
  fprintf(stderr, "peeked 0\n");
  char buffer[4096];
  for (;;) {
    const long n = recv(session, buffer, sizeof buffer);
    if (n > 0) {
      fwrite(buffer, 1, (size_t)n, stdout);
    } else if (n == kGnutlsAgain || n == kGnutlsInterrupted) {
      waitFor(fd, POLLIN);
    } else {
      return 0;
    }
  }
}

int main(int argc, char** argv) {
  if (argc == 3 && strcmp(argv[1], "lookup") == 0) {
    printf("%s\n", dlsym(RTLD_DEFAULT, argv[2]) != NULL ? "present" : "absent");
    return 0;
  }
  if (argc >= 3 && strcmp(argv[1], "callers") == 0) {
    for (int i = 2; i < argc; ++i) {
      void* object = dlopen(argv[i], RTLD_NOW | RTLD_LOCAL);
      int (*call)(void) = object != NULL ? (int (*)(void))dlsym(object, "callTlsLibrary") : NULL;
      if (call == NULL) {
        fprintf(stderr, "%s: %s\n", argv[i], dlerror());
        return 2;
      }
      printf("%d\n", call());
    }
    return 0;
  }
  if (argc != 5 && argc != 6) {
    fprintf(stderr, "usage: %s openssl|gnutls LIBRARY PORT BODY_BYTES [CHUNK]\n", argv[0]);
    return 2;
  }
  if (argc == 6 && atoi(argv[5]) > 0) chunk = (size_t)atoi(argv[5]);
  library = dlopen(argv[2], RTLD_NOW | RTLD_LOCAL);
  if (library == NULL) {
    fprintf(stderr, "%s\n", dlerror());
    return 2;
  }
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in a;
  memset(&a, 0, sizeof a);
  a.sin_family = AF_INET;
  a.sin_port = htons((unsigned short)atoi(argv[3]));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, (struct sockaddr*)&a, sizeof a) != 0) {
    perror("connect");
    return 2;
  }
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  size_t length = 0;
  char* text = request((size_t)strtoul(argv[4], NULL, 10), &length);
  const int status = strcmp(argv[1], "openssl") == 0 ? openssl(fd, text, length) : gnutls(fd, text, length);
  fflush(stdout);
  fprintf(stderr, "retries %d\n", retries);
  free(text);
  close(fd);
  return status;
}
