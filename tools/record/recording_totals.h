// The counts of a recording's summary line, kept as its messages arrive, for an output that does
// not keep the messages (the live view). They count as the transcript does: a socket is a
// conversation (a connect, an accept, or traffic on a socket whose opening was not seen), a
// failure a connect that did not succeed or a send or receive that failed, the bytes those of the
// sends and receives that succeeded.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "connection_tracker.h"
#include "recorder_message_parser.h"

namespace talvex {

struct Totals {
  int64_t sockets = 0;
  int64_t messages = 0;
  int64_t bytesSent = 0;
  int64_t bytesReceived = 0;
  int64_t failures = 0;
  int64_t malformed = 0;
};

// "1 byte", "2 bytes".
std::string counted(int64_t n, const char* one, const char* many);

// "summary: 2 sockets, 9 messages, 35 bytes sent, 79 bytes received, 1 failure", as the
// transcript and the live view end.
std::string summaryLine(const Totals& totals);

class RecordingTotals {
 public:
  // One message, with what the connection tracker saw of it.
  void add(const ParsedMessage& message, const ConnectionTracker::Seen& seen);
  void addMalformed() { ++totals_.malformed; }
  const Totals& totals() const { return totals_; }
  // The kinds of the sockets seen but not recorded, one per socket.
  const std::vector<std::string>& unrecorded() const { return unrecorded_; }

 private:
  Totals totals_;
  std::vector<std::string> unrecorded_;
};

}  // namespace talvex
