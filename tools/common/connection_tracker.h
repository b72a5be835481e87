// The connections of a recording, followed message by message: every output reads them from here,
// so that all of them tell one story. A connection is what the program talked over, not a
// descriptor number:
// - a socket connected again to learn how a non-blocking connect ended (EINPROGRESS, then connect
//   until 0 or EISCONN) stays one connection, and that second connect settles its outcome;
// - a copy of the descriptor (dup, inherited, received over a UNIX socket) that the agent adopts
//   with the socket's cookie joins the connection of that cookie;
// - a connect in progress ends connected or failed as the program learnt it: a "connectoutcome"
//   message, a second connect, the first send or receive, or a close before any of them.
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <utility>

#include "message_json.h"
#include "recorder_message_parser.h"
#include "traffic_filter.h"

namespace talvex {

enum class ConnectState {
  kOpen,        // accepted, adopted, or met in its traffic: connected from the start
  kConnecting,  // a non-blocking connect whose outcome has not been seen yet
  kConnected,
  kFailed,
};

struct TrackedConnection {
  uint64_t id = 0;           // unique over the recording, in order of opening
  int64_t pid = 0;           // the process and descriptor that opened it
  int64_t socket = -1;
  std::string opening;       // "connect", "accept", or "" when its opening was not seen
  ConnectState state = ConnectState::kOpen;
  int64_t error = 0;         // why it failed; 0 when it was closed before its connect ended
  bool shown = true;
  int64_t cookie = 0;         // 0: unknown
  ConnectionEnds ends;       // ends.localIp empty when the agent did not name it

  bool failed() const { return state == ConnectState::kFailed; }
  // Whether bytes flowed or could have: connected, or met connected.
  bool established() const { return state == ConnectState::kOpen || state == ConnectState::kConnected; }
};

// The local address of a connection: the one the agent named, or a stand-in where it named none
// (loopback for a loopback destination, a documentation address otherwise) for the outputs that
// must draw one.
std::string localIpOf(const ConnectionEnds& ends);
// Whether a connect's error leaves it under way (the first EINPROGRESS, EALREADY on a retry).
bool connectUnderWay(int64_t error);
// "closed before it connected" for a failure with no error, the error's name and text otherwise.
std::string failureText(const TrackedConnection& connection);

class ConnectionTracker {
 public:
  explicit ConnectionTracker(const TrafficFilter* filter = nullptr) : filter_(filter) {}

  struct Seen {
    int64_t pid = 0;                               // the process it belongs to (its own, or the last named)
    bool shown = true;                             // whether the outputs show the message
    const TrackedConnection* connection = nullptr;  // the connection it belongs to, if any
    bool opening = false;   // it opened that connection
    bool settled = false;   // it ended that connection's connect (now connected or failed)
    bool closing = false;   // it closed the connection's last descriptor
  };
  // Follows one message. One that belongs to no connection (process, addrinfo, ...) is shown.
  // The connection stays readable until the next call.
  Seen observe(const ParsedMessage& message);

 private:
  using Key = std::pair<int64_t, int64_t>;  // (pid, descriptor)
  TrackedConnection* open(const ParsedMessage& m, const Key& key, const std::string& opening);
  void settle(TrackedConnection* c, ConnectState state, int64_t error, Seen* seen);
  void release(const Key& key, Seen* seen);

  const TrafficFilter* filter_;
  std::map<uint64_t, TrackedConnection> connections_;  // those with a descriptor still open
  std::map<Key, uint64_t> descriptors_;
  std::map<uint64_t, int> descriptorCount_;
  std::map<int64_t, uint64_t> byCookie_;
  TrackedConnection closed_;  // the one the last message closed
  int64_t lastPid_ = 0;
  uint64_t nextId_ = 1;
};

}  // namespace talvex
