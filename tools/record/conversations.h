// Recorded messages regrouped as a reader thinks of them: per process, per connection, one
// conversation from connect (or accept) to close, events in ticket order. Connections are those
// of the ConnectionTracker: however many descriptors carried a conversation, it is one.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "connection_tracker.h"
#include "recorder_message_parser.h"

namespace talvex {

struct Event {
  std::string kind;  // "send", "receive", or "close" of one of several descriptors
  int64_t ticket = 0;
  int64_t timeNs = 0;
  std::string data;
  int64_t length = 0;
  bool failed = false;
  bool endOfStream = false;  // a receive that found the peer gone
  int64_t error = 0;
  std::string descriptor;  // for a close: "socket 4", "socket 4 of process 812"
};

struct Peer {
  int family = 0;  // 2 or 10, 0 when unknown
  std::string ip;
  int port = 0;
};

// One end of a connection as the outputs draw it: the program's own end (`local`), its local
// address a stand-in where the agent named none, or the far end.
Peer endOf(const ConnectionEnds& ends, bool local);

struct Conversation {
  size_t process = 0;  // the entry of Recording::processes that opened it
  int64_t pid = 0;
  int64_t socket = 0;
  std::vector<std::string> alsoThrough;  // the other descriptors that carried it ("socket 7", ...)
  std::string opening;  // "connect", "accept", or "" when the socket was seen first in traffic
  Peer local, remote;
  ConnectState state = ConnectState::kOpen;
  bool wasUnderWay = false;  // a non-blocking connect, whose outcome came later
  bool failed = false;
  std::string failure;       // why, as the reader reads it
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
  std::string tls;         // the TLS library whose plaintext its data is, when it was TLS
  bool encrypted = false;  // its data is TLS records that could not be read as plaintext
  bool decrypted = false;  // its records were read with the secrets of a key log
};

struct Resolution {
  size_t process = 0;  // the entry of Recording::processes that asked
  int64_t ticket = 0;
  std::string name, family;
  std::vector<std::string> addresses;  // each once, in the order given
  int64_t resolverError = 0;           // a failed resolution's code (getaddrinfo's result)
};

struct ProcessHeader {
  int64_t pid = 0;
  std::string workingDirectory;
  std::string commandLine;  // as a shell would read it; empty when the agent did not send it
};

struct Recording {
  std::vector<ProcessHeader> processes;       // in order of first appearance, a process again after an exec
  std::vector<Conversation> conversations;    // by pid, then by opening ticket
  std::vector<Resolution> resolutions;
  std::vector<std::string> notices;           // names of calls seen but not recorded
  std::vector<std::string> unrecorded;        // kinds of the sockets seen but not recorded
  size_t messages = 0;
  size_t malformed = 0;
  int64_t bytesSent = 0;
  int64_t bytesReceived = 0;
  int failures = 0;
};

// The conversations of the messages shown, as they were parsed when they arrived; `malformed` of
// the messages shown could not be parsed.
Recording buildRecording(std::vector<ParsedMessage> shown, size_t malformed);

// A command line as the agent sends it (each argument ended by a zero byte) as a shell reads it.
std::string shellCommandLine(const std::string& zeroSeparated);

}  // namespace talvex
