// Conversations made by hand for the record unit tests, as buildRecording would make them from
// an agent's messages: events with times, two ends, an opening.
#pragma once

#include <stdint.h>

#include <string>

#include "conversations.h"

namespace talvex_test {

// A connect from 127.0.0.1:40000 to 127.0.0.1:`port`, opened at `openNs`.
inline talvex::Conversation clientConversation(int port = 8080, int64_t openNs = 1000000000) {
  talvex::Conversation c;
  c.pid = 42;
  c.socket = 5;
  c.opening = "connect";
  c.local = talvex::Peer{2, "127.0.0.1", 40000};
  c.remote = talvex::Peer{2, "127.0.0.1", port};
  c.state = talvex::ConnectState::kConnected;
  c.durationMs = 2;
  c.openTimeNs = openNs;
  c.openTicket = 1;
  return c;
}

// A send or receive of `data` at `timeNs`.
inline void addData(talvex::Conversation& c, const char* kind, const std::string& data, int64_t timeNs) {
  talvex::Event e;
  e.kind = kind;
  e.timeNs = timeNs;
  e.data = data;
  e.length = static_cast<int64_t>(data.size());
  (e.kind == "send" ? c.bytesSent : c.bytesReceived) += static_cast<int64_t>(data.size());
  c.events.push_back(e);
}

inline void closeAt(talvex::Conversation& c, int64_t timeNs) {
  c.closed = true;
  c.closeTimeNs = timeNs;
}

}  // namespace talvex_test
