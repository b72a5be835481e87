/* Programs that are legal but unkind to a preloaded library: signal handlers that make socket
 * calls, forks from threaded processes, pointers the C library refuses, buffers that end at an
 * unmapped page, daemons that close every descriptor. Each scenario prints what it saw, so that a
 * test compares the run under the agent with the same run without it. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "probe_support.h"

#ifndef IPPROTO_UDPLITE
#define IPPROTO_UDPLITE 136
#endif

static int connectedTo(int port) {
  int s = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in a = loopback(port);
  if (connect(s, (struct sockaddr*)&a, sizeof a) != 0) {
    perror("connect");
    exit(3);
  }
  return s;
}

/* `size` bytes that end exactly where an inaccessible page begins: one byte too far faults. */
static char* beforeGuardPage(size_t size) {
  const size_t page = (size_t)sysconf(_SC_PAGESIZE);
  const size_t span = (size + page - 1) / page * page;
  char* area = mmap(NULL, span + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (area == MAP_FAILED) exit(4);
  mprotect(area + span, page, PROT_NONE);
  return area + span - size;
}

/* ---- signal handlers that call into the socket functions ---- */

static int handlerPipe[2];
static int handlerSocket = -1;
static volatile sig_atomic_t handlerCalls = 0;
static int handlerMode = 0; /* 0 write on a pipe, 1 send on a socket */

static void onAlarm(int number) {
  (void)number;
  const int saved = errno;
  if (handlerMode == 0) {
    if (write(handlerPipe[1], "x", 1) < 0) { /* a full pipe is fine */
    }
  } else {
    send(handlerSocket, "x", 1, MSG_NOSIGNAL | MSG_DONTWAIT);
  }
  ++handlerCalls;
  errno = saved;
}

static int scenarioSignalReentry(int port, const char* mode) {
  handlerMode = strcmp(mode, "send") == 0 ? 1 : 0;
  if (pipe2(handlerPipe, O_NONBLOCK) != 0) return 4;
  handlerSocket = connectedTo(port);
  int s = connectedTo(port);
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = onAlarm;
  action.sa_flags = SA_RESTART;
  sigaction(SIGALRM, &action, NULL);
  struct itimerval every = {{0, 300}, {0, 300}};
  setitimer(ITIMER_REAL, &every, NULL);
  char buffer[16];
  int exchanges = 0;
  for (int i = 0; i < 1500; ++i) {
    /* Registry changes too, so that a signal often lands while its locks are held. */
    close(socket(AF_INET, SOCK_STREAM, 0));
    if (send(s, "hello", 5, MSG_NOSIGNAL) != 5) break;
    size_t got = 0;
    while (got < 5) {
      ssize_t r = recv(s, buffer, 5 - got, 0);
      if (r <= 0) break;
      got += (size_t)r;
    }
    char drain[64];
    while (read(handlerPipe[0], drain, sizeof drain) > 0) {
    }
    ++exchanges;
  }
  struct itimerval stop = {{0, 0}, {0, 0}};
  setitimer(ITIMER_REAL, &stop, NULL);
  printf("exchanges %d, handler ran: %s\n", exchanges, handlerCalls > 0 ? "yes" : "no");
  return 0;
}

/* ---- fork while another thread records ---- */

static volatile int keepTalking = 1;
static int talkPort = 0;

static void* talk(void* unused) {
  (void)unused;
  int s = connectedTo(talkPort);
  char buffer[8];
  while (keepTalking) {
    if (send(s, "ping", 4, MSG_NOSIGNAL) != 4) break;
    if (recv(s, buffer, 4, MSG_WAITALL) != 4) break;
  }
  close(s);
  return NULL;
}

static int scenarioForkWhileRecording(int port, int children) {
  talkPort = port;
  pthread_t thread;
  pthread_create(&thread, NULL, talk, NULL);
  int hung = 0, failed = 0;
  for (int i = 0; i < children; ++i) {
    pid_t child = fork();
    if (child == 0) {
      int s = connectedTo(port);
      char buffer[8];
      const int ok = send(s, "kid!", 4, MSG_NOSIGNAL) == 4 && recv(s, buffer, 4, MSG_WAITALL) == 4;
      close(s);
      _exit(ok ? 0 : 1);
    }
    int status = 0;
    int waitedMs = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
      if (waitedMs >= 10000) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        ++hung;
        break;
      }
      struct timespec pause = {0, 1000000};
      nanosleep(&pause, NULL);
      ++waitedMs;
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) != 0) ++failed;
  }
  keepTalking = 0;
  pthread_join(thread, NULL);
  printf("children %d hung %d failed %d\n", children, hung, failed);
  return 0;
}

/* A parent that talks, then three children one after the other, each talking for itself. */
static int scenarioForkChildren(int port) {
  char buffer[8];
  int s = connectedTo(port);
  send(s, "parent", 6, MSG_NOSIGNAL);
  recv(s, buffer, 6, MSG_WAITALL);
  close(s);
  printf("parent %d\n", (int)getpid());
  for (int i = 0; i < 3; ++i) {
    pid_t child = fork();
    if (child == 0) {
      int c = connectedTo(port);
      send(c, "child", 5, MSG_NOSIGNAL);
      recv(c, buffer, 5, MSG_WAITALL);
      close(c);
      printf("child %d\n", (int)getpid());
      _exit(0);
    }
    waitpid(child, NULL, 0);
  }
  return 0;
}

/* ---- pointers the C library refuses or reads only in part ---- */

static int scenarioBadPointers(int port) {
  int s = socket(AF_INET, SOCK_STREAM, 0);
  errno = 0;
  report("connect to 0x10", connect(s, (struct sockaddr*)0x10, 16));
  report("send from 0x10 unconnected", send(s, (void*)0x10, 100, MSG_NOSIGNAL));
  report("sendto from 0x10 to 0x10", sendto(s, (void*)0x10, 100, MSG_NOSIGNAL, (struct sockaddr*)0x10, 16));
  report("sendmsg of header 0x10", sendmsg(s, (struct msghdr*)0x10, MSG_NOSIGNAL));
  close(s);

  s = connectedTo(port);
  char buffer[64];
  struct sockaddr_in from;
  /* Nothing has arrived yet: the C library answers EAGAIN without looking at the length. */
  report("recvfrom with length at 0x10",
         recvfrom(s, buffer, sizeof buffer, MSG_DONTWAIT, (struct sockaddr*)&from, (socklen_t*)0x10));
  report("send from 0x10 connected", send(s, (void*)0x10, 100, MSG_NOSIGNAL));
  /* Ten readable bytes, then a page that faults: the kernel takes the ten. */
  char* tail = beforeGuardPage(10);
  memcpy(tail, "0123456789", 10);
  report("send past the end of the buffer", send(s, tail, 100, MSG_NOSIGNAL));
  struct iovec vectors[2] = {{(void*)"ab", 2}, {tail, 100}};
  struct msghdr header;
  memset(&header, 0, sizeof header);
  header.msg_iov = vectors;
  header.msg_iovlen = 2;
  report("sendmsg past the end of the buffer", sendmsg(s, &header, MSG_NOSIGNAL));
  /* A receive of nothing into a buffer of nothing, whose first byte is the last of its page; with
   * data waiting, so that the C library answers 0 at once. */
  send(s, "echo", 4, MSG_NOSIGNAL);
  struct pollfd readable = {s, POLLIN, 0};
  poll(&readable, 1, 5000);
  char* last = beforeGuardPage(1);
  *last = 'A';
  errno = 0;
  report("recv of length 0", recv(s, last, 0, 0));
  close(s);
  return 0;
}

/* A datagram protocol the agent records (UDP-Lite), read with MSG_TRUNC into a 4-byte buffer. */
static int scenarioTruncatedDatagram(void) {
  int a = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDPLITE);
  int b = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDPLITE);
  if (a < 0 || b < 0) {
    printf("no udplite\n");
    return 0;
  }
  struct sockaddr_in bound = loopback(0);
  bind(a, (struct sockaddr*)&bound, sizeof bound);
  socklen_t length = sizeof bound;
  getsockname(a, (struct sockaddr*)&bound, &length);
  char datagram[64];
  for (int i = 0; i < 64; ++i) datagram[i] = (char)('A' + i % 26);
  report("sendto", sendto(b, datagram, sizeof datagram, 0, (struct sockaddr*)&bound, sizeof bound));
  char* four = beforeGuardPage(4);
  const ssize_t got = recv(a, four, 4, MSG_TRUNC);
  report("recv MSG_TRUNC", got);
  printf("bytes %.4s\n", four);
  return 0;
}

/* An accept whose peer reset the connection before it was accepted, into a 4-byte buffer. */
static int scenarioAcceptGone(void) {
  int l = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in bound = loopback(0);
  bind(l, (struct sockaddr*)&bound, sizeof bound);
  listen(l, 4);
  socklen_t length = sizeof bound;
  getsockname(l, (struct sockaddr*)&bound, &length);
  int c = socket(AF_INET, SOCK_STREAM, 0);
  connect(c, (struct sockaddr*)&bound, sizeof bound);
  struct linger reset = {1, 0};
  setsockopt(c, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  close(c);
  struct timespec pause = {0, 50 * 1000 * 1000};
  nanosleep(&pause, NULL);
  char* four = beforeGuardPage(4);
  socklen_t size = 4;
  const int accepted = accept(l, (struct sockaddr*)four, &size);
  printf("accept %s length %u\n", accepted >= 0 ? "ok" : "failed", (unsigned)size);
  return 0;
}

/* ---- descriptors ---- */

/* A daemon's start: close everything above the standard three, open the data file. */
static int scenarioCloseAllThenOpen(const char* path) {
  close(socket(AF_INET, SOCK_STREAM, 0));
  for (int fd = 3; fd < 256; ++fd) close(fd);
  int data = open(path, O_CREAT | O_RDWR | O_TRUNC, 0600);
  for (int i = 0; i < 5; ++i) close(socket(AF_INET, SOCK_STREAM, 0));
  if (write(data, "data\n", 5) != 5) return 5;
  close(data);
  char content[4096];
  int again = open(path, O_RDONLY);
  const ssize_t n = read(again, content, sizeof content);
  close(again);
  printf("data file holds %zd bytes: %.*s", n, (int)(n > 0 ? n : 0), content);
  return 0;
}

static int listDescriptors(void) {
  DIR* directory = opendir("/proc/self/fd");
  const int own = dirfd(directory);
  int extra = 0;
  for (struct dirent* entry; (entry = readdir(directory)) != NULL;) {
    const int fd = atoi(entry->d_name);
    if (entry->d_name[0] != '.' && fd > 2 && fd != own) {
      printf("inherited descriptor %d\n", fd);
      ++extra;
    }
  }
  closedir(directory);
  printf("inherited %d\n", extra);
  return 0;
}

static int scenarioExecAfterRecording(const char* self, int port) {
  int s = connectedTo(port);
  send(s, "x", 1, MSG_NOSIGNAL);
  close(s);
  fflush(stdout);
  execl(self, self, "list-fds", (char*)NULL);
  return 6;
}

/* Records a connection, then becomes another program (of the other ABI, in the tests). */
static int scenarioRunAfterRecording(int port, char** program) {
  int s = connectedTo(port);
  send(s, "before exec", 11, MSG_NOSIGNAL);
  char echo[11];
  recv(s, echo, sizeof echo, MSG_WAITALL);
  close(s);
  execv(program[0], program);
  return 6;
}

static int scenarioKilledAfterCalls(int calls) {
  for (int i = 0; i < calls; ++i) close(socket(AF_INET, SOCK_STREAM, 0));
  raise(SIGKILL);
  return 7;
}

/* The C library closes the socket behind the agent's back; a file takes its number. */
static int scenarioClosedByStdio(int port, const char* path) {
  int s = connectedTo(port);
  send(s, "abc", 3, MSG_NOSIGNAL);
  char echo[3];
  recv(s, echo, 3, MSG_WAITALL);
  fclose(fdopen(s, "r+"));
  int file = open(path, O_RDONLY);
  char content[64];
  const ssize_t n = read(file, content, sizeof content);
  printf("same number %s, read %zd\n", file == s ? "yes" : "no", n);
  close(file);
  return 0;
}

/* ---- threads against shared state ---- */

static void* nameTypes(void* unused) {
  (void)unused;
  for (int i = 0; i < 2000; ++i) close(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  return NULL;
}

static int scenarioTypeNamesFromThreads(int port) {
  pthread_t threads[4];
  for (int i = 0; i < 4; ++i) pthread_create(&threads[i], NULL, nameTypes, NULL);
  for (int i = 0; i < 4; ++i) pthread_join(threads[i], NULL);
  int s = connectedTo(port);
  send(s, "after", 5, MSG_NOSIGNAL);
  close(s);
  printf("named\n");
  return 0;
}

static void* connectSendClose(void* portPointer) {
  const int port = *(int*)portPointer;
  for (int i = 0; i < 300; ++i) {
    int s = connectedTo(port);
    send(s, "x", 1, MSG_NOSIGNAL);
    close(s);
  }
  return NULL;
}

static int scenarioDescriptorReuse(int port) {
  pthread_t threads[4];
  for (int i = 0; i < 4; ++i) pthread_create(&threads[i], NULL, connectSendClose, &port);
  for (int i = 0; i < 4; ++i) pthread_join(threads[i], NULL);
  printf("reused\n");
  return 0;
}

static pthread_barrier_t startLine;

static void* firstCallsTogether(void* portPointer) {
  const int port = *(int*)portPointer;
  pthread_barrier_wait(&startLine);
  int s = connectedTo(port);
  send(s, "first", 5, MSG_NOSIGNAL);
  close(s);
  return NULL;
}

/* Eight threads whose first socket calls are the process's first. */
static int scenarioStartupRace(int port) {
  pthread_t threads[8];
  pthread_barrier_init(&startLine, NULL, 8);
  for (int i = 0; i < 8; ++i) pthread_create(&threads[i], NULL, firstCallsTogether, &port);
  for (int i = 0; i < 8; ++i) pthread_join(threads[i], NULL);
  printf("pid %d\n", (int)getpid());
  return 0;
}

/* The agent's persistent channel sits on a high descriptor; a host that closes it behind the
 * agent's back and puts a socket of its own on that number must never receive a message there.
 * Here the host's socket talks to the echo server, so any byte the agent wrote into it comes
 * back: the probe prints how many. */
static int scenarioChannelNumberTaken(int port) {
  int s = connectedTo(port);
  char buffer[4096];
  send(s, "one", 3, MSG_NOSIGNAL);
  recv(s, buffer, sizeof buffer, 0);
  int channel = -1;
  for (int fd = 512; fd < 1024 && channel < 0; ++fd) {
    struct stat status;
    if (fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode)) channel = fd;
  }
  printf("channel found %d\n", channel >= 512);
  int host = connectedTo(port);
  dup2(host, channel); /* the C library's dup2: the agent does not see it */
  send(s, "two", 3, MSG_NOSIGNAL);
  recv(s, buffer, sizeof buffer, 0);
  struct pollfd wait = {channel, POLLIN, 0};
  long leaked = 0;
  while (poll(&wait, 1, 500) > 0) {
    ssize_t n = recv(channel, buffer, sizeof buffer, MSG_DONTWAIT);
    if (n <= 0) break;
    leaked += n;
  }
  printf("leaked %ld\n", leaked);
  close(s);
  return 0;
}

/* ---- sizes ---- */

/* One sendmsg of `count` copies of `byte`, without waiting: whatever the socket takes. */
static int scenarioHugeSend(int port, int byte, size_t count) {
  char* data = malloc(count);
  if (data == NULL) {
    printf("no memory\n");
    return 0;
  }
  memset(data, byte, count);
  int s = connectedTo(port);
  struct iovec vector = {data, count};
  struct msghdr header;
  memset(&header, 0, sizeof header);
  header.msg_iov = &vector;
  header.msg_iovlen = 1;
  const ssize_t sent = sendmsg(s, &header, MSG_NOSIGNAL | MSG_DONTWAIT);
  printf("sendmsg %s\n", sent > 0 ? "took some" : "took none");
  const ssize_t plain = send(s, data, count, MSG_NOSIGNAL | MSG_DONTWAIT);
  printf("send %s\n", plain > 0 || errno == EAGAIN ? "done" : "failed");
  close(s);
  free(data);
  return 0;
}

int main(int argc, char** argv) {
  setvbuf(stdout, NULL, _IONBF, 0);
  if (argc < 2) return 2;
  const char* mode = argv[1];
  const int port = argc > 2 ? atoi(argv[2]) : 0;
  if (strcmp(mode, "signal-reentry") == 0 && argc > 3) return scenarioSignalReentry(port, argv[3]);
  if (strcmp(mode, "fork-while-recording") == 0) return scenarioForkWhileRecording(port, 40);
  if (strcmp(mode, "fork-children") == 0) return scenarioForkChildren(port);
  if (strcmp(mode, "bad-pointers") == 0) return scenarioBadPointers(port);
  if (strcmp(mode, "truncated-datagram") == 0) return scenarioTruncatedDatagram();
  if (strcmp(mode, "accept-gone") == 0) return scenarioAcceptGone();
  if (strcmp(mode, "close-all-then-open") == 0 && argc > 2) return scenarioCloseAllThenOpen(argv[2]);
  if (strcmp(mode, "list-fds") == 0) return listDescriptors();
  if (strcmp(mode, "run-after-recording") == 0 && argc > 3) return scenarioRunAfterRecording(port, argv + 3);
  if (strcmp(mode, "exec-after-recording") == 0) return scenarioExecAfterRecording(argv[0], port);
  if (strcmp(mode, "killed-after-calls") == 0) return scenarioKilledAfterCalls(port);
  if (strcmp(mode, "closed-by-stdio") == 0 && argc > 3) return scenarioClosedByStdio(port, argv[3]);
  if (strcmp(mode, "type-names-from-threads") == 0) return scenarioTypeNamesFromThreads(port);
  if (strcmp(mode, "descriptor-reuse") == 0) return scenarioDescriptorReuse(port);
  if (strcmp(mode, "startup-race") == 0) return scenarioStartupRace(port);
  if (strcmp(mode, "channel-number-taken") == 0) return scenarioChannelNumberTaken(port);
  if (strcmp(mode, "huge-send") == 0 && argc > 4) {
    return scenarioHugeSend(port, (int)strtol(argv[3], NULL, 0), (size_t)strtoul(argv[4], NULL, 10));
  }
  fprintf(stderr, "unknown scenario %s\n", mode);
  return 2;
}
