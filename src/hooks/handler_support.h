// What every recording handler takes at its start and shares with the others.
#pragma once

#include <errno.h>
#include <inttypes.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>

#include "base/counters.h"
#include "base/time_base.h"
#include "diag/debug_log.h"
#include "hooks/host_memory.h"
#include "registry/socket_registry.h"
#include "transport/message_demand.h"

// Start time and ticket of a call, drawn before the real call so that tickets order events by the
// moment their calls began. The clock belongs to another library, so errno is kept across it:
// the real call must find errno as the host left it.
struct CallStart {
  int callerErrno;
  int64_t stamp;
  int64_t stampNs;
  int ticket;
  int cpt;
};

inline CallStart beginCall() {
  const int callerErrno = errno;
  CallStart start;
  start.callerErrno = callerErrno;
  // A message nobody can see needs no time: the clock is not read for it.
  const bool observable = messageObservable(0);
  start.stamp = observable ? getTimeStamp() : 0;
  start.stampNs = observable ? getTimeStampNs() : -1;
  start.ticket = static_cast<int>(getTicket());
  start.cpt = static_cast<int>(getGlobalCpt());
  errno = callerErrno;
  return start;
}

// Addresses in log lines: eight digits where a pointer has 32 bits, as these lines always read, and
// all sixteen where it has 64.
#if UINTPTR_MAX > 0xffffffffu
#define TALVEX_HEX_ADDRESS "%016" PRIXPTR
#define TALVEX_HEX_ADDRESS_LOWER "%016" PRIxPTR
#else
#define TALVEX_HEX_ADDRESS "%08" PRIXPTR
#define TALVEX_HEX_ADDRESS_LOWER "%" PRIxPTR
#endif

inline uintptr_t logAddress(const void* address) { return reinterpret_cast<uintptr_t>(address); }

// A log format's "%s" over a caller's buffer must stop at its byte count as well as at a zero
// byte: the buffer need not be terminated.
inline int printableLength(const void* buffer, size_t count) {
  if (buffer == nullptr) return 0;
  const size_t limit = count > 0x7fffffffu ? 0x7fffffffu : count;
  size_t n = 0;
  const char* bytes = static_cast<const char*>(buffer);
  while (n < limit && bytes[n] != '\0') ++n;
  return static_cast<int>(n);
}

// A copy of the caller's address, at most the storage size, zero-filled beyond what was given:
// the agent reads only this copy, however short or long the caller said the address was. One too
// short to hold its family has none, and so has one that cannot be read (see host_memory.h).
// `proven` says whether the C library has just read it.
inline sockaddr_storage copyAddress(const sockaddr* address, socklen_t length, bool proven = true) {
  sockaddr_storage copy;
  memset(&copy, 0, sizeof copy);
  if (address != nullptr && length >= sizeof(sa_family_t)) {
    const size_t wanted = length < sizeof copy ? length : sizeof copy;
    if (copyHostBytes(&copy, address, wanted, proven ? wanted : 0) < wanted) memset(&copy, 0, sizeof copy);
  }
  return copy;
}

// The length of a caller's buffer to show in a "%.*s" of a log line of `kind`: nothing when the
// line will not be written (the scan would be wasted), never past what can be read.
inline int loggableLength(SOCKETINFO* record, int kind, const void* buffer, size_t length, size_t proven) {
  if (record == nullptr || record->family == 1 || !isDebugLevelEnable(kind)) return 0;
  return printableLength(buffer, readableBytes(buffer, length, proven));
}
