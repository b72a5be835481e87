// The agent's memory of the sockets the host created: family, type, protocol and state bits.
#pragma once

#include <pthread.h>
#include <stdint.h>

enum SocketInfoFlag : uint8_t {
  SIF_OPENED = 1u << 0,
  SIF_ACCEPTED = 1u << 1,
  SIF_REROUTED = 1u << 2,
  SIF_LOCKED = 1u << 3,
  SIF_NONBLOCKING = 1u << 4,
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
};

int getSocket(SOCKETINFO* record);
unsigned getProtocol(SOCKETINFO* record);
unsigned getFamily(SOCKETINFO* record);
void setFamily(SOCKETINFO* record, unsigned family);
int isSocketRerouted(SOCKETINFO* record);
