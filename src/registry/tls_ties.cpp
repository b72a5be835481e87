#include "registry/tls_ties.h"

#include <stdint.h>


namespace {

// A session is found from its socket's record; this table only remembers where to look. It is a
// cache without a lock, written and read with single-word atomics: a slot taken over by another
// session, or read half-written, at worst sends a lookup to a record that disowns the session,
// and the tie is then learned again from the session's next socket call.
struct TieSlot {
  const void* session;
  unsigned socket;
};

const unsigned kSlots = 1024;
TieSlot ties[kSlots];

TieSlot& slotOf(const void* session) {
  // Sessions are heap objects: their low bits are alignment, their next ones vary.
  const uintptr_t bits = reinterpret_cast<uintptr_t>(session);
  return ties[(bits >> 4 ^ bits >> 14) % kSlots];
}

}  // namespace

void tieTlsSession(SOCKETINFO* record, const void* session) {
  if (record == nullptr || session == nullptr) return;
  __atomic_store_n(&record->tlsObject, session, __ATOMIC_RELEASE);
  TieSlot& slot = slotOf(session);
  __atomic_store_n(&slot.socket, record->socket, __ATOMIC_RELAXED);
  __atomic_store_n(&slot.session, session, __ATOMIC_RELEASE);
}

int socketOfTlsSession(const void* session) {
  if (session == nullptr) return -1;
  TieSlot& slot = slotOf(session);
  if (__atomic_load_n(&slot.session, __ATOMIC_ACQUIRE) != session) return -1;
  const unsigned socket = __atomic_load_n(&slot.socket, __ATOMIC_RELAXED);
  if (tlsSessionOf(getSocketInfo(socket)) != session) return -1;
  return static_cast<int>(socket);
}
