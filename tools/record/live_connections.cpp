#include "live_connections.h"

#include "address_text.h"

namespace talvex {

namespace {

const int64_t kInProgress = 115;

int64_t integer(const ParsedMessage& m, const char* name, int64_t fallback = 0) {
  const MessageAttribute* a = m.find(name);
  return a != nullptr ? a->integer : fallback;
}

std::string text(const ParsedMessage& m, const char* name) {
  const MessageAttribute* a = m.find(name);
  return a != nullptr ? a->bytes : std::string();
}

}  // namespace

LiveConnections::Seen LiveConnections::observe(const ParsedMessage& m) {
  Seen seen;
  if (m.find("pid") != nullptr) lastPid_ = integer(m, "pid");
  const auto key = std::make_pair(lastPid_, integer(m, "socket", -1));
  if (m.kind == "connect" || m.kind == "accept") {
    LiveConnection c;
    c.id = nextId_++;
    c.connected = m.kind == "connect";
    c.failed = c.connected && m.find("error") != nullptr && integer(m, "error") != kInProgress;
    c.ends.family = familyName(text(m, "family"));
    c.ends.remoteIp = normalIp(text(m, "ip"));
    c.ends.remotePort = static_cast<int>(integer(m, "port"));
    c.ends.localPort = static_cast<int>(integer(m, "localport"));
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
