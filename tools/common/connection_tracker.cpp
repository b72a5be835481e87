#include "connection_tracker.h"

#include <errno.h>

#include "address_text.h"
#include "error_text.h"

namespace talvex {

std::string localIpOf(const ConnectionEnds& ends) {
  if (!ends.localIp.empty()) return ends.localIp;
  if (ends.family == "AF_INET6") return ends.remoteIp == "::1" ? "::1" : "2001:db8::1";
  return ends.remoteIp.rfind("127.", 0) == 0 ? "127.0.0.1" : "192.0.2.1";
}

bool connectUnderWay(int64_t error) { return error == EINPROGRESS || error == EALREADY; }

std::string failureText(const TrackedConnection& c) {
  return c.error == 0 ? std::string("closed before it connected") : errorText(c.error);
}

TrackedConnection* ConnectionTracker::open(const ParsedMessage& m, const Key& key, const std::string& opening) {
  if (descriptors_.count(key) != 0) {
    // A descriptor opened again without its close being seen: its former connection is over.
    Seen ignored;
    release(key, &ignored);
  }
  TrackedConnection c;
  c.id = nextId_++;
  c.pid = key.first;
  c.socket = key.second;
  c.opening = opening;
  if (!opening.empty()) {
    c.ends.family = familyName(m.text("family"));
    c.ends.remoteIp = normalIp(m.text("ip"));
    c.ends.remotePort = static_cast<int>(m.integer("port"));
    c.ends.localPort = static_cast<int>(m.integer("localport"));
    c.ends.localIp = normalIp(m.text("localip"));
    c.shown = filter_ == nullptr || filter_->shows(c.ends);
  } else {
    c.shown = filter_ == nullptr || filter_->showsUnknown();
  }
  c.cookie = m.integer("cookie");
  TrackedConnection& stored = connections_[c.id] = c;
  descriptors_[key] = c.id;
  descriptorCount_[c.id] = 1;
  if (c.cookie != 0) byCookie_[c.cookie] = c.id;
  return &stored;
}

void ConnectionTracker::settle(TrackedConnection* c, ConnectState state, int64_t error, Seen* seen) {
  c->state = state;
  c->error = state == ConnectState::kFailed ? error : 0;
  seen->settled = true;
}

void ConnectionTracker::release(const Key& key, Seen* seen) {
  const auto found = descriptors_.find(key);
  if (found == descriptors_.end()) return;
  const uint64_t id = found->second;
  descriptors_.erase(found);
  if (--descriptorCount_[id] > 0) return;
  descriptorCount_.erase(id);
  const auto connection = connections_.find(id);
  closed_ = connection->second;
  if (closed_.cookie != 0) {
    const auto cookie = byCookie_.find(closed_.cookie);
    if (cookie != byCookie_.end() && cookie->second == id) byCookie_.erase(cookie);
  }
  connections_.erase(connection);
  seen->connection = &closed_;
  seen->closing = true;
}

ConnectionTracker::Seen ConnectionTracker::observe(const ParsedMessage& m) {
  Seen seen;
  if (m.find("pid") != nullptr) lastPid_ = m.integer("pid");
  seen.pid = lastPid_;
  if (m.find("socket") == nullptr) return seen;
  const Key key(lastPid_, m.integer("socket"));
  const auto found = descriptors_.find(key);
  TrackedConnection* c = found != descriptors_.end() ? &connections_[found->second] : nullptr;
  const bool hasError = m.find("error") != nullptr;
  const int64_t error = m.integer("error");

  if (m.kind == "connect") {
    if (c != nullptr && c->state == ConnectState::kConnecting) {
      // Connected again to learn how the first connect ended.
      if (!hasError || error == EISCONN) {
        settle(c, ConnectState::kConnected, 0, &seen);
      } else if (!connectUnderWay(error)) {
        settle(c, ConnectState::kFailed, error, &seen);
      }
    } else {
      c = open(m, key, "connect");
      seen.opening = true;
      if (hasError) c->state = connectUnderWay(error) ? ConnectState::kConnecting : ConnectState::kFailed;
      if (c->state == ConnectState::kFailed) c->error = error;
      if (!hasError) c->state = ConnectState::kConnected;
    }
  } else if (m.kind == "accept") {
    const auto sameSocket = m.integer("cookie") != 0 ? byCookie_.find(m.integer("cookie")) : byCookie_.end();
    if (sameSocket != byCookie_.end() && (c == nullptr || c->id != sameSocket->second)) {
      // Another descriptor of a socket already followed.
      if (c != nullptr) release(key, &seen);
      seen = Seen();
      seen.pid = lastPid_;
      descriptors_[key] = sameSocket->second;
      ++descriptorCount_[sameSocket->second];
      c = &connections_[sameSocket->second];
    } else if (c == nullptr || sameSocket == byCookie_.end()) {
      c = open(m, key, "accept");
      seen.opening = true;
    }
  } else if (m.kind == "connectoutcome") {
    if (c != nullptr && c->state == ConnectState::kConnecting) {
      settle(c, hasError ? ConnectState::kFailed : ConnectState::kConnected, error, &seen);
    }
  } else if (m.kind == "send" || m.kind == "receive") {
    if (c == nullptr) {
      c = open(m, key, "");
      seen.opening = true;
    } else if (c->state == ConnectState::kConnecting && !(hasError && (error == EAGAIN || error == EINTR))) {
      // The first transfer tells how the connect ended: the error it met is the connect's.
      settle(c, hasError ? ConnectState::kFailed : ConnectState::kConnected, error, &seen);
    }
  } else if (m.kind == "close") {
    if (c == nullptr) {
      seen.shown = filter_ == nullptr || filter_->showsUnknown();
      return seen;
    }
    if (c->state == ConnectState::kConnecting) settle(c, ConnectState::kFailed, 0, &seen);
    seen.shown = c->shown;
    release(key, &seen);
    if (!seen.closing) seen.connection = c;
    return seen;
  } else {
    if (c != nullptr) seen.connection = c;
    return seen;
  }
  seen.shown = c != nullptr ? c->shown : true;
  seen.connection = c;
  return seen;
}

}  // namespace talvex
