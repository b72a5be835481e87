/* A 32-bit program whose scenarios each exercise one recorded behaviour, printing every result
 * and errno so that tests can compare runs with and without the agent. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "probe_support.h"

static int connected(int port) {
  int s = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in a = loopback(port);
  if (connect(s, (struct sockaddr*)&a, sizeof a) != 0) {
    perror("connect");
    exit(3);
  }
  printf("socket %d\n", s);
  return s;
}

static int listening(struct sockaddr_in* bound) {
  int l = socket(AF_INET, SOCK_STREAM, 0);
  *bound = loopback(0);
  bind(l, (struct sockaddr*)bound, sizeof *bound);
  listen(l, 16);
  socklen_t length = sizeof *bound;
  getsockname(l, (struct sockaddr*)bound, &length);
  return l;
}

/* Reads exactly n bytes, however the stream splits them. */
static int readFully(int s, char* buffer, size_t n) {
  size_t got = 0;
  while (got < n) {
    ssize_t r = recv(s, buffer + got, n - got, 0);
    if (r <= 0) return -1;
    got += (size_t)r;
  }
  return 0;
}

/* A non-blocking connect to `port`, waited for (a bounded time) until the socket is writable. */
static int connectAndPoll(int port) {
  int s = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  printf("socket %d\n", s);
  struct sockaddr_in a = loopback(port);
  report("connect", connect(s, (struct sockaddr*)&a, sizeof a));
  struct pollfd p = {s, POLLOUT, 0};
  poll(&p, 1, 5000);
  return s;
}

static int scenarioNonBlockingConnect(int port) {
  report("close", close(connectAndPoll(port)));
  return 0;
}

static int scenarioUdp(int port) {
  int s = socket(AF_INET, SOCK_DGRAM, 0);
  printf("socket %d\n", s);
  struct sockaddr_in a = loopback(port);
  report("connect", connect(s, (struct sockaddr*)&a, sizeof a));
  report("send", send(s, "x", 1, 0));
  report("close", close(s));
  return 0;
}

static int scenarioAcceptTwice(void) {
  struct sockaddr_in bound;
  int l = listening(&bound);
  int c1 = socket(AF_INET, SOCK_STREAM, 0), c2 = socket(AF_INET, SOCK_STREAM, 0);
  connect(c1, (struct sockaddr*)&bound, sizeof bound);
  connect(c2, (struct sockaddr*)&bound, sizeof bound);
  printf("listener %d clients %d %d\n", l, c1, c2);
  int a1 = accept(l, NULL, NULL);
  struct sockaddr_in peer;
  socklen_t peerLength = sizeof peer;
  int a2 = accept(l, (struct sockaddr*)&peer, &peerLength);
  printf("accepted %d %d peerlen=%d\n", a1 >= 0, a2 >= 0, (int)peerLength);
  report("send-accepted", send(a1, "hi", 2, 0));
  char buffer[4];
  report("recv-client", recv(c1, buffer, 2, MSG_WAITALL));
  report("close-accepted", close(a1));
  report("close-accepted2", close(a2));
  report("close-client1", close(c1));
  report("close-client2", close(c2));
  report("close-listener", close(l));
  return 0;
}

static int scenarioSendZero(int port) {
  int s = connected(port);
  report("send", send(s, "ignored", 0, 0));
  report("close", close(s));
  return 0;
}

static int scenarioRecvEagain(int port) {
  int s = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  printf("socket %d\n", s);
  struct sockaddr_in a = loopback(port);
  connect(s, (struct sockaddr*)&a, sizeof a);
  struct pollfd p = {s, POLLOUT, 0};
  poll(&p, 1, 5000);
  char buffer[8];
  report("recv", recv(s, buffer, sizeof buffer, 0));
  report("read", read(s, buffer, sizeof buffer));
  report("close", close(s));
  return 0;
}

static int scenarioRecvZero(int port) {
  int s = connected(port);
  shutdown(s, SHUT_WR);
  char buffer[16];
  memset(buffer, 0, sizeof buffer);
  report("recv", recv(s, buffer, sizeof buffer, 0));
  report("close", close(s));
  return 0;
}

static int scenarioVectors(int port) {
  int s = connected(port);
  struct iovec out[3] = {{(void*)"ab", 2}, {(void*)"", 0}, {(void*)"cdefg", 5}};
  struct msghdr message;
  memset(&message, 0, sizeof message);
  message.msg_iov = out;
  message.msg_iovlen = 3;
  report("sendmsg", sendmsg(s, &message, 0));
  char first[3], second[4];
  struct iovec in[2] = {{first, sizeof first}, {second, sizeof second}};
  message.msg_iov = in;
  message.msg_iovlen = 2;
  report("recvmsg", recvmsg(s, &message, MSG_WAITALL));
  printf("received %.3s|%.4s\n", first, second);
  report("close", close(s));
  return 0;
}

/* Every byte value, over and over, to `size` bytes; the echo comes back whole. */
static int scenarioBytes(int port, long size) {
  int s = connected(port);
  char* data = malloc((size_t)size);
  char* back = malloc((size_t)size);
  for (long i = 0; i < size; ++i) data[i] = (char)(i % 256);
  report("send", send(s, data, (size_t)size, 0));
  report("echo", readFully(s, back, (size_t)size));
  printf("same %d\n", memcmp(data, back, (size_t)size) == 0);
  report("close", close(s));
  return 0;
}

/* Vectors of tens of kilobytes out (an empty one and two with no length among them), twice, and
 * in, with more room than comes; the echo comes back whole. */
static int scenarioBigVectors(int port) {
  int s = connected(port);
  const size_t size = 100000, room = 2 * size + 50000;
  char* data = malloc(size);
  char* back = malloc(room);
  for (size_t i = 0; i < size; ++i) data[i] = (char)(i * 13);
  struct iovec out[4] = {{data, 30000}, {NULL, 0}, {data + 30000, 0}, {data + 30000, size - 30000}};
  struct msghdr message;
  memset(&message, 0, sizeof message);
  message.msg_iov = out;
  message.msg_iovlen = 4;
  report("sendmsg", sendmsg(s, &message, 0));
  report("sendmsg", sendmsg(s, &message, 0));
  size_t got = 0;
  while (got < 2 * size) {
    struct iovec in[3] = {{back + got, 7000}, {NULL, 0}, {back + got + 7000, room - got - 7000}};
    message.msg_iov = in;
    message.msg_iovlen = 3;
    const ssize_t n = recvmsg(s, &message, 0);
    if (n <= 0) return 4;
    got += (size_t)n;
  }
  printf("same %d\n", memcmp(back, data, size) == 0 && memcmp(back + size, data, size) == 0);
  report("close", close(s));
  free(data);
  free(back);
  return 0;
}

static int scenarioUnix(const char* path) {
  int l = socket(AF_UNIX, SOCK_STREAM, 0);
  struct sockaddr_un a;
  memset(&a, 0, sizeof a);
  a.sun_family = AF_UNIX;
  snprintf(a.sun_path, sizeof a.sun_path, "%s", path);
  unlink(path);
  report("bind", bind(l, (struct sockaddr*)&a, sizeof a));
  report("listen", listen(l, 4));
  int c = socket(AF_UNIX, SOCK_STREAM, 0);
  report("connect", connect(c, (struct sockaddr*)&a, sizeof a));
  int s = accept(l, NULL, NULL);
  report("send", send(c, "local", 5, 0));
  char buffer[8];
  report("recv", recv(s, buffer, 5, MSG_WAITALL));
  report("write", write(c, "again", 5));
  report("read", read(s, buffer, 5));
  report("close", close(s));
  report("close", close(c));
  report("close", close(l));
  unlink(path);
  return 0;
}

static int scenarioResolve(const char* node, const char* service) {
  struct addrinfo hints;
  memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE;
  struct addrinfo* result = NULL;
  const char* n = strcmp(node, "NULL") == 0 ? NULL : node;
  const char* sv = strcmp(service, "NULL") == 0 ? NULL : service;
  int status = getaddrinfo(n, sv, &hints, &result);
  int count = 0;
  for (struct addrinfo* e = result; e != NULL; e = e->ai_next) ++count;
  printf("getaddrinfo status=%d entries=%d\n", status, count);
  if (result != NULL) freeaddrinfo(result);
  return 0;
}

/* The older resolver calls: not hooked, so they must answer as the C library does. */
static int scenarioLegacyResolve(void) {
  struct hostent* host = gethostbyname("localhost");
  printf("gethostbyname %s\n", host != NULL && host->h_name != NULL ? "answered" : "null");
  char name[256];
  report("gethostname", gethostname(name, sizeof name));
  struct servent* byName = getservbyname("http", "tcp");
  struct servent* byPort = getservbyport(htons(80), "tcp");
  printf("getservbyname %s\ngetservbyport %s\n", byName ? "answered" : "null", byPort ? "answered" : "null");
  return 0;
}

static int scenarioSelectReady(int port) {
  int s = connected(port);
  send(s, "x", 1, 0);
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(s, &readable);
  struct timeval wait = {5, 0};
  errno = 0;
  int result = select(s + 1, &readable, NULL, NULL, &wait);
  printf("select result=%d errno=%d set=%d\n", result, errno, FD_ISSET(s, &readable) ? 1 : 0);
  report("close", close(s));
  return 0;
}

/* Two sockets with data waiting, one select over both; errno set before, to see that a select
 * that succeeds leaves it alone and that the log reports the one that was current. */
static int scenarioSelectTwoReady(int port) {
  int a = connected(port);
  int b = connected(port);
  send(a, "x", 1, 0);
  send(b, "y", 1, 0);
  char echo;
  recv(a, &echo, 1, MSG_PEEK);
  recv(b, &echo, 1, MSG_PEEK);
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(a, &readable);
  FD_SET(b, &readable);
  struct timeval wait = {5, 0};
  errno = EAGAIN;
  int result = select((a > b ? a : b) + 1, &readable, NULL, NULL, &wait);
  printf("select result=%d errno=%d set=%d,%d\n", result, errno, FD_ISSET(a, &readable) ? 1 : 0,
         FD_ISSET(b, &readable) ? 1 : 0);
  close(a);
  close(b);
  return 0;
}

static int scenarioSetsockopt26(void) {
  int s = socket(AF_INET, SOCK_STREAM, 0);
  report("dup2", dup2(s, 26));
  int one = 1;
  report("setsockopt", setsockopt(26, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one));
  report("close", close(26));
  report("close", close(s));
  return 0;
}

static int scenarioBindSelf(void) {
  struct sockaddr_in bound;
  int l = listening(&bound);
  int c = socket(AF_INET, SOCK_STREAM, 0);
  printf("listener %d client %d port %d\n", l, c, ntohs(bound.sin_port));
  report("connect", connect(c, (struct sockaddr*)&bound, sizeof bound));
  report("close", close(c));
  report("close", close(l));
  return 0;
}

static int scenarioCloseTwice(void) {
  int s = socket(AF_INET, SOCK_STREAM, 0);
  printf("socket %d\n", s);
  report("close", close(s));
  report("close", close(s));
  return 0;
}

/* The framed request/response protocol of the conversation: a 4-byte big-endian length, then
 * the body; the server answers each body reversed. */
struct Client {
  int port;
  int pairs;
  int index;
  const char* dir;
};

static void appendFile(const char* dir, const char* kind, int socket, const char* bytes, size_t n) {
  char path[512];
  snprintf(path, sizeof path, "%s/%s-%d", dir, kind, socket);
  FILE* f = fopen(path, "ab");
  fwrite(bytes, 1, n, f);
  fclose(f);
}

static void* runClient(void* argument) {
  struct Client* client = argument;
  int s = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in a = loopback(client->port);
  if (connect(s, (struct sockaddr*)&a, sizeof a) != 0) return (void*)1;
  char request[400], response[400];
  for (int i = 0; i < client->pairs; ++i) {
    int n = snprintf(request + 4, 64, "req t=%d i=%d ", client->index, i);
    int extra = (i * 37 + client->index) % 300;
    for (int k = 0; k < extra; ++k) request[4 + n + k] = (char)((i + k * 7) & 0xff);
    uint32_t body = (uint32_t)(n + extra);
    uint32_t header = htonl(body);
    memcpy(request, &header, 4);
    if (send(s, request, 4 + body, 0) != (ssize_t)(4 + body)) return (void*)2;
    appendFile(client->dir, "sent", s, request, 4 + body);
    if (readFully(s, response, 4) != 0) return (void*)3;
    uint32_t length;
    memcpy(&length, response, 4);
    length = ntohl(length);
    if (length != body || readFully(s, response + 4, length) != 0) return (void*)4;
    appendFile(client->dir, "recv", s, response, 4 + length);
    for (uint32_t k = 0; k < length; ++k) {
      if (response[4 + k] != request[4 + length - 1 - k]) return (void*)5;
    }
  }
  close(s);
  return NULL;
}

static int scenarioConversation(int port, int threads, int pairs, const char* dir) {
  pthread_t ids[16];
  struct Client clients[16];
  if (threads < 1 || threads > 16) return 2;
  for (int t = 0; t < threads; ++t) {
    clients[t] = (struct Client){port, pairs, t, dir};
    pthread_create(&ids[t], NULL, runClient, &clients[t]);
  }
  int failures = 0;
  for (int t = 0; t < threads; ++t) {
    void* status = NULL;
    pthread_join(ids[t], &status);
    failures += status != NULL;
  }
  printf("conversation failures=%d\n", failures);
  return failures == 0 ? 0 : 1;
}

static void* serveOne(void* argument) {
  int s = (int)(intptr_t)argument;
  char buffer[400];
  for (;;) {
    uint32_t length;
    if (readFully(s, (char*)&length, 4) != 0) break;
    uint32_t n = ntohl(length);
    if (n > sizeof buffer - 4 || readFully(s, buffer + 4, n) != 0) break;
    memcpy(buffer, &length, 4);
    for (uint32_t k = 0; k < n / 2; ++k) {
      char c = buffer[4 + k];
      buffer[4 + k] = buffer[4 + n - 1 - k];
      buffer[4 + n - 1 - k] = c;
    }
    if (send(s, buffer, 4 + n, 0) != (ssize_t)(4 + n)) break;
  }
  close(s);
  return NULL;
}

static int scenarioServe(const char* portFile, int count) {
  struct sockaddr_in bound;
  int l = listening(&bound);
  FILE* f = fopen(portFile, "w");
  fprintf(f, "%d\n", ntohs(bound.sin_port));
  fclose(f);
  pthread_t ids[64];
  if (count < 1 || count > 64) return 2;
  for (int i = 0; i < count; ++i) {
    int s = accept(l, NULL, NULL);
    pthread_create(&ids[i], NULL, serveOne, (void*)(intptr_t)s);
  }
  for (int i = 0; i < count; ++i) pthread_join(ids[i], NULL);
  close(l);
  return 0;
}

/* A buffer with no zero byte anywhere near: log lines must stop at the count given. */
static int scenarioUnterminated(int port) {
  int s = connected(port);
  char buffer[64];
  memset(buffer, 'X', sizeof buffer);
  memcpy(buffer, "hello", 5);
  report("send", send(s, buffer, 5, 0));
  report("write", write(s, buffer, 3));
  char back[8];
  report("echo", readFully(s, back, 8));
  report("close", close(s));
  return 0;
}

static int scenarioQueries(int port) {
  int s = connected(port);
  struct sockaddr_in a;
  socklen_t length = sizeof a;
  report("getpeername", getpeername(s, (struct sockaddr*)&a, &length));
  printf("peer port matches %d\n", ntohs(a.sin_port) == port);
  length = sizeof a;
  report("getsockname", getsockname(s, (struct sockaddr*)&a, &length));
  int value = 0;
  socklen_t valueLength = sizeof value;
  report("getsockopt", getsockopt(s, SOL_SOCKET, SO_TYPE, &value, &valueLength));
  report("getsockopt-bad", getsockopt(s, SOL_SOCKET, 12345, &value, &valueLength));
  report("getpeername-null", getpeername(s, NULL, &length));
  report("close", close(s));
  return 0;
}

/* Addresses longer than any socket address: the C library refuses them, the agent must not
 * overflow anything of its own on the way. */
static int scenarioLongAddress(int port) {
  unsigned char big[4096];
  memset(big, 0x41, sizeof big);
  struct sockaddr_in a = loopback(port);
  memcpy(big, &a, sizeof a);
  int s = socket(AF_INET, SOCK_STREAM, 0);
  printf("socket %d\n", s);
  report("connect-200", connect(s, (struct sockaddr*)big, 200));
  report("connect-4096", connect(s, (struct sockaddr*)big, sizeof big));
  report("connect-1", connect(s, (struct sockaddr*)big, 1));
  report("connect-null", connect(s, NULL, 16));
  report("connect", connect(s, (struct sockaddr*)big, 16));
  report("close", close(s));
  return 0;
}

/* Connects to a destination (rerouted when SOCKS is on), talks, and asks who the peer is. */
static int scenarioSocksEcho(int family, int port) {
  /* A send after a refused connect reports a broken pipe, as network programs have it. */
  signal(SIGPIPE, SIG_IGN);
  struct sockaddr_storage destination;
  memset(&destination, 0, sizeof destination);
  socklen_t length;
  if (family == AF_INET6) {
    struct sockaddr_in6* v6 = (struct sockaddr_in6*)&destination;
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons((uint16_t)port);
    v6->sin6_addr = in6addr_loopback;
    length = sizeof *v6;
  } else {
    *(struct sockaddr_in*)&destination = loopback(port);
    length = sizeof(struct sockaddr_in);
  }
  int s = socket(family, SOCK_STREAM, 0);
  printf("socket %d\n", s);
  report("connect", connect(s, (struct sockaddr*)&destination, length));
  report("send", send(s, "ping", 4, 0));
  char buffer[8] = {0};
  ssize_t got = recv(s, buffer, 4, MSG_WAITALL);
  report("recv", got);
  printf("recv data=%.4s\n", got > 0 ? buffer : "");
  struct sockaddr_storage peer;
  socklen_t peerLength = sizeof peer;
  memset(&peer, 0, sizeof peer);
  report("getpeername", getpeername(s, (struct sockaddr*)&peer, &peerLength));
  printf("peer is destination %d length %d\n", peerLength == length && memcmp(&peer, &destination, length) == 0,
         (int)peerLength);
  socklen_t tiny = 4;
  report("getpeername-4", getpeername(s, (struct sockaddr*)&peer, &tiny));
  printf("tiny length %d\n", (int)tiny);
  report("close", close(s));
  return 0;
}

/* Files opened and closed on other threads while a connect through a failing SOCKS server runs:
   had the socket's number been freed, one of them would take it. */
static volatile int fileOpenersStop = 0;

static void* openFilesUntilStopped(void* unused) {
  (void)unused;
  for (long round = 0; round < 100000000L && !fileOpenersStop; ++round) {
    const int fd = open("/dev/null", O_RDONLY);
    if (fd >= 0) close(fd);
  }
  return NULL;
}

static int scenarioSocksFailWhileFilesOpen(int port) {
  pthread_t openers[4];
  for (int i = 0; i < 4; ++i) pthread_create(&openers[i], NULL, openFilesUntilStopped, NULL);
  const int s = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  struct sockaddr_in a = loopback(port);
  report("connect", connect(s, (struct sockaddr*)&a, sizeof a));
  fileOpenersStop = 1;
  for (int i = 0; i < 4; ++i) pthread_join(openers[i], NULL);
  int type = 0;
  socklen_t size = sizeof type;
  const int asked = getsockopt(s, SOL_SOCKET, SO_TYPE, &type, &size);
  printf("still a stream socket %d\n", asked == 0 && type == SOCK_STREAM);
  printf("still non-blocking %d\n", (fcntl(s, F_GETFL) & O_NONBLOCK) != 0);
  report("close", close(s));
  return 0;
}

/* A non-blocking socket stays non-blocking through a rerouted connect. */
static int scenarioSocksNonBlocking(int port) {
  int s = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  printf("nonblocking before %d\n", (fcntl(s, F_GETFL) & O_NONBLOCK) != 0);
  struct sockaddr_in a = loopback(port);
  report("connect", connect(s, (struct sockaddr*)&a, sizeof a));
  printf("nonblocking after %d\n", (fcntl(s, F_GETFL) & O_NONBLOCK) != 0);
  report("close", close(s));
  return 0;
}

static int concurrentSocket;
static int concurrentPort;

static void* connectInThread(void* unused) {
  (void)unused;
  struct sockaddr_in a = loopback(concurrentPort);
  long result = connect(concurrentSocket, (struct sockaddr*)&a, sizeof a);
  return (void*)result;
}

/* A send from a second thread while the first is still in the SOCKS exchange on that socket. */
static int scenarioSocksConcurrentSend(int port) {
  concurrentSocket = socket(AF_INET, SOCK_STREAM, 0);
  concurrentPort = port;
  pthread_t connector;
  pthread_create(&connector, NULL, connectInThread, NULL);
  usleep(200000);
  report("send", send(concurrentSocket, "late", 4, 0));
  void* connected = NULL;
  pthread_join(connector, &connected);
  printf("connect result=%ld\n", (long)connected);
  char buffer[8];
  report("recv", recv(concurrentSocket, buffer, 4, MSG_WAITALL));
  report("close", close(concurrentSocket));
  return 0;
}

/* A tiny text protocol for readable recordings: one request per connection, answered with a
 * fixed page, like an HTTP/1.0 server. */
static void* answerOne(void* argument) {
  int s = (int)(intptr_t)argument;
  char request[512];
  size_t got = 0;
  while (got < sizeof request - 1) {
    ssize_t r = recv(s, request + got, sizeof request - 1 - got, 0);
    if (r <= 0) break;
    got += (size_t)r;
    request[got] = '\0';
    if (strstr(request, "\r\n\r\n") != NULL) break;
  }
  const char* body = "Hello, world!\n";
  char response[256];
  int n = snprintf(response, sizeof response, "HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\nContent-Length: %d\r\n\r\n%s",
                   (int)strlen(body), body);
  send(s, response, (size_t)n, 0);
  close(s);
  return NULL;
}

static int scenarioHttpServe(const char* portFile, int count) {
  struct sockaddr_in bound;
  int l = listening(&bound);
  FILE* f = fopen(portFile, "w");
  fprintf(f, "%d\n", ntohs(bound.sin_port));
  fclose(f);
  for (int i = 0; i < count; ++i) {
    int s = accept(l, NULL, NULL);
    answerOne((void*)(intptr_t)s);
  }
  close(l);
  return 0;
}

static int scenarioHttpGet(int port, int argc, char** paths) {
  for (int i = 0; i < argc; ++i) {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in a = loopback(port);
    if (connect(s, (struct sockaddr*)&a, sizeof a) != 0) return 3;
    char request[256];
    int n = snprintf(request, sizeof request, "GET %s HTTP/1.0\r\nHost: demo\r\n\r\n", paths[i]);
    send(s, request, (size_t)n, 0);
    char response[512];
    size_t got = 0;
    ssize_t r;
    while ((r = recv(s, response + got, sizeof response - 1 - got, 0)) > 0) got += (size_t)r;
    response[got] = '\0';
    printf("%s -> %.15s\n", paths[i], response);
    close(s);
  }
  return 0;
}

static double elapsedNs(const struct timespec* from) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (now.tv_sec - from->tv_sec) * 1e9 + (now.tv_nsec - from->tv_nsec);
}

/* Times `rounds` request/response pairs of 64 bytes on a connected socket and as many writes to
 * /dev/null, from inside the process, so that start-up does not count. */
static int scenarioLoop(int port, int rounds, size_t size, int others) {
  /* Other sockets open beside the one that talks, as in a busy server. */
  struct rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  for (int i = 0; i < others; ++i) {
    if (socket(AF_INET, SOCK_STREAM, 0) < 0) return 6;
  }
  int s = connected(port);
  char* buffer = malloc(size);
  if (buffer == NULL) return 2;
  memset(buffer, 'q', size);
  struct timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  for (int i = 0; i < rounds; ++i) {
    if (send(s, buffer, size, 0) != (ssize_t)size) return 3;
    if (readFully(s, buffer, size) != 0) return 4;
  }
  const double socketNs = elapsedNs(&start);
  int file = open("/dev/null", O_WRONLY);
  clock_gettime(CLOCK_MONOTONIC, &start);
  for (int i = 0; i < rounds; ++i) {
    if (write(file, buffer, size) != (ssize_t)size) return 5;
  }
  const double fileNs = elapsedNs(&start);
  close(file);
  close(s);
  free(buffer);
  printf("pair_ns %.0f\nwrite_ns %.0f\n", socketNs / rounds, fileNs / rounds);
  return 0;
}

/* `rounds` exchanges of 8 bytes with the echo server, `pauseMs` apart: a program that keeps
 * talking while its recorder comes and goes. */
static int scenarioPaced(int port, int rounds, int pauseMs) {
  int s = connected(port);
  char buffer[8] = "paced-00";
  for (int i = 0; i < rounds; ++i) {
    buffer[6] = (char)('0' + (i / 10) % 10);
    buffer[7] = (char)('0' + i % 10);
    if (send(s, buffer, sizeof buffer, 0) != (ssize_t)sizeof buffer) return 3;
    if (readFully(s, buffer, sizeof buffer) != 0) return 4;
    usleep((useconds_t)pauseMs * 1000);
  }
  close(s);
  printf("paced %d\n", rounds);
  return 0;
}

/* More vectors than the kernel takes: it refuses the send with EMSGSIZE. */
static int scenarioManyVectors(int port) {
  int s = connected(port);
  enum { kVectors = 1025 };
  static char bytes[kVectors];
  static struct iovec vectors[kVectors];
  for (int i = 0; i < kVectors; ++i) {
    bytes[i] = (char)('a' + i % 26);
    vectors[i].iov_base = &bytes[i];
    vectors[i].iov_len = 1;
  }
  struct msghdr message;
  memset(&message, 0, sizeof message);
  message.msg_iov = vectors;
  message.msg_iovlen = kVectors;
  report("sendmsg", sendmsg(s, &message, 0));
  report("close", close(s));
  return 0;
}

/* A message header with no vector array at all, sent and received. */
static int scenarioNoVectors(int port) {
  int s = connected(port);
  struct msghdr message;
  memset(&message, 0, sizeof message);
  report("sendmsg", sendmsg(s, &message, 0));
  /* With bytes waiting, a receive into no vectors takes none of them and returns 0. */
  report("send", send(s, "x", 1, 0));
  struct pollfd p = {s, POLLIN, 0};
  poll(&p, 1, 5000);
  report("recvmsg", recvmsg(s, &message, MSG_DONTWAIT));
  report("close", close(s));
  return 0;
}

/* A non-blocking connect whose outcome the program learns from SO_ERROR after a poll. */
static int scenarioConnectOutcome(int port) {
  int s = connectAndPoll(port);
  int pending = -1;
  socklen_t length = sizeof pending;
  report("getsockopt", getsockopt(s, SOL_SOCKET, SO_ERROR, &pending, &length));
  printf("so_error %d\n", pending);
  /* Asked again, the answer is the same; the outcome was told once. */
  report("getsockopt", getsockopt(s, SOL_SOCKET, SO_ERROR, &pending, &length));
  report("close", close(s));
  return 0;
}

/* One connection through two descriptors: the original and its copy. */
static int scenarioDuplicate(int port) {
  int s = connected(port);
  report("send", send(s, "one", 3, 0));
  int copy = dup(s);
  printf("copy %d\n", copy);
  report("send", send(copy, "two", 3, 0));
  char back[6];
  report("echo", readFully(copy, back, sizeof back));
  report("close", close(copy));
  report("close", close(s));
  return 0;
}

/* A datagram and a socketpair: traffic the recording does not hold. */
static int scenarioUnrecordedSockets(int port) {
  int u = socket(AF_INET, SOCK_DGRAM, 0);
  struct sockaddr_in a = loopback(port);
  report("sendto", sendto(u, "x", 1, 0, (struct sockaddr*)&a, sizeof a));
  int pair[2];
  report("socketpair", socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
  report("write", write(pair[0], "hello", 5));
  char buffer[8];
  report("read", read(pair[1], buffer, sizeof buffer));
  report("write", write(pair[0], "again", 5));
  report("read", read(pair[1], buffer, sizeof buffer));
  close(pair[0]);
  close(pair[1]);
  close(u);
  return 0;
}

int main(int argc, char** argv) {
  setvbuf(stdout, NULL, _IONBF, 0);
  const char* s = argc >= 2 ? argv[1] : "";
  if (strcmp(s, "nonblock-connect") == 0 && argc >= 3) return scenarioNonBlockingConnect(atoi(argv[2]));
  if (strcmp(s, "udp") == 0 && argc >= 3) return scenarioUdp(atoi(argv[2]));
  if (strcmp(s, "accept-twice") == 0) return scenarioAcceptTwice();
  if (strcmp(s, "send-zero") == 0 && argc >= 3) return scenarioSendZero(atoi(argv[2]));
  if (strcmp(s, "recv-eagain") == 0 && argc >= 3) return scenarioRecvEagain(atoi(argv[2]));
  if (strcmp(s, "recv-zero") == 0 && argc >= 3) return scenarioRecvZero(atoi(argv[2]));
  if (strcmp(s, "vectors") == 0 && argc >= 3) return scenarioVectors(atoi(argv[2]));
  if (strcmp(s, "many-vectors") == 0 && argc >= 3) return scenarioManyVectors(atoi(argv[2]));
  if (strcmp(s, "no-vectors") == 0 && argc >= 3) return scenarioNoVectors(atoi(argv[2]));
  if (strcmp(s, "connect-outcome") == 0 && argc >= 3) return scenarioConnectOutcome(atoi(argv[2]));
  if (strcmp(s, "duplicate") == 0 && argc >= 3) return scenarioDuplicate(atoi(argv[2]));
  if (strcmp(s, "unrecorded-sockets") == 0 && argc >= 3) return scenarioUnrecordedSockets(atoi(argv[2]));
  if (strcmp(s, "bytes") == 0 && argc >= 4) return scenarioBytes(atoi(argv[2]), atol(argv[3]));
  if (strcmp(s, "big-vectors") == 0 && argc >= 3) return scenarioBigVectors(atoi(argv[2]));
  if (strcmp(s, "unix") == 0 && argc >= 3) return scenarioUnix(argv[2]);
  if (strcmp(s, "resolve") == 0 && argc >= 4) return scenarioResolve(argv[2], argv[3]);
  if (strcmp(s, "select-ready") == 0 && argc >= 3) return scenarioSelectReady(atoi(argv[2]));
  if (strcmp(s, "select-two-ready") == 0 && argc >= 3) return scenarioSelectTwoReady(atoi(argv[2]));
  if (strcmp(s, "setsockopt26") == 0) return scenarioSetsockopt26();
  if (strcmp(s, "legacy-resolve") == 0) return scenarioLegacyResolve();
  if (strcmp(s, "bind-self") == 0) return scenarioBindSelf();
  if (strcmp(s, "close-twice") == 0) return scenarioCloseTwice();
  if (strcmp(s, "unterminated") == 0 && argc >= 3) return scenarioUnterminated(atoi(argv[2]));
  if (strcmp(s, "queries") == 0 && argc >= 3) return scenarioQueries(atoi(argv[2]));
  if (strcmp(s, "long-address") == 0 && argc >= 3) return scenarioLongAddress(atoi(argv[2]));
  if (strcmp(s, "socks-echo") == 0 && argc >= 3) return scenarioSocksEcho(AF_INET, atoi(argv[2]));
  if (strcmp(s, "socks-echo6") == 0 && argc >= 3) return scenarioSocksEcho(AF_INET6, atoi(argv[2]));
  if (strcmp(s, "socks-nonblocking") == 0 && argc >= 3) return scenarioSocksNonBlocking(atoi(argv[2]));
  if (strcmp(s, "socks-fail-busy") == 0 && argc >= 3) return scenarioSocksFailWhileFilesOpen(atoi(argv[2]));
  if (strcmp(s, "socks-concurrent-send") == 0 && argc >= 3) return scenarioSocksConcurrentSend(atoi(argv[2]));
  if (strcmp(s, "conversation") == 0 && argc >= 6)
    return scenarioConversation(atoi(argv[2]), atoi(argv[3]), atoi(argv[4]), argv[5]);
  if (strcmp(s, "serve") == 0 && argc >= 4) return scenarioServe(argv[2], atoi(argv[3]));
  if (strcmp(s, "loop") == 0 && argc >= 4) {
    return scenarioLoop(atoi(argv[2]), atoi(argv[3]), argc >= 5 ? (size_t)strtoul(argv[4], NULL, 10) : 64,
                        argc >= 6 ? atoi(argv[5]) : 0);
  }
  if (strcmp(s, "paced") == 0 && argc >= 5) return scenarioPaced(atoi(argv[2]), atoi(argv[3]), atoi(argv[4]));
  if (strcmp(s, "http-serve") == 0 && argc >= 4) return scenarioHttpServe(argv[2], atoi(argv[3]));
  if (strcmp(s, "http-get") == 0 && argc >= 4) return scenarioHttpGet(atoi(argv[2]), argc - 3, argv + 3);
  fprintf(stderr, "usage: recording_probe SCENARIO ARGS (see the source for the scenarios)\n");
  return 2;
}
