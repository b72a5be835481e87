#include "hooks/socket_registry.h"

int getSocket(SOCKETINFO* record) { return record != nullptr ? static_cast<int>(record->socket) : -1; }
unsigned getProtocol(SOCKETINFO* record) { return record != nullptr ? record->protocol : 0; }
unsigned getFamily(SOCKETINFO* record) { return record != nullptr ? record->family : 0; }

void setFamily(SOCKETINFO* record, unsigned family) {
  if (record != nullptr) record->family = family;
}

int isSocketRerouted(SOCKETINFO* record) {
  return record != nullptr && (record->flags & SIF_REROUTED) != 0 ? 1 : 0;
}
