// An extension, on when TALVEX_SOCKET_AGENT_PERSISTENT_CHANNEL is set: the process keeps one
// connection to the recorder and writes every message on it, each exactly the line it would
// have sent on a connection of its own (the line feed frames it). The costs this saves are a
// connect and a close per message, and a local port left in TIME_WAIT for a minute each.
//
// What keeps the host safe: messages are written under the channel's send lock, whole, one at a
// time; a write that cannot finish within a bounded time drops the message (logged), closes the
// connection (the recorder sees a cut line) and leaves the channel resting for a moment, so that
// a recorder that stops reading costs the host a bounded delay, never a hang. A child after fork
// makes its own connection. The connection's descriptor is checked to be the same socket before
// every write, so a host that closed it behind the agent's back and reused the number is never
// written to.
#pragma once

#include <netinet/in.h>

#include "transport/transport.h"

extern const char* const kPersistentChannelVariable;

// Read at start-up, with the other switches.
void readPersistentChannel();
bool persistentChannelOn();
// Writes one message on the process's connection to `recorder`, connecting first if need be.
// Called with the channel's send lock held.
void sendOnPersistentChannel(const sockaddr_in& recorder, const OutgoingText& message);
// The channel as a transport: it writes held payloads, and wants them held while a shared ring
// carries its messages.
extern const Transport persistentChannel;
// In a forked child: the parent's connection is not the child's.
void leavePersistentChannelAfterFork();
