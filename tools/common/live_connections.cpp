#include "live_connections.h"

#include "address_text.h"
#include "connect_outcome.h"

namespace talvex {

LiveConnections::Seen LiveConnections::observe(const ParsedMessage& m) {
  Seen seen;
  if (m.find("pid") != nullptr) lastPid_ = m.integer("pid");
  const auto key = std::make_pair(lastPid_, m.integer("socket", -1));
  if (m.kind == "connect" || m.kind == "accept") {
    LiveConnection c;
    c.id = nextId_++;
    c.connected = m.kind == "connect";
    c.failed = c.connected && connectFailed(m);
    c.ends.family = familyName(m.text("family"));
    c.ends.remoteIp = normalIp(m.text("ip"));
    c.ends.remotePort = static_cast<int>(m.integer("port"));
    c.ends.localPort = static_cast<int>(m.integer("localport"));
    c.shown = filter_.shows(c.ends);
    LiveConnection& stored = open_[key] = c;
    seen.shown = stored.shown;
    seen.connection = &stored;
    seen.opening = true;
    return seen;
  }
  if (m.kind != "send" && m.kind != "receive" && m.kind != "close") return seen;
  const auto found = open_.find(key);
  if (found == open_.end()) {
    seen.shown = filter_.showsUnknown();
    return seen;
  }
  seen.shown = found->second.shown;
  if (m.kind == "close") {
    // Kept until the next message, so that the caller can still read the connection it closed.
    closing_ = found->second;
    open_.erase(found);
    seen.connection = &closing_;
    seen.closing = true;
  } else {
    seen.connection = &found->second;
  }
  return seen;
}

}  // namespace talvex
