#include "registry/socket_registry.h"

#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "base/critical_section.h"
#include "config/socks_config.h"
#include "diag/debug_log.h"
#include "message/address_attributes.h"
#include "real/real_functions.h"

SOCKETINFO* allSocketInfo = nullptr;
SOCKETINFO* releasedSocketInfo = nullptr;
int criticalSectionSocketInfoInitialized = 0;

namespace {

// Zero-filled mutexes are usable as they stand, so a lookup racing the first initialisation
// finds working locks.
pthread_mutex_t criticalSectionSocketInfoList;
pthread_mutex_t criticalSectionSocketInfoData;
pthread_mutex_t criticalSectionLists;

const unsigned kLocalFamily = 1;
const int kStoredAddressSize = 128;

// Lookups index a table by descriptor and take no lock: a signal handler, or a thread that another
// thread interrupted in the middle of a registry change, finds its socket in constant time. The
// table has two levels so that it costs nothing until descriptors are used; chunks are installed
// once and never freed, and records are pooled, so a slot never points at freed memory.
const unsigned kSlotsPerChunk = 1024;
const unsigned kChunkCount = 4096;  // descriptors below 4,194,304 are followed
SOCKETINFO** socketTable[kChunkCount];

SOCKETINFO** chunkOf(unsigned socket, bool install) {
  const unsigned index = socket / kSlotsPerChunk;
  if (index >= kChunkCount) return nullptr;
  SOCKETINFO** chunk = __atomic_load_n(&socketTable[index], __ATOMIC_ACQUIRE);
  if (chunk != nullptr || !install) return chunk;
  SOCKETINFO** fresh = static_cast<SOCKETINFO**>(calloc(kSlotsPerChunk, sizeof(SOCKETINFO*)));
  if (fresh == nullptr) return nullptr;
  if (!__atomic_compare_exchange_n(&socketTable[index], &chunk, fresh, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
    free(fresh);  // another thread installed it first; `chunk` now holds theirs
    return chunk;
  }
  return fresh;
}

SOCKETINFO* find(unsigned socket) {
  SOCKETINFO** chunk = chunkOf(socket, false);
  if (chunk == nullptr) return nullptr;
  SOCKETINFO* record = __atomic_load_n(&chunk[socket % kSlotsPerChunk], __ATOMIC_ACQUIRE);
  // A record released and reused meanwhile belongs to another descriptor now.
  return record != nullptr && record->socket == socket ? record : nullptr;
}

void setSlot(unsigned socket, SOCKETINFO* record) {
  SOCKETINFO** chunk = chunkOf(socket, record != nullptr);
  if (chunk != nullptr) __atomic_store_n(&chunk[socket % kSlotsPerChunk], record, __ATOMIC_RELEASE);
}


// The descriptors of the live records whose `flag` is set (any record for 0), newest first.
int liveDescriptors(uint8_t flag, unsigned* out, int capacity) {
  int count = 0;
  StartCriticalSectionBase(&criticalSectionSocketInfoList);
  for (SOCKETINFO* r = allSocketInfo; r != nullptr && count < capacity; r = r->next) {
    if (flag == 0 || (r->flags & flag) != 0) out[count++] = r->socket;
  }
  EndCriticalSectionBase(&criticalSectionSocketInfoList);
  return count;
}

bool hasFlag(SOCKETINFO* record, uint8_t flag) {
  return (__atomic_load_n(&record->flags, __ATOMIC_ACQUIRE) & flag) != 0;
}
void setFlag(SOCKETINFO* record, uint8_t flag) { __atomic_fetch_or(&record->flags, flag, __ATOMIC_ACQ_REL); }
// Clears the flag and says whether it was set.
int takeFlag(SOCKETINFO* record, uint8_t flag) {
  return (__atomic_fetch_and(&record->flags, static_cast<uint8_t>(~flag), __ATOMIC_ACQ_REL) & flag) != 0 ? 1 : 0;
}

void freeRecords(SOCKETINFO** list) {
  for (SOCKETINFO* r = *list; r != nullptr;) {
    SOCKETINFO* following = r->next;
    FreeCriticalSectionBase(&r->connectionLock);
    free(r);
    r = following;
  }
  *list = nullptr;
}

}  // namespace

uint64_t socketCookie(unsigned socket, int* error) {
  const int savedErrno = errno;
  uint64_t cookie = 0;
  socklen_t length = sizeof cookie;
  *error = 0;
  if (True_getsockopt(static_cast<int>(socket), SOL_SOCKET, SO_COOKIE, &cookie, &length) != 0) {
    *error = errno;
    cookie = 0;
  }
  errno = savedErrno;
  return cookie;
}

void preInitializeMemo() {
  if (__atomic_load_n(&criticalSectionSocketInfoInitialized, __ATOMIC_ACQUIRE)) return;
  StartCriticalSectionBase(&criticalSectionSocketInfoList);
  if (!criticalSectionSocketInfoInitialized) {
    allSocketInfo = nullptr;
    releasedSocketInfo = nullptr;
    __atomic_store_n(&criticalSectionSocketInfoInitialized, 1, __ATOMIC_RELEASE);
  }
  EndCriticalSectionBase(&criticalSectionSocketInfoList);
}

void cleanSocketInfo() {
  if (!criticalSectionSocketInfoInitialized) return;
  StartCriticalSectionBase(&criticalSectionSocketInfoList);
  for (SOCKETINFO* r = allSocketInfo; r != nullptr; r = r->next) setSlot(r->socket, nullptr);
  freeRecords(&releasedSocketInfo);
  freeRecords(&allSocketInfo);
  criticalSectionSocketInfoInitialized = 0;
  EndCriticalSectionBase(&criticalSectionSocketInfoList);
}

void InitializeLists() { AllocCriticalSectionBase(&criticalSectionLists); }
void FinalizeLists() { FreeCriticalSectionBase(&criticalSectionLists); }

SOCKETINFO* createSocketInfo(unsigned socket, unsigned family, unsigned type, int nonBlocking, unsigned protocol) {
  if (socket == 0) return nullptr;
  preInitializeMemo();
  if (socket / kSlotsPerChunk >= kChunkCount) return nullptr;
  SOCKETINFO* record = find(socket);
  if (record == nullptr) {
    // A descriptor the kernel handed out again without the agent seeing its close keeps its
    // record above; otherwise reuse a released record before allocating.
    StartCriticalSectionBase(&criticalSectionSocketInfoList);
    record = releasedSocketInfo;
    if (record != nullptr) {
      releasedSocketInfo = record->next;
      record->socket = 0;
      record->next = nullptr;
    }
    EndCriticalSectionBase(&criticalSectionSocketInfoList);
    if (record == nullptr) {
      record = static_cast<SOCKETINFO*>(calloc(1, sizeof(SOCKETINFO)));
      if (record == nullptr) {
        x_disp(DMK_ERROR, "malloc error in createMemoOpenedSocket");
        return nullptr;
      }
      AllocCriticalSectionBase(&record->connectionLock);
    }
    StartCriticalSectionBase(&criticalSectionSocketInfoList);
    record->socket = socket;
    record->next = allSocketInfo;
    allSocketInfo = record;
    setSlot(socket, record);
    EndCriticalSectionBase(&criticalSectionSocketInfoList);
  }
  // Remembered so that a descriptor closed behind the agent's back and reused for something else
  // is never taken for this socket.
  int error = 0;
  record->cookie = socketCookie(socket, &error);
  StartCriticalSectionBase(&criticalSectionSocketInfoData);
  record->type = type;
  // A record handed out again starts with none of the extensions' marks of its former socket.
  takeFlag(record, SIF_CONNECTING | SIF_NOTICED | SIF_INHERITED);
  __atomic_store_n(&record->tlsObject, nullptr, __ATOMIC_RELAXED);
  if (nonBlocking & 1) {
    setFlag(record, SIF_NONBLOCKING);
  } else {
    takeFlag(record, SIF_NONBLOCKING);
  }
  record->family = family;
  record->addrLen = 0;
  record->protocol = protocol;
  EndCriticalSectionBase(&criticalSectionSocketInfoData);
  return record;
}

SOCKETINFO* getSocketInfo(unsigned socket) {
  if (socket == 0 || !__atomic_load_n(&criticalSectionSocketInfoInitialized, __ATOMIC_ACQUIRE)) return nullptr;
  return find(socket);
}

int freeSocketInfo(unsigned socket) {
  if (socket == 0 || !criticalSectionSocketInfoInitialized) return 0;
  int found = 0;
  StartCriticalSectionBase(&criticalSectionSocketInfoList);
  for (SOCKETINFO** link = &allSocketInfo; *link != nullptr; link = &(*link)->next) {
    SOCKETINFO* record = *link;
    if (record->socket != socket) continue;
    *link = record->next;
    setSlot(socket, nullptr);
    record->socket = 0;
    record->next = releasedSocketInfo;
    releasedSocketInfo = record;
    found = 1;
    break;
  }
  EndCriticalSectionBase(&criticalSectionSocketInfoList);
  return found;
}

SOCKETINFO* getCurrentSocketInfo(unsigned socket) {
  SOCKETINFO* record = getSocketInfo(socket);
  if (record == nullptr || record->cookie == 0) return record;
  int error = 0;
  const uint64_t now = socketCookie(socket, &error);
  // Not a socket any more, or another socket: the old one was closed without the agent seeing
  // it, and its record goes with it.
  if (error == EBADF || error == ENOTSOCK || (error == 0 && now != record->cookie)) {
    freeSocketInfo(socket);
    return nullptr;
  }
  return record;
}

void resetRegistryAfterFork() {
  const pthread_mutex_t fresh = PTHREAD_MUTEX_INITIALIZER;
  criticalSectionSocketInfoList = fresh;
  criticalSectionSocketInfoData = fresh;
  criticalSectionLists = fresh;
  // A SOCKS exchange another thread of the parent had under way will never end in the child.
  for (unsigned index = 0; index < kChunkCount; ++index) {
    SOCKETINFO** chunk = socketTable[index];
    if (chunk == nullptr) continue;
    for (unsigned slot = 0; slot < kSlotsPerChunk; ++slot) {
      SOCKETINFO* record = chunk[slot];
      if (record == nullptr) continue;
      record->connectionLock = fresh;
      takeFlag(record, SIF_LOCKED);
    }
  }
}

void markInheritedConnections() {
  for (unsigned index = 0; index < kChunkCount; ++index) {
    SOCKETINFO** chunk = socketTable[index];
    if (chunk == nullptr) continue;
    for (unsigned slot = 0; slot < kSlotsPerChunk; ++slot) {
      SOCKETINFO* record = chunk[slot];
      if (record != nullptr && hasFlag(record, SIF_OPENED | SIF_ACCEPTED)) setFlag(record, SIF_INHERITED);
    }
  }
}

int getSocket(SOCKETINFO* record) { return record != nullptr ? static_cast<int>(record->socket) : -1; }
unsigned getProtocol(SOCKETINFO* record) { return record != nullptr ? record->protocol : 0; }
unsigned getFamily(SOCKETINFO* record) { return record != nullptr ? record->family : 0; }

void setFamily(SOCKETINFO* record, unsigned family) {
  if (record != nullptr) record->family = family;
}

int createMemoOpenedSocket(SOCKETINFO* record) {
  if (record == nullptr) return 0;
  setFlag(record, SIF_OPENED);
  return 1;
}

int createMemoAcceptedSocket(SOCKETINFO* record) {
  if (record == nullptr) return 0;
  setFlag(record, SIF_ACCEPTED);
  return 1;
}

int freeMemoOpenedSocket(SOCKETINFO* record) { return record != nullptr ? takeFlag(record, SIF_OPENED) : 0; }
int freeMemoAcceptedSocket(SOCKETINFO* record) { return record != nullptr ? takeFlag(record, SIF_ACCEPTED) : 0; }

SOCKETINFO* freeOpenedSocket(SOCKETINFO* record) {
  if (record != nullptr) takeFlag(record, SIF_OPENED);
  return record;
}

SOCKETINFO* freeAcceptedSocket(SOCKETINFO* record) {
  if (record != nullptr) takeFlag(record, SIF_ACCEPTED);
  return record;
}

int isOpenedSocket(SOCKETINFO* record) { return record != nullptr && hasFlag(record, SIF_OPENED) ? 1 : 0; }
int isAcceptedSocket(SOCKETINFO* record) { return record != nullptr && hasFlag(record, SIF_ACCEPTED) ? 1 : 0; }
int isSocketRerouted(SOCKETINFO* record) { return record != nullptr && hasFlag(record, SIF_REROUTED) ? 1 : 0; }
int isNonBlockingSocket(SOCKETINFO* record) {
  return record != nullptr && hasFlag(record, SIF_NONBLOCKING) ? 1 : 0;
}

int markSocket(SOCKETINFO* record, SocketInfoFlag flag) {
  if (record == nullptr) return 0;
  return (__atomic_fetch_or(&record->flags, static_cast<uint8_t>(flag), __ATOMIC_ACQ_REL) & flag) == 0 ? 1 : 0;
}
int takeSocketMark(SOCKETINFO* record, SocketInfoFlag flag) { return record != nullptr ? takeFlag(record, flag) : 0; }

int removeSockaddrElem(SOCKETINFO* record) { return record != nullptr ? takeFlag(record, SIF_REROUTED) : 0; }

pthread_mutex_t* createMemoLockedSocket(SOCKETINFO* record) {
  if (record == nullptr || !socksModeActive) return nullptr;
  setFlag(record, SIF_LOCKED);
  return &record->connectionLock;
}

pthread_mutex_t* freeMemoLockedSocket(SOCKETINFO* record) {
  if (record == nullptr || !socksModeActive) return nullptr;
  takeFlag(record, SIF_LOCKED);
  return &record->connectionLock;
}

pthread_mutex_t* isLockedSocket(SOCKETINFO* record) {
  if (record == nullptr || !socksModeActive || !criticalSectionSocketInfoInitialized) return nullptr;
  return hasFlag(record, SIF_LOCKED) ? &record->connectionLock : nullptr;
}

int createSockaddrElem(SOCKETINFO* record, const sockaddr* address, int length) {
  if (record == nullptr) return -1;
  // The store holds 128 bytes, room for any socket address: a longer claimed length is cut there.
  if (length > kStoredAddressSize) length = kStoredAddressSize;
  if (length < 0 || address == nullptr) length = 0;
  StartCriticalSectionBase(&criticalSectionSocketInfoData);
  memcpy(record->addr, address, static_cast<size_t>(length));
  setFlag(record, SIF_REROUTED);
  record->addrLen = length;
  EndCriticalSectionBase(&criticalSectionSocketInfoData);
  return 1;
}

int getSockaddrValues(SOCKETINFO* record, sockaddr* address, socklen_t* lengthInOut, int* error) {
  if (record == nullptr) return 0;
  int found = 0;
  StartCriticalSectionBase(&criticalSectionSocketInfoData);
  if (hasFlag(record, SIF_REROUTED)) {
    found = 1;
    if (record->addrLen == 0 || static_cast<socklen_t>(record->addrLen) > *lengthInOut) {
      *error = 14;
    } else {
      *lengthInOut = static_cast<socklen_t>(record->addrLen);
      memcpy(address, record->addr, static_cast<size_t>(record->addrLen));
      *error = 0;
    }
  }
  EndCriticalSectionBase(&criticalSectionSocketInfoData);
  return found;
}

void vsi_disp(SOCKETINFO* record, int kind, const char* format, va_list arguments) {
  if (record == nullptr || record->family == kLocalFamily || !isDebugLevelEnable(kind)) return;
  vx_disp(kind, format, arguments);
}

void si_disp(SOCKETINFO* record, int kind, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vsi_disp(record, kind, format, arguments);
  va_end(arguments);
}

void s_disp(unsigned socket, int kind, const char* format, ...) {
  if (!isDebugLevelEnable(kind) || socket == 0 || !criticalSectionSocketInfoInitialized) return;
  SOCKETINFO* record = find(socket);
  if (record == nullptr || record->family == kLocalFamily) return;
  va_list arguments;
  va_start(arguments, format);
  vx_disp(kind, format, arguments);
  va_end(arguments);
}

namespace {
// Collected under the list lock, logged after it: the log's lock is never taken inside it.
void displayIf(uint8_t flag) {
  unsigned descriptors[1024];
  const int count = liveDescriptors(flag, descriptors, 1024);
  for (int i = 0; i < count; ++i) x_disp(DMK_INFO, "%lx", static_cast<unsigned long>(descriptors[i]));
}
}  // namespace

void displayAllSocketInfo(const char* title) {
  x_disp(DMK_INFO, "======= all socket info : %s ==============", title);
  displayIf(0);
  x_disp(DMK_INFO, "==========================================================");
}

void displayAllOpenedSocket() { displayIf(SIF_OPENED); }
void displayAllAcceptedSocket() { displayIf(SIF_ACCEPTED); }
void displayAllLockedSocket() { displayIf(SIF_LOCKED); }

void displayOpenedSocket(SOCKETINFO* record) {
  if (record == nullptr) {
    x_disp(DMK_INFO, "(null)");
  } else {
    x_disp(DMK_INFO, "%lx", static_cast<unsigned long>(record->socket));
  }
}

void displaySockaddrElem(SOCKETINFO* record) {
  if (record == nullptr) return;
  char text[48] = "<unknown>";
  int port = 0;
  if (record->family == AF_INET) {
    sockaddr_in v4;
    memcpy(&v4, record->addr, sizeof v4);
    const char* dotted = True_inet_ntoa(v4.sin_addr);
    snprintf(text, sizeof text, "%s", dotted != nullptr ? dotted : "");
    port = True_ntohs(v4.sin_port);
  } else if (record->family == AF_INET6) {
    sockaddr_in6 v6;
    memcpy(&v6, record->addr, sizeof v6);
    formatIpv6Groups(v6.sin6_addr.s6_addr, text, sizeof text);
    port = True_ntohs(v6.sin6_port);
  }
  x_disp(DMK_INFO, "=> socket : %lx \tip : %s(%d)", static_cast<unsigned long>(record->socket), text, port);
}

void displaySockaddrList() {
  x_disp(DMK_INFO, "--------------- sockaddr list --------------------");
  unsigned descriptors[1024];
  const int count = liveDescriptors(SIF_REROUTED, descriptors, 1024);
  for (int i = 0; i < count; ++i) displaySockaddrElem(find(descriptors[i]));
  x_disp(DMK_INFO, "--------------------------------------------------");
}
