/* Every I/O path a real client or server moves bytes with, one after the other on one
 * connection, each call printed with its result so that a test can pair calls with messages. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include "probe_support.h"

/* The fortified receives, called as a program built with _FORTIFY_SOURCE calls them. */
ssize_t __recv_chk(int fd, void* buffer, size_t length, size_t bufferLength, int flags);
ssize_t __recvfrom_chk(int fd, void* buffer, size_t length, size_t bufferLength, int flags, struct sockaddr* address,
                       socklen_t* addressLength);
ssize_t __read_chk(int fd, void* buffer, size_t count, size_t bufferLength);

static int connectedTo(int port) {
  int s = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in address = loopback(port);
  if (connect(s, (struct sockaddr*)&address, sizeof address) != 0) return -1;
  return s;
}

/* Sends all of `length` bytes without blocking in the kernel: each send takes what fits, the rest
 * waits for room, as an event loop writes. */
static void sendWithoutBlocking(int s, const char* bytes, size_t length) {
  int flags = fcntl(s, F_GETFL);
  fcntl(s, F_SETFL, flags | O_NONBLOCK);
  size_t done = 0;
  for (int round = 0; done < length && round < 100000; ++round) {
    ssize_t n = send(s, bytes + done, length - done, MSG_NOSIGNAL);
    if (n > 0) {
      printf("send-part result=%ld\n", (long)n);
      done += (size_t)n;
    } else {
      struct pollfd wait = {s, POLLOUT, 0};
      poll(&wait, 1, 1000);
    }
  }
  fcntl(s, F_SETFL, flags);
}

/* Sends through writev, sendfile, sendfile64, send (partly, as a non-blocking writer does), then
 * receives through a peek, readv, the three fortified receives, read and recv up to the end of
 * the stream. `file` holds the bytes sendfile sends. */
static int scenarioClient(int port, const char* file) {
  int s = connectedTo(port);
  if (s < 0) return 1;
  /* A small send buffer, so that a large send is taken in parts. */
  int small = 4096;
  setsockopt(s, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);

  struct iovec head[3] = {{"GET ", 4}, {"/every-byte", 11}, {" HTTP/1.0\r\n\r\n", 13}};
  report("writev", writev(s, head, 3));

  int f = open(file, O_RDONLY);
  report("sendfile", sendfile(s, f, NULL, 10000));
  off64_t offset = 2000;
  report("sendfile64", sendfile64(s, f, &offset, 3000));
  close(f);

  report("send", send(s, "plain\0send", 10, MSG_NOSIGNAL));

  size_t large = 256 << 10;
  char* bulk = malloc(large);
  for (size_t i = 0; i < large; ++i) bulk[i] = (char)(i * 7 + i / 4096);
  sendWithoutBlocking(s, bulk, large);
  free(bulk);

  /* A send that fails: nothing went, so nothing is recorded as sent. */
  int unconnected = socket(AF_INET, SOCK_STREAM, 0);
  report("failed-send", send(unconnected, "never", 5, MSG_NOSIGNAL));
  close(unconnected);

  shutdown(s, SHUT_WR);

  char buffer[1000];
  report("peek", recv(s, buffer, 100, MSG_PEEK | MSG_WAITALL));
  char first[50], second[70];
  struct iovec parts[2] = {{first, sizeof first}, {second, sizeof second}};
  report("readv", readv(s, parts, 2));
  report("__recv_chk", __recv_chk(s, buffer, 200, sizeof buffer, MSG_WAITALL));
  report("__recvfrom_chk", __recvfrom_chk(s, buffer, 300, sizeof buffer, MSG_WAITALL, NULL, NULL));
  report("__read_chk", __read_chk(s, buffer, 400, sizeof buffer));
  report("read", read(s, buffer, 500));
  for (int round = 0; round < 10000; ++round) {
    ssize_t n = recv(s, buffer, sizeof buffer, 0);
    report("recv", n);
    if (n <= 0) break;
  }
  close(s);
  return 0;
}

/* Answers two connections, the first taken with accept4 and the second with accept: reads each
 * request to its end, then sends `reply-<n>` followed by the request's length. */
static int scenarioServer(const char* portFile) {
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in address = loopback(0);
  bind(listener, (struct sockaddr*)&address, sizeof address);
  listen(listener, 4);
  socklen_t length = sizeof address;
  getsockname(listener, (struct sockaddr*)&address, &length);
  FILE* out = fopen(portFile, "w");
  fprintf(out, "%d\n", ntohs(address.sin_port));
  fclose(out);
  for (int n = 1; n <= 2; ++n) {
    struct sockaddr_in peer;
    socklen_t peerLength = sizeof peer;
    int s = n == 1 ? accept4(listener, (struct sockaddr*)&peer, &peerLength, SOCK_CLOEXEC)
                   : accept(listener, (struct sockaddr*)&peer, &peerLength);
    report(n == 1 ? "accept4" : "accept", s >= 0 ? 0 : -1);
    if (s < 0) return 1;
    char buffer[4096];
    long total = 0;
    for (int round = 0; round < 10000; ++round) {
      ssize_t got = recv(s, buffer, sizeof buffer, 0);
      if (got <= 0) break;
      total += got;
    }
    char reply[64];
    int size = snprintf(reply, sizeof reply, "reply-%d %ld", n, total);
    report("reply", send(s, reply, (size_t)size, MSG_NOSIGNAL));
    close(s);
  }
  close(listener);
  return 0;
}

/* A connection made behind the C library's back, as one inherited from a parent or received
 * from another process is: its traffic is the program's all the same. Then a socket closed
 * behind the agent's back and a file opened on its number, whose bytes are not the network's. */
static int scenarioAdopted(int port, const char* file) {
  int s = (int)syscall(SYS_socket, AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in address = loopback(port);
  if (syscall(SYS_connect, s, (struct sockaddr*)&address, sizeof address) != 0) return 1;
  report("write", write(s, "adopted-bytes", 13));
  shutdown(s, SHUT_WR);
  char buffer[256];
  for (int round = 0; round < 1000; ++round) {
    ssize_t n = read(s, buffer, sizeof buffer);
    report("read", n);
    if (n <= 0) break;
  }
  close(s);

  int gone = connectedTo(port);
  report("send", send(gone, "before", 6, MSG_NOSIGNAL));
  syscall(SYS_close, gone);
  int reused = open(file, O_RDONLY);
  printf("same-number %d\n", reused == gone);
  report("file-read", read(reused, buffer, 16));
  close(reused);
  return 0;
}

int main(int argc, char** argv) {
  setvbuf(stdout, NULL, _IONBF, 0);
  if (argc < 2) return 2;
  if (strcmp(argv[1], "client") == 0 && argc > 3) return scenarioClient(atoi(argv[2]), argv[3]);
  if (strcmp(argv[1], "server") == 0 && argc > 2) return scenarioServer(argv[2]);
  if (strcmp(argv[1], "adopted") == 0 && argc > 3) return scenarioAdopted(atoi(argv[2]), argv[3]);
  fprintf(stderr, "unknown scenario %s\n", argv[1]);
  return 2;
}
