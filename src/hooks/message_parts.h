// The parts every send and receive message shares, whichever call moved the bytes: a socket's own
// data calls and a TLS library's plaintext calls alike.
#pragma once

#include <stddef.h>

#include "hooks/handler_support.h"

class RecorderMessage;

// The head: when, which call, which socket, which process. A receive's is stamped now, when its
// data arrived.
void setSendHead(RecorderMessage& message, const CallStart& start, int socket);
void setReceiveHead(RecorderMessage& message, int ticket, int socket);
// The data attribute over `count` bytes of `bytes`.
void setMessageData(RecorderMessage& message, const void* bytes, size_t count);
