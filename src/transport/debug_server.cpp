#include "transport/debug_server.h"

#include <errno.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>

#include "base/environment.h"
#include "base/name_tables.h"
#include "base/process_identity.h"
#include "base/variable_names.h"
#include "config/socks_config.h"
#include "diag/debug_log.h"
#include "real/real_functions.h"

int debugSocket = -1;
int debugServerActive = 0;
const char* debugIpVal = nullptr;
int debugPortVal = 5150;

namespace {
const int kDefaultDebugPort = 5150;
}

void initializeDebugServer() {
  const int savedErrno = errno;
  // initializationDone starts set, so the shipped agent never opens the mirror.
  if (initializationDone) return;
  initializationDone = 1;
  logLineMirror = &sendDebugMessage;
  if (debugSocket != -1) return;
  debugIpVal = getenv(TALVEX_VAR_DEBUG_IP);
  if (debugIpVal == nullptr) {
    debugServerActive = 0;
    x_disp(DMK_INFO, "****************************");
    x_disp(DMK_INFO, "** DebugServer not active **");
    x_disp(DMK_INFO, "****************************");
    return;
  }
  debugServerActive = 1;
  debugPortVal = numberOrDefault(TALVEX_VAR_DEBUG_PORT, kDefaultDebugPort);
  x_disp(DMK_INFO, "************************");
  x_disp(DMK_INFO, "** DebugServer active **");
  x_disp(DMK_INFO, "************************");
  x_disp(DMK_INFO, "Debug server IP : %s", debugIpVal);
  x_disp(DMK_INFO, "Debug server Port : %d", debugPortVal);

  sockaddr_in server;
  memset(&server, 0, sizeof server);
  server.sin_family = AF_INET;
  server.sin_port = True_htons(static_cast<uint16_t>(debugPortVal));
  server.sin_addr.s_addr = True_inet_addr(debugIpVal);
  debugSocket = True_socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  timeval wait;
  wait.tv_sec = connectMaxTimeout;
  wait.tv_usec = 0;
  fd_set descriptors;
  FD_ZERO(&descriptors);
  if (debugSocket >= 0 && debugSocket < FD_SETSIZE) FD_SET(debugSocket, &descriptors);

  if (True_connect(debugSocket, reinterpret_cast<sockaddr*>(&server), sizeof server) != 0) {
    const int code = True_WSAGetLastError();
    if (code != EAGAIN) {
      x_disp(DMK_ERROR, "connect() failed with error code (SOCKET ERROR : %d %s : %s):", code,
             getSocketErrorKind(code), getSocketErrorMsg(code));
      errno = savedErrno;
      return;
    }
    // A count of 0 makes this a plain sleep for the time-out; kept as the mirror always did it.
    if (True_select(0, &descriptors, &descriptors, nullptr, &wait) != 1) {
      x_disp(DMK_ERROR, "connect() timeout expired");
      errno = ECONNREFUSED;
      return;
    }
    x_disp(DMK_INFO, "connect() ok after some time....");
  }
  x_disp(DMK_INFO, "connect() done on debug server");
}

// The agent's own sends never raise SIGPIPE: a peer that went away must not end the host.
void sendDebugMessage(const char* line) {
  if (debugSocket == -1) return;
  const int savedErrno = errno;
  if (True_send(debugSocket, line, strlen(line), MSG_NOSIGNAL) == -1) errno = savedErrno;
}
