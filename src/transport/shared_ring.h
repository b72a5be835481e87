// An extension, on when TALVEX_SOCKET_AGENT_SHARED_RING is set and the persistent channel is on a
// local socket (TALVEX_SOCKET_AGENT_RECORDER_SOCKET): the process's messages go through a ring
// of memory it shares with the recorder, handed over on the connection as a sealed memfd, and
// the connection carries only a doorbell byte after each message. A large recording then costs
// one copy into memory both sides already have, instead of the kernel's copy into socket buffers
// and the recorder's copy out of them.
//
// What keeps the host safe: the ring is sealed against shrinking before the recorder sees it, so
// nothing the recorder does can make the host's writes fault; the recorder's counter is checked
// before it is believed; a message waits for room only within the channel's time budget, and one
// that cannot be written whole breaks the connection as a failed write does; a forked child
// unmaps its parent's ring and makes its own with its own connection.
#pragma once

#include <stdint.h>

#include "message/held_payload.h"

extern const char* const kSharedRingVariable;

// Read at start-up, with the other switches.
void readSharedRing();
bool sharedRingWanted();
// Makes a ring for the connection `fd` and hands it over on it, before anything else is written
// there. False when none could be made: the messages then go on the connection itself.
bool offerSharedRing(int fd);
bool sharedRingActive();
// Writes the message into the ring, escaping a held payload there, waiting for room until the
// deadline, and rings the doorbell on `fd`. False when it could not: part of the message may be
// in the ring, so the connection must go.
bool writeToSharedRing(int fd, const OutgoingText& message, int64_t deadlineNs);
// The ring goes with its connection.
void dropSharedRing();
