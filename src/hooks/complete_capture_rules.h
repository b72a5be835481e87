// Where the complete-capture extension changes what the data and connection handlers record.
// With the extension off, every function here answers with the agent's usual rule.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/types.h>

#include "config/complete_capture.h"

struct SOCKETINFO;

// The bytes of a send that its message carries. Usually every byte asked for, whatever the
// outcome; with complete capture, those the system took, and no data at all when it took none.
struct SentBytes {
  bool present;
  size_t count;
};
SentBytes sentBytes(size_t asked, ssize_t result);

// Whether a receive that got no bytes (end of stream, failure) still carries a data attribute.
bool emptyReceiveCarriesData();

// Whether a receive that asked for no bytes and got none is left out: with complete capture it
// is not an event (an end of stream is a receive that asked for bytes and got none).
// Inline: every receive asks, and almost none asked for nothing.
inline bool emptyAskIsLeftOut(uint64_t asked, ssize_t result) {
  return asked == 0 && result == 0 && completeCaptureOn();
}

// Whether a receive with these flags is left out of the recording: a peek consumes nothing, so
// with complete capture its bytes are recorded once, when they are read.
bool peekIsLeftOut(int flags);

// The registry's record of the socket `fd` names now (while no message can be seen, the record
// the registry holds for the number, unchecked). With complete capture, a connected TCP
// socket the process did not create through socket() (inherited, duplicated, received over a
// UNIX socket, opened by a raw system call) is registered on its first use, and the recorder
// hears of it as an accept with the info "ADOPTED".
SOCKETINFO* socketForCall(unsigned fd);

// The record a close of `fd` releases: the registry's, or with complete capture the one that
// follows descriptor 0 (see socketForCall), which the close stops following.
SOCKETINFO* socketForClose(unsigned fd);

// The descriptor was closed: whatever the agent learnt about what it named no longer holds.
void forgetDescriptor(unsigned fd);

// Whether every accepted connection is recorded and followed, not only a listener's first.
bool everyAcceptRecorded();
// Registers a connection just accepted on `listener` (maybe unknown), so that its traffic and its
// close are recorded. `family` is the peer's, or 0 when it could not be had.
void followAcceptedSocket(int socket, SOCKETINFO* listener, unsigned family, int acceptFlags);
