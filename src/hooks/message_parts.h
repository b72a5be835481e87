// The parts every send and receive message shares, whichever call moved the bytes: a socket's own
// data calls and a TLS library's plaintext calls alike. Inline: every recorded call builds them.
#pragma once

#include <limits.h>
#include <stddef.h>

#include "base/process_identity.h"
#include "base/time_base.h"
#include "hooks/handler_support.h"
#include "message/recorder_message.h"

// The data attribute over `count` bytes of `bytes`. The string setter counts in an int and reads
// a count of 0 as "up to the first zero byte": an empty one is given an empty text, and one too
// long to count makes the message incomplete, so that it is dropped rather than sent without it.
inline void setMessageData(RecorderMessage& message, const void* bytes, size_t count) {
  if (count > static_cast<size_t>(INT_MAX)) {
    message.abandon();
    return;
  }
  message.set(RMA_DATA, count > 0 ? static_cast<const char*>(bytes) : "", static_cast<int>(count));
}

// The head of every send message: when, which call, which socket, which process.
inline void setSendHead(RecorderMessage& message, const CallStart& start, int socket) {
  if (start.stampNs != -1) message.set(RMA_TIMESTAMP_NS, start.stampNs);
  message.set(RMA_TIMESTAMP, start.stamp);
  message.setInt(RMA_TICKET, start.ticket);
  message.setInt64(RMA_SOCKET, socket);
  message.set(RMA_PID, currentProcessId);
}

// The head of every receive message, stamped when the data arrived.
inline void setReceiveHead(RecorderMessage& message, int ticket, int socket) {
  const int64_t stamp = getTimeStamp();
  const int64_t stampNs = getTimeStampNs();
  if (stampNs != -1) message.set(RMA_TIMESTAMP_NS, stampNs);
  message.set(RMA_PID, currentProcessId);
  message.set(RMA_TIMESTAMP, stamp);
  message.setInt(RMA_TICKET, ticket);
  message.setInt64(RMA_SOCKET, socket);
}
