/* A statically linked HTTP client for the kernel tracer's tests (glibc and musl): no preloaded
 * library enters it. One request a run, "Connection: close", read to the end; the request goes out
 * with write (GET) or writev (POST, head and body as two vectors), the answer comes in with read
 * and recv. Prints how many bytes it read. Built 32-bit, with SOCKETCALL set in its environment it
 * opens, connects and receives through socketcall(2), as programs built before the socket calls
 * had numbers of their own do.
 *
 *   static_client PORT PATH [BODY_BYTES]
 */
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#if defined(__i386__)
static int throughSocketcall(void) { return getenv("SOCKETCALL") != NULL; }
/* socketcall's operations (<linux/net.h>). */
static long socketcall(int operation, long a, long b, long c, long d) {
  long arguments[4] = {a, b, c, d};
  return syscall(SYS_socketcall, operation, arguments);
}
#define SOCKET(d, t, p) (throughSocketcall() ? (int)socketcall(1, d, t, p, 0) : socket(d, t, p))
#define CONNECT(s, a, l) (throughSocketcall() ? (int)socketcall(3, s, (long)(a), l, 0) : connect(s, a, l))
#define RECV(s, b, n, f) (throughSocketcall() ? (ssize_t)socketcall(10, s, (long)(b), (long)(n), f) : recv(s, b, n, f))
#else
#define SOCKET socket
#define CONNECT connect
#define RECV recv
#endif

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: static_client PORT PATH [BODY_BYTES]\n");
    return 2;
  }
  const int s = SOCKET(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in address;
  memset(&address, 0, sizeof address);
  address.sin_family = AF_INET;
  address.sin_port = htons((unsigned short)atoi(argv[1]));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (CONNECT(s, (struct sockaddr*)&address, sizeof address) != 0) {
    perror("connect");
    return 1;
  }
  char head[512];
  if (argc > 3) {
    const size_t size = (size_t)atol(argv[3]);
    char* body = malloc(size);
    for (size_t i = 0; i < size; ++i) body[i] = (char)('a' + i % 26);
    const int n = snprintf(head, sizeof head,
                           "POST %s HTTP/1.1\r\nHost: static.test\r\nContent-Length: %zu\r\nConnection: close\r\n\r\n",
                           argv[2], size);
    struct iovec parts[2] = {{head, (size_t)n}, {body, size}};
    size_t left = (size_t)n + size;
    while (left > 0) {
      /* A short write leaves the rest for the next: the vectors are moved past what went. */
      const ssize_t sent = writev(s, parts, 2);
      if (sent <= 0) return 1;
      left -= (size_t)sent;
      size_t done = (size_t)sent;
      for (int i = 0; i < 2; ++i) {
        const size_t taken = done < parts[i].iov_len ? done : parts[i].iov_len;
        parts[i].iov_base = (char*)parts[i].iov_base + taken;
        parts[i].iov_len -= taken;
        done -= taken;
      }
    }
  } else {
    const int n = snprintf(head, sizeof head, "GET %s HTTP/1.1\r\nHost: static.test\r\nConnection: close\r\n\r\n", argv[2]);
    if (write(s, head, (size_t)n) != n) return 1;
  }
  char buffer[4096];
  size_t total = 0;
  for (int turn = 0;; ++turn) {
    const ssize_t got = turn % 2 == 0 ? read(s, buffer, sizeof buffer) : RECV(s, buffer, sizeof buffer, 0);
    if (got <= 0) break;
    total += (size_t)got;
  }
  close(s);
  printf("%zu\n", total);
  return 0;
}
