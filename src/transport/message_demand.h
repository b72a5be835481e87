// Whether a message is worth building. Unplugged (nothing leaves the process) and without DATA
// log lines (the only other place a message shows), the encoding of every payload would be work
// nobody sees: the handlers then skip it, and a call costs little more than the C library's.
#pragma once

#include <stdint.h>

// True when a message carrying `payloadBytes` bytes could be seen: sent, logged, or (too large to
// encode for sure) reported as dropped.
bool messageObservable(uint64_t payloadBytes);
// For a handler about to build a message: messageObservable, and when the message could not be
// seen, what its sending would have changed still happens (the pending process message is used
// up, as a send while unplugged uses it up).
bool messageWorthBuilding(uint64_t payloadBytes);
