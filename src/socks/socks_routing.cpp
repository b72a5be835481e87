#include "socks/socks_routing.h"

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "base/critical_section.h"
#include "base/name_tables.h"
#include "base/symbol_versions.h"
#include "config/socks_config.h"
#include "diag/debug_log.h"
#include "real/real_functions.h"
#include "registry/socket_registry.h"
#include "socks/local_addresses.h"
#include "socks/socks_client.h"
#include "socks/socks_exchange.h"

// The first fcntl of each ABI: the agent loads on C libraries older than the one it is built on.
__asm__(".symver fcntl,fcntl@" TALVEX_GLIBC_FIRST);

namespace {

struct BindedPort {
  int socket;
  unsigned short port;
  BindedPort* next;
};

BindedPort* bindedPortList = nullptr;
BindedPort* freeBindedPorts = nullptr;

const char* const kStarLine = "*************************************************************";

bool portIsBinded(unsigned short port) {
  bool found = false;
  StartCriticalSectionBase(&criticalSectionSocks);
  for (BindedPort* b = bindedPortList; b != nullptr; b = b->next) {
    if (b->port == port) {
      found = true;
      break;
    }
  }
  EndCriticalSectionBase(&criticalSectionSocks);
  return found;
}

void freeEntries(BindedPort** list) {
  while (*list != nullptr) {
    BindedPort* entry = *list;
    *list = entry->next;
    free(entry);
  }
}

}  // namespace

bool isBindedLocalHost(int socket, const sockaddr* destination, int length) {
  (void)length;
  if (destination == nullptr) return false;
  const int savedErrno = errno;
  bool local = false;
  unsigned short port = 0;
  if (destination->sa_family == AF_INET) {
    const sockaddr_in* v4 = reinterpret_cast<const sockaddr_in*>(destination);
    local = isLocalIpv4(v4->sin_addr.s_addr);
    port = True_ntohs(v4->sin_port);
  } else if (destination->sa_family == AF_INET6) {
    const sockaddr_in6* v6 = reinterpret_cast<const sockaddr_in6*>(destination);
    local = isLoopbackIpv6(v6->sin6_addr.s6_addr);
    port = True_ntohs(v6->sin6_port);
  }
  bool binded = false;
  if (local) {
    if (port == 0) port = getLocalPort(socket, destination->sa_family);
    binded = portIsBinded(port);
  }
  errno = savedErrno;
  return binded;
}

bool isStreamSocket(int socket, int family) {
  if (family != AF_INET && family != AF_INET6) return false;
  const int savedErrno = errno;
  int type = 0;
  socklen_t length = sizeof type;
  const bool stream = True_getsockopt(socket, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM;
  errno = savedErrno;
  return stream;
}

int SocksConnect(SOCKETINFO* record, const sockaddr* destination, int length, int* socksError) {
  const int socket = getSocket(record);
  if (isBindedLocalHost(socket, destination, length)) {
    x_disp(DMK_INFO, "socks mode inactived (local loop)");
    return SOCKS_LOCAL_LOOP;
  }
  if (!socksModeActive) return SOCKS_NOT_REROUTED;
  if (destination == nullptr || (destination->sa_family != AF_INET && destination->sa_family != AF_INET6)) {
    return SOCKS_NOT_REROUTED;
  }
  // Datagram and raw sockets are never rerouted.
  if (!isStreamSocket(socket, destination->sa_family)) return SOCKS_NOT_REROUTED;
  return runSocksExchange(record, destination, length, socksError);
}

int checkSocksStatus(int socket, int status, bool* toReconnect, int* loopback, int* error) {
  *toReconnect = false;
  *loopback = 0;
  int result = status;
  switch (status) {
    case SOCKS_UNREACHABLE:
      x_disp(DMK_ERROR, "connect failed on SOCKS server");
      x_disp(DMK_INFO, "%s", kStarLine);
      *toReconnect = true;
      return -1;
    case SOCKS_NOT_REROUTED:
      *toReconnect = true;
      return 0;
    case SOCKS_REROUTED:
      x_disp(DMK_INFO, "SOCK connect worked fine");
      x_disp(DMK_INFO, "%s", kStarLine);
      if (errno == EAGAIN) *error = EAGAIN;
      return 0;
    case SOCKS_LOCAL_LOOP:
      *toReconnect = true;
      *loopback = 1;
      return 2;
    case SOCKS_FAILED:
      x_disp(DMK_ERROR, "bad handshake on socks server");
      x_disp(DMK_INFO, "%s", kStarLine);
      // A server that answers with garbage refuses the connection as surely as one that says so.
      *error = ECONNREFUSED;
      result = -1;
      break;
    case SOCKS_TARGET_REFUSED:
      x_disp(DMK_ERROR, "socks server can not connect to target");
      x_disp(DMK_INFO, "%s", kStarLine);
      *error = ECONNREFUSED;
      result = -1;
      break;
    default:
      x_disp(DMK_ERROR, "unknown socks connect return code !!! %d", status);
      x_disp(DMK_ERROR, "trying classic connect....");
      *toReconnect = true;
      return status;
  }
  releaseFromSocksServer(socket);
  return result;
}

bool releaseFromSocksServer(int socket) {
  const int savedErrno = errno;
  const int code = dissolveConnection(socket);
  bool released = code == 0;
  if (released) {
    // Dissolving leaves a reset pending on the socket, which the program's next call would
    // report; a refused connect leaves none, and a refusal is what the program is told.
    int pending = 0;
    socklen_t size = sizeof pending;
    True_getsockopt(socket, SOL_SOCKET, SO_ERROR, &pending, &size);
  } else {
    x_disp(DMK_ERROR, "cannot dissolve the connection to the socks server : %d %s : %s: the socket is renewed", code,
           getSocketErrorKind(code), getSocketErrorMsg(code));
    released = renewSocket(socket);
  }
  errno = savedErrno;
  return released;
}

bool renewSocket(int socket) {
  int domain = 0, type = 0, protocol = 0;
  socklen_t size = sizeof domain;
  if (True_getsockopt(socket, SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0) return false;
  size = sizeof type;
  if (True_getsockopt(socket, SOL_SOCKET, SO_TYPE, &type, &size) != 0) return false;
  size = sizeof protocol;
  if (True_getsockopt(socket, SOL_SOCKET, SO_PROTOCOL, &protocol, &size) != 0) return false;
  const int statusFlags = fcntl(socket, F_GETFL);
  const int descriptorFlags = fcntl(socket, F_GETFD);
  if (statusFlags == -1 || descriptorFlags == -1) return false;
  const bool closeOnExec = (descriptorFlags & FD_CLOEXEC) != 0;
  const int fresh = True_socket(domain, type | ((statusFlags & O_NONBLOCK) != 0 ? SOCK_NONBLOCK : 0) |
                                            (closeOnExec ? SOCK_CLOEXEC : 0), protocol);
  if (fresh == -1) return false;
  // One step: the number is never free for another thread to be given.
  const bool moved = dup3(fresh, socket, closeOnExec ? O_CLOEXEC : 0) == socket;
  True_close(fresh);
  if (!moved) {
    const int code = errno;
    x_disp(DMK_ERROR, "cannot renew the socket : %d %s : %s", code, getSocketErrorKind(code), getSocketErrorMsg(code));
  }
  return moved;
}

unsigned short getLocalPort(int socket, unsigned short family) {
  sockaddr_storage local;
  memset(&local, 0, sizeof local);
  socklen_t length = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  if (True_getsockname(socket, reinterpret_cast<sockaddr*>(&local), &length) != 0) {
    const int code = errno;
    if (code != EAGAIN) {
      x_disp(DMK_ERROR, "failed to retrieve sock options (SOCKET ERROR : %d %s : %s)", code, getSocketErrorKind(code),
             getSocketErrorMsg(code));
    }
    return 0;
  }
  const unsigned short port = True_ntohs(family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&local)->sin6_port
                                                            : reinterpret_cast<sockaddr_in*>(&local)->sin_port);
  x_disp(DMK_INFO, "local port : %d", port);
  return port;
}

void createBindedPortMemo(int socket, unsigned short port) {
  StartCriticalSectionBase(&criticalSectionSocks);
  BindedPort* entry = freeBindedPorts;
  if (entry != nullptr) {
    freeBindedPorts = entry->next;
  } else {
    entry = static_cast<BindedPort*>(malloc(sizeof(BindedPort)));
  }
  if (entry == nullptr) {
    EndCriticalSectionBase(&criticalSectionSocks);
    x_disp(DMK_ERROR, "malloc error in socks::createBindedPortMemo !!!");
    return;
  }
  entry->socket = socket;
  entry->port = port;
  entry->next = bindedPortList;
  bindedPortList = entry;
  EndCriticalSectionBase(&criticalSectionSocks);
  displayBindedPortMemo();
}

void freeBindedPortMemo(int socket) {
  StartCriticalSectionBase(&criticalSectionSocks);
  for (BindedPort** link = &bindedPortList; *link != nullptr; link = &(*link)->next) {
    BindedPort* entry = *link;
    if (entry->socket != socket) continue;
    *link = entry->next;
    entry->socket = 0;
    entry->port = 0;
    entry->next = freeBindedPorts;
    freeBindedPorts = entry;
    break;
  }
  EndCriticalSectionBase(&criticalSectionSocks);
  displayBindedPortMemo();
}

void displayBindedPortMemo() {
  if (!isDebugLevelEnable(DMK_INFO)) return;
  x_disp(DMK_INFO, "*********** memo list ************");
  // The lock is let go around each line: logging takes the log's lock, and the two are never
  // held together.
  StartCriticalSectionBase(&criticalSectionSocks);
  for (BindedPort* entry = bindedPortList; entry != nullptr; entry = entry->next) {
    const int socket = entry->socket;
    const int port = entry->port;
    EndCriticalSectionBase(&criticalSectionSocks);
    x_disp(DMK_INFO, "socket %lx\t port %d", static_cast<unsigned long>(socket), port);
    StartCriticalSectionBase(&criticalSectionSocks);
  }
  EndCriticalSectionBase(&criticalSectionSocks);
  x_disp(DMK_INFO, "**********************************");
}

void physicalFreeBindedPortMemo() {
  StartCriticalSectionBase(&criticalSectionSocks);
  freeEntries(&bindedPortList);
  freeEntries(&freeBindedPorts);
  EndCriticalSectionBase(&criticalSectionSocks);
}

void lock_connection(SOCKETINFO* record, int callNumber) {
  const int socket = getSocket(record);
  if (socket == -1 || !socksModeActive) return;
  x_disp(DMK_INFO, "[%d]** locking socket : %x **", callNumber, static_cast<unsigned>(socket));
  // The lock is taken before the socket is marked locked: a sender that saw the mark earlier would
  // find the lock free and go on in the middle of the exchange.
  StartCriticalSectionBase(&record->connectionLock);
  if (createMemoLockedSocket(record) == nullptr) {
    EndCriticalSectionBase(&record->connectionLock);
    x_disp(DMK_ERROR, "[%d]** LOCK NULL (socket : %x) **", callNumber, static_cast<unsigned>(socket));
  }
}

void unlock_connection(SOCKETINFO* record, int callNumber) {
  const int socket = getSocket(record);
  if (socket == -1 || !socksModeActive) return;
  x_disp(DMK_INFO, "[%d]** unlocking socket : %x **", callNumber, static_cast<unsigned>(socket));
  pthread_mutex_t* lock = freeMemoLockedSocket(record);
  if (lock == nullptr) {
    x_disp(DMK_ERROR, "[%d]** LOCK NULL (socket : %x) **", callNumber, static_cast<unsigned>(socket));
  } else {
    EndCriticalSectionBase(lock);
  }
}

void waitConnectionDone(SOCKETINFO* record, int callNumber) {
  if (!socksModeActive) return;
  pthread_mutex_t* lock = isLockedSocket(record);
  if (lock == nullptr) return;
  const unsigned socket = static_cast<unsigned>(getSocket(record));
  x_disp(DMK_INFO, "[%d]** socket locked (waiting) : %x **", callNumber, socket);
  StartCriticalSectionBase(lock);
  EndCriticalSectionBase(lock);
  x_disp(DMK_INFO, "[%d]** socket unlocked : %x **", callNumber, socket);
}
