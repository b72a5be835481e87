// What every recording handler takes at its start and shares with the others.
#pragma once

#include <errno.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>

#include "agent/time_base.h"
#include "hooks/counters.h"

// Start time and ticket of a call, drawn before the real call so that tickets order events by the
// moment their calls began. The clock belongs to another library, so errno is kept across it:
// the real call must find errno as the host left it.
struct CallStart {
  int64_t stamp;
  int64_t stampNs;
  int ticket;
  int cpt;
};

inline CallStart beginCall() {
  const int callerErrno = errno;
  CallStart start;
  start.stamp = getTimeStamp();
  start.stampNs = getTimeStampNs();
  start.ticket = static_cast<int>(getTicket());
  start.cpt = static_cast<int>(getGlobalCpt());
  errno = callerErrno;
  return start;
}

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
// short to hold its family has none.
inline sockaddr_storage copyAddress(const sockaddr* address, socklen_t length) {
  sockaddr_storage copy;
  memset(&copy, 0, sizeof copy);
  if (address != nullptr && length >= sizeof(sa_family_t)) {
    memcpy(&copy, address, length < sizeof copy ? length : sizeof copy);
  }
  return copy;
}
