#include "capture_output.h"

#include <errno.h>

namespace talvex {

bool CaptureOutput::open(const std::string& path, std::string* error) { return capture_.open(path, error); }

void CaptureOutput::write(const ArrivedMessage& message) {
  const TrackedConnection* c = message.seen.connection;
  // Only streams whose two ends are known can be drawn: a connection met in its traffic has none,
  // an accepted one needs the local port its listener had.
  if (message.parsed == nullptr || c == nullptr || c->opening.empty() || c->ends.localPort == 0) return;
  const ParsedMessage& m = *message.parsed;
  const bool accepted = c->opening == "accept";
  // The program's end is the client of a connect and the server of an accept.
  const Peer client = endOf(c->ends, !accepted);
  const Peer server = endOf(c->ends, accepted);
  if (message.seen.opening || message.seen.settled) {
    // A connect still under way draws nothing until its outcome is known.
    if (c->established()) {
      capture_.opened(c->id, client, server, m.timeNs());
      drawn_.insert(c->id);
    } else if (c->failed()) {
      capture_.attempted(client, server, c->error == ECONNREFUSED, m.timeNs());
    }
  }
  if (drawn_.count(c->id) != 0) {
    if (message.seen.closing) {
      capture_.closed(c->id, m.timeNs());
      drawn_.erase(c->id);
    } else if ((m.kind == "send" || m.kind == "receive") && m.find("error") == nullptr) {
      const MessageAttribute* data = m.find("data");
      const bool fromProgram = m.kind == "send";
      if (data != nullptr) capture_.data(c->id, accepted ? !fromProgram : fromProgram, data->bytes, m.timeNs());
    }
  }
  if (!capture_.flush()) failed_ = true;
}

}  // namespace talvex
