// Which socket carries the records of which TLS session. A TLS library's calls name their session
// (an SSL object, a GnuTLS session), not a descriptor, and the library's own idea of its
// descriptor may be none at all (a program that gives it an I/O layer of its own): the tie is
// learned from the socket calls the library makes, and kept here for the calls it serves from its
// buffers without any.
#pragma once

#include "registry/socket_registry.h"

// From now on the socket of `record` carries `session`'s records. A null record ties nothing.
void tieTlsSession(SOCKETINFO* record, const void* session);
// The session whose records a socket carries, or null. Inline: every recorded data call asks.
inline const void* tlsSessionOf(SOCKETINFO* record) {
  return record == nullptr ? nullptr : __atomic_load_n(&record->tlsObject, __ATOMIC_ACQUIRE);
}
// The descriptor whose socket carries `session`'s records, or -1 when none is known.
int socketOfTlsSession(const void* session);
