// The connections of a recording as its messages arrive: which socket of which process talks to
// whom, so that every message can carry both ends and the filters can decide what is shown.
#pragma once

#include <stdint.h>

#include <map>
#include <utility>

#include "message_json.h"
#include "recorder_message_parser.h"
#include "traffic_filter.h"

namespace talvex {

struct LiveConnection {
  uint64_t id = 0;           // unique over the recording
  bool connected = false;    // opened by a connect of this process (else accepted or adopted)
  bool failed = false;       // a connect that did not succeed
  bool shown = true;
  ConnectionEnds ends;
};

class LiveConnections {
 public:
  explicit LiveConnections(const TrafficFilter& filter) : filter_(filter) {}

  struct Seen {
    bool shown = true;                       // whether the outputs show the message
    const LiveConnection* connection = nullptr;  // the connection it belongs to, if known
    bool opening = false, closing = false;   // it opened or closed that connection
  };
  // Follows one message. A message that belongs to no connection (process, addrinfo, ...) is shown.
  Seen observe(const ParsedMessage& message);

 private:
  const TrafficFilter& filter_;
  std::map<std::pair<int64_t, int64_t>, LiveConnection> open_;  // (pid, socket) -> connection
  LiveConnection closing_;
  int64_t lastPid_ = 0;
  uint64_t nextId_ = 1;
};

}  // namespace talvex
