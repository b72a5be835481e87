// The agent's memory of the sockets the host created: family, type, protocol, state bits, the
// per-socket connection lock and, for a rerouted connection, the destination the host asked for.
#pragma once

#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <sys/socket.h>

enum SocketInfoFlag : uint8_t {
  SIF_OPENED = 1u << 0,
  SIF_ACCEPTED = 1u << 1,
  SIF_REROUTED = 1u << 2,
  SIF_LOCKED = 1u << 3,
  SIF_NONBLOCKING = 1u << 4,
  // Kept for extensions: a connect still in progress, a socket already reported as not recorded.
  SIF_CONNECTING = 1u << 5,
  SIF_NOTICED = 1u << 6,
  SIF_INHERITED = 1u << 7,  // a forked child's copy of its parent's connection, not yet announced
};

struct SOCKETINFO {
  SOCKETINFO* next;
  uint32_t socket;
  uint8_t flags;
  int32_t addrLen;
  uint32_t type;
  uint32_t protocol;
  uint32_t family;
  pthread_mutex_t connectionLock;
  unsigned char addr[128];
  // The kernel's cookie of the socket when it was registered (0: unknown, never checked).
  uint64_t cookie;
  // The TLS session whose records the socket carries (null: none known); see tls_ties.h.
  const void* tlsObject;
};

extern SOCKETINFO* allSocketInfo;
extern SOCKETINFO* releasedSocketInfo;
extern int criticalSectionSocketInfoInitialized;

void preInitializeMemo();
void cleanSocketInfo();
void InitializeLists();
void FinalizeLists();

// The kernel's cookie of a socket: the same through every descriptor that names it, never reused
// while the system runs. 0, with `error` set, when there is none (not a socket).
uint64_t socketCookie(unsigned socket, int* error);

SOCKETINFO* createSocketInfo(unsigned socket, unsigned family, unsigned type, int nonBlocking, unsigned protocol);
SOCKETINFO* getSocketInfo(unsigned socket);
int freeSocketInfo(unsigned socket);
// getSocketInfo, but a record whose descriptor names another object now is released instead.
SOCKETINFO* getCurrentSocketInfo(unsigned socket);
// In a forked child: every registry lock usable again, whatever the parent's threads held.
void resetRegistryAfterFork();
// In a forked child: marks every connection it holds from its parent (SIF_INHERITED).
void markInheritedConnections();
int getSocket(SOCKETINFO* record);
unsigned getProtocol(SOCKETINFO* record);
unsigned getFamily(SOCKETINFO* record);
void setFamily(SOCKETINFO* record, unsigned family);

int createMemoOpenedSocket(SOCKETINFO* record);
int createMemoAcceptedSocket(SOCKETINFO* record);
int freeMemoOpenedSocket(SOCKETINFO* record);
int freeMemoAcceptedSocket(SOCKETINFO* record);
SOCKETINFO* freeOpenedSocket(SOCKETINFO* record);
SOCKETINFO* freeAcceptedSocket(SOCKETINFO* record);
int isOpenedSocket(SOCKETINFO* record);
int isAcceptedSocket(SOCKETINFO* record);
int isSocketRerouted(SOCKETINFO* record);
int isNonBlockingSocket(SOCKETINFO* record);
// An extension's bit of the record (SIF_CONNECTING, SIF_NOTICED): set, with whether it was clear
// before (so that of threads racing to set it one alone acts), or cleared with whether it was set.
// A null record has no bit.
int markSocket(SOCKETINFO* record, SocketInfoFlag flag);
int takeSocketMark(SOCKETINFO* record, SocketInfoFlag flag);
int removeSockaddrElem(SOCKETINFO* record);
pthread_mutex_t* createMemoLockedSocket(SOCKETINFO* record);
pthread_mutex_t* freeMemoLockedSocket(SOCKETINFO* record);
pthread_mutex_t* isLockedSocket(SOCKETINFO* record);

int createSockaddrElem(SOCKETINFO* record, const sockaddr* address, int length);
int getSockaddrValues(SOCKETINFO* record, sockaddr* address, socklen_t* lengthInOut, int* error);

// Log lines about one socket; local (family 1) sockets never write any.
void s_disp(unsigned socket, int kind, const char* format, ...) __attribute__((format(printf, 3, 4)));
void si_disp(SOCKETINFO* record, int kind, const char* format, ...) __attribute__((format(printf, 3, 4)));
void vsi_disp(SOCKETINFO* record, int kind, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

void displayAllSocketInfo(const char* title);
void displayAllOpenedSocket();
void displayAllAcceptedSocket();
void displayAllLockedSocket();
void displayOpenedSocket(SOCKETINFO* record);
void displaySockaddrList();
void displaySockaddrElem(SOCKETINFO* record);
