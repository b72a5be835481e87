/* A 32-bit program of scripted socket and file calls that prints every result and errno, so that
 * a test can run it with and without the agent preloaded and compare. Descriptor numbers are
 * printed only as "valid" or not: the agent may hold descriptors of its own. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include "probe_support.h"

/* The C++ name of the exit-message sender: its 64-bit count is a long long on i386, a long on
 * x86-64, and the name encodes it. */
#if defined(__x86_64__)
#define EMIT_END_OF_PROCESS "_ZN14AgentInterface16emitEndOfProcessEPKcS1_l"
#else
#define EMIT_END_OF_PROCESS "_ZN14AgentInterface16emitEndOfProcessEPKcS1_x"
#endif


/* Every hooked call once, on sockets and files, with outcomes that do not depend on the agent. */
static int scenarioCalls(int echoPort, int closedPort, const char* filePath) {
  int s = socket(AF_INET, SOCK_STREAM, 0);
  printf("socket valid=%d errno=%d\n", s >= 0, s >= 0 ? 0 : errno);
  struct sockaddr_in refused = loopback(closedPort);
  errno = 0;
  report("connect-refused", connect(s, (struct sockaddr*)&refused, sizeof refused));
  report("close", close(s));

  s = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in echo = loopback(echoPort);
  report("connect", connect(s, (struct sockaddr*)&echo, sizeof echo));
  int one = 1;
  report("setsockopt", setsockopt(s, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof one));
  int type = 0;
  socklen_t typeLength = sizeof type;
  report("getsockopt", getsockopt(s, SOL_SOCKET, SO_TYPE, &type, &typeLength));
  printf("getsockopt type=%d\n", type);
  struct sockaddr_in peer;
  socklen_t peerLength = sizeof peer;
  report("getpeername", getpeername(s, (struct sockaddr*)&peer, &peerLength));
  printf("getpeername port-matches=%d\n", ntohs(peer.sin_port) == echoPort);
  struct sockaddr_in self;
  socklen_t selfLength = sizeof self;
  report("getsockname", getsockname(s, (struct sockaddr*)&self, &selfLength));
  report("send", send(s, "hello", 5, 0));
  char buffer[64] = {0};
  ssize_t got = recv(s, buffer, 5, MSG_WAITALL);
  report("recv", got);
  printf("recv data=%.*s\n", got > 0 ? (int)got : 0, buffer);
  report("write-socket", write(s, "again", 5));
  memset(buffer, 0, sizeof buffer);
  got = read(s, buffer, 5);
  report("read-socket", got);
  struct iovec out[2] = {{(void*)"ab", 2}, {(void*)"cde", 3}};
  struct msghdr message;
  memset(&message, 0, sizeof message);
  message.msg_iov = out;
  message.msg_iovlen = 2;
  report("sendmsg", sendmsg(s, &message, 0));
  char in1[2], in2[8];
  struct iovec inv[2] = {{in1, sizeof in1}, {in2, 3}};
  message.msg_iov = inv;
  message.msg_iovlen = 2;
  report("recvmsg", recvmsg(s, &message, MSG_WAITALL));
  printf("recvmsg data=%.2s%.3s\n", in1, in2);
  report("sendto", sendto(s, "xy", 2, 0, NULL, 0));
  struct sockaddr_in from;
  socklen_t fromLength = sizeof from;
  report("recvfrom", recvfrom(s, buffer, 2, MSG_WAITALL, (struct sockaddr*)&from, &fromLength));
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(s, &readable);
  struct timeval zero = {0, 0};
  report("select-timeout", select(s + 1, &readable, NULL, NULL, &zero));
  struct timespec zeroSpec = {0, 0};
  FD_ZERO(&readable);
  FD_SET(s, &readable);
  report("pselect-timeout", pselect(s + 1, &readable, NULL, NULL, &zeroSpec, NULL));
  report("close", close(s));
  report("close-again", close(s));
  report("send-closed", send(s, "x", 1, 0));
  report("recv-closed", recv(s, buffer, 1, 0));
  report("socket-bad-family", socket(12345, SOCK_STREAM, 0));
  report("connect-bad-fd", connect(-1, (struct sockaddr*)&echo, sizeof echo));

  struct addrinfo hints;
  memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* resolved = NULL;
  report("getaddrinfo", getaddrinfo("127.0.0.1", "80", &hints, &resolved));
  if (resolved != NULL) freeaddrinfo(resolved);

  int file = open(filePath, O_CREAT | O_WRONLY | O_TRUNC, 0600);
  errno = 0;
  report("write-file", write(file, "file-data", 9));
  report("close-file", close(file));
  file = open(filePath, O_RDONLY);
  memset(buffer, 0, sizeof buffer);
  report("read-file", read(file, buffer, sizeof buffer - 1));
  printf("read-file data=%s\n", buffer);
  report("read-file-eof", read(file, buffer, sizeof buffer - 1));
  report("close-file", close(file));
  report("write-bad-fd", write(-1, "x", 1));
  report("read-bad-fd", read(-1, buffer, 1));
  return 0;
}

/* What dlsym hands out: for a hooked name, the agent's hook when the agent is there. */
static void describe(const char* label, void* address) {
  Dl_info info;
  if (address == NULL || dladdr(address, &info) == 0) {
    printf("%s null\n", label);
    return;
  }
  const char* file = strrchr(info.dli_fname, '/');
  printf("%s file=%s symbol=%s\n", label, file ? file + 1 : info.dli_fname,
         info.dli_sname ? info.dli_sname : "?");
}

static int scenarioDlsym(void) {
  describe("next-connect", dlsym(RTLD_NEXT, "connect"));
  describe("default-connect", dlsym(RTLD_DEFAULT, "connect"));
  describe("default-strlen", dlsym(RTLD_DEFAULT, "strlen"));
  void* missing = dlsym(RTLD_DEFAULT, "talvex_no_such_symbol");
  printf("missing null=%d error-set=%d\n", missing == NULL, dlerror() != NULL);
  (void)dlsym(RTLD_DEFAULT, "strlen");
  printf("after-success error-set=%d\n", dlerror() != NULL);
  int* initFlag = (int*)dlsym(RTLD_DEFAULT, "globalInit");
  printf("globalInit %s\n", initFlag ? (*initFlag ? "1" : "0") : "absent");
  return 0;
}

static int scenarioPselectOnce(void) {
  struct timespec zero = {0, 0};
  errno = 0;
  report("pselect", pselect(0, NULL, NULL, NULL, &zero, NULL));
  return 0;
}

/* A lookup in a library that defines strlen itself, once the agent has started. */
static int scenarioDlsymStrlen(const char* library) {
  close(socket(AF_INET, SOCK_STREAM, 0));
  void* handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
  if (handle == NULL) return 3;
  describe("handle-strlen", dlsym(handle, "strlen"));
  return 0;
}

/* The first call of the process is a close of something that is not a socket; then a recorded
 * connection, whose tickets tell in which order start-up and that close drew theirs. */
static int scenarioFirstCloseThenConnect(int port) {
  errno = 0;
  report("close", close(12345));
  int s = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in a = loopback(port);
  report("connect", connect(s, (struct sockaddr*)&a, sizeof a));
  report("close", close(s));
  return 0;
}

/* The side doors work before, and without, the agent's start-up. */
static int scenarioDirect(int port) {
  typedef int (*SocketFunction)(int, int, int);
  typedef int (*ConnectFunction)(int, const struct sockaddr*, socklen_t);
  typedef int (*CloseFunction)(int);
  SocketFunction directSocket = (SocketFunction)dlsym(RTLD_DEFAULT, "_Z12Directsocketiii");
  ConnectFunction directConnect = (ConnectFunction)dlsym(RTLD_DEFAULT, "_Z13DirectconnectiPK8sockaddrj");
  CloseFunction directClose = (CloseFunction)dlsym(RTLD_DEFAULT, "_Z11Directclosei");
  int* initFlag = (int*)dlsym(RTLD_DEFAULT, "globalInit");
  if (!directSocket || !directConnect || !directClose || !initFlag) {
    printf("companions absent\n");
    return 1;
  }
  int s = directSocket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in address = loopback(port);
  int result = directConnect(s, (struct sockaddr*)&address, sizeof address);
  printf("directconnect result=%d errno=%d\n", result, result < 0 ? errno : 0);
  printf("directclose result=%d\n", directClose(s));
  printf("globalInit %d\n", *initFlag);
  return 0;
}

static pthread_barrier_t startLine;
static int threadPort;

static void* firstCallFromThread(void* unused) {
  (void)unused;
  pthread_barrier_wait(&startLine);
  int s = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in address = loopback(threadPort);
  intptr_t ok = s >= 0 && connect(s, (struct sockaddr*)&address, sizeof address) == 0 && close(s) == 0;
  return (void*)ok;
}

/* Many threads make the process's first hooked call at the same moment. */
static int scenarioThreads(int count, int port) {
  pthread_t threads[64];
  if (count < 1 || count > 64) return 2;
  threadPort = port;
  pthread_barrier_init(&startLine, NULL, (unsigned)count);
  for (int i = 0; i < count; ++i) pthread_create(&threads[i], NULL, firstCallFromThread, NULL);
  int succeeded = 0;
  for (int i = 0; i < count; ++i) {
    void* ok = NULL;
    pthread_join(threads[i], &ok);
    succeeded += ok != NULL;
  }
  printf("threads succeeded=%d of %d\n", succeeded, count);
  return 0;
}

/* `count` empty selects: as many messages for the recorder, and nothing else. */
static int scenarioSelects(int count) {
  for (int i = 0; i < count; ++i) {
    struct timeval zero = {0, 0};
    select(0, NULL, NULL, NULL, &zero);
  }
  printf("selects %d\n", count);
  return 0;
}

/* One hooked call to start the agent, then what start-up found. */
static int scenarioStartup(void) {
  int s = socket(AF_INET, SOCK_STREAM, 0);
  printf("socket valid=%d\n", s >= 0);
  typedef int64_t (*Clock)(void);
  Clock* clockPointer = (Clock*)dlsym(RTLD_DEFAULT, "getCurrentTimePtr");
  if (clockPointer == NULL) {
    printf("clock absent-agent\n");
  } else if (*clockPointer == NULL) {
    printf("clock none\n");
  } else {
    printf("clock found value=%lld\n", (long long)(*clockPointer)());
  }
  printf("pid %d\n", (int)getpid());
  return 0;
}

/* The process's very first hooked call is a close of something that is not a socket. */
static int scenarioFirstCallClose(void) {
  errno = 0;
  int result = close(12345);
  printf("close result=%d errno=%d\n", result, errno);
  int* initFlag = (int*)dlsym(RTLD_DEFAULT, "globalInit");
  printf("globalInit %s\n", initFlag ? (*initFlag ? "1" : "0") : "absent");
  return 0;
}

/* Calls that reach the recorder channel: each argument is one step, done in order. */
static int scenarioChannel(int argc, char** argv) {
  for (int i = 2; i < argc; ++i) {
    const char* step = argv[i];
    if (strcmp(step, "select") == 0) {
      struct timeval zero = {0, 0};
      /* A select that times out leaves errno as it was: 77 must come back. */
      errno = 77;
      int result = select(0, NULL, NULL, NULL, &zero);
      printf("select result=%d errno=%d\n", result, errno);
    } else if (strcmp(step, "setsockopt-bad") == 0) {
      int one = 1;
      errno = 0;
      int result = setsockopt(-1, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
      printf("setsockopt result=%d errno=%d\n", result, errno);
    } else if (strcmp(step, "end") == 0) {
      int (*endFunction)(void) = (int (*)(void))dlsym(RTLD_DEFAULT, "end");
      errno = 0;
      printf("end result=%d errno=%d\n", endFunction ? endFunction() : -99, errno);
    } else if (strcmp(step, "badarchi") == 0) {
      void (*notice)(const char*) = (void (*)(const char*))dlsym(RTLD_DEFAULT, "_Z21sendNotHookedBadArchiPKc");
      if (notice) notice(NULL);
      printf("badarchi %s\n", notice ? "sent" : "absent");
    } else if (strncmp(step, "emit=", 5) == 0) {
      /* emit=PORT: an exit message through a temporary channel of its own. */
      int (*emit)(const char*, const char*, long long) =
          (int (*)(const char*, const char*, long long))dlsym(RTLD_DEFAULT, EMIT_END_OF_PROCESS);
      printf("emit result=%d\n", emit ? emit("127.0.0.1", step + 5, 0) : -99);
    } else if (strcmp(step, "lose-cwd") == 0) {
      char dir[] = "/tmp/talvex-probe-XXXXXX";
      if (mkdtemp(dir) == NULL || chdir(dir) != 0 || rmdir(dir) != 0) return 3;
      printf("cwd removed\n");
    } else {
      fprintf(stderr, "unknown step %s\n", step);
      return 2;
    }
  }
  return 0;
}

int main(int argc, char** argv) {
  setvbuf(stdout, NULL, _IONBF, 0);
  if (argc >= 5 && strcmp(argv[1], "calls") == 0) return scenarioCalls(atoi(argv[2]), atoi(argv[3]), argv[4]);
  if (argc >= 2 && strcmp(argv[1], "dlsym") == 0) return scenarioDlsym();
  if (argc >= 3 && strcmp(argv[1], "direct") == 0) return scenarioDirect(atoi(argv[2]));
  if (argc >= 4 && strcmp(argv[1], "threads") == 0) return scenarioThreads(atoi(argv[2]), atoi(argv[3]));
  if (argc >= 2 && strcmp(argv[1], "startup") == 0) return scenarioStartup();
  if (argc >= 2 && strcmp(argv[1], "first-close") == 0) return scenarioFirstCallClose();
  if (argc >= 3 && strcmp(argv[1], "first-close-then-connect") == 0) return scenarioFirstCloseThenConnect(atoi(argv[2]));
  if (argc >= 3 && strcmp(argv[1], "dlsym-strlen") == 0) return scenarioDlsymStrlen(argv[2]);
  if (argc >= 2 && strcmp(argv[1], "pselect-once") == 0) return scenarioPselectOnce();
  if (argc >= 2 && strcmp(argv[1], "channel") == 0) return scenarioChannel(argc, argv);
  if (argc >= 3 && strcmp(argv[1], "selects") == 0) return scenarioSelects(atoi(argv[2]));
  fprintf(stderr, "usage: socket_probe calls ECHO_PORT CLOSED_PORT FILE | dlsym | direct PORT | "
                  "threads N PORT | startup | first-close | channel STEP... | selects N\n");
  return 2;
}
