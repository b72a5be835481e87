// Recorded messages regrouped as a reader thinks of them: per process, per socket, one
// conversation from connect (or accept) to close, events in ticket order.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "recorder_message_parser.h"

namespace talvex {

struct Event {
  std::string kind;  // "send", "receive"
  int64_t ticket = 0;
  int64_t timeNs = 0;
  std::string data;
  int64_t length = 0;
  bool failed = false;
  bool endOfStream = false;  // a receive that found the peer gone
  int64_t error = 0;
};

struct Peer {
  int family = 0;  // 2 or 10, 0 when unknown
  std::string ip;
  int port = 0;
};

struct Conversation {
  int64_t pid = 0;
  int64_t socket = 0;
  std::string opening;  // "connect", "accept", or "" when the socket was seen first in traffic
  Peer local, remote;
  bool failed = false;
  int64_t error = 0;
  int64_t durationMs = 0;
  bool loopback = false;
  bool hasSocksError = false;
  int64_t socksError = 0;
  int64_t openTicket = 0;
  int64_t openTimeNs = 0;
  bool closed = false;
  int64_t closeTimeNs = 0;
  std::vector<Event> events;
  int64_t bytesSent = 0;
  int64_t bytesReceived = 0;
};

struct Resolution {
  int64_t pid = 0;
  std::string name, family, ip;
};

struct Recording {
  std::vector<int64_t> pids;                  // in order of first appearance
  std::vector<std::string> workingDirectories;  // per pid, same order
  std::vector<Conversation> conversations;    // by pid, then by opening ticket
  std::vector<Resolution> resolutions;
  std::vector<std::string> notices;           // names of calls seen but not recorded
  size_t messages = 0;
  size_t malformed = 0;
  int64_t bytesSent = 0;
  int64_t bytesReceived = 0;
  int failures = 0;
};

// The conversations of the messages shown, as they were parsed when they arrived; `malformed` of
// the messages shown could not be parsed.
Recording buildRecording(std::vector<ParsedMessage> shown, size_t malformed);

// The address a connect to `remote` left from, as far as it can be told: only its port is
// recorded. Loopback for a loopback destination, a documentation address otherwise.
std::string localAddressFor(const Peer& remote);

}  // namespace talvex
