#include "conversations.h"

#include <algorithm>
#include <map>

#include "address_text.h"
#include "connect_outcome.h"
#include "recorder_message_parser.h"

namespace talvex {

namespace {

int familyNumber(const std::string& name) {
  if (name == "AF_INET") return 2;
  if (name == "AF_CCITT" || name == "AF_INET6") return 10;  // the recorder's name for Linux's 10
  return 0;
}

Peer peerOf(const ParsedMessage& m) {
  Peer p;
  p.family = familyNumber(m.text("family"));
  p.ip = m.text("ip");
  p.port = static_cast<int>(m.integer("port"));
  return p;
}

}  // namespace

std::string localAddressFor(const Peer& remote) {
  if (remote.family == 10) return normalIp(remote.ip) == "::1" ? remote.ip : "2001:db8::1";
  return remote.ip.rfind("127.", 0) == 0 ? "127.0.0.1" : "192.0.2.1";
}

Recording buildRecording(std::vector<ParsedMessage> shown, size_t malformed) {
  Recording recording;
  recording.malformed = malformed;
  std::map<int64_t, std::vector<ParsedMessage>> byPid;
  std::map<int64_t, std::string> directories;
  // Messages without a pid (resolutions, notices) belong to the process whose message came last.
  int64_t lastPid = 0;
  for (ParsedMessage& m : shown) {
    ++recording.messages;
    if (m.find("pid") != nullptr) lastPid = m.integer("pid");
    if (std::find(recording.pids.begin(), recording.pids.end(), lastPid) == recording.pids.end()) {
      recording.pids.push_back(lastPid);
    }
    if (m.kind == "process") directories[lastPid] = m.text("workingdir");
    byPid[lastPid].push_back(std::move(m));
  }
  for (int64_t pid : recording.pids) {
    recording.workingDirectories.push_back(directories[pid]);
    auto& messages = byPid[pid];
    std::stable_sort(messages.begin(), messages.end(), [](const ParsedMessage& a, const ParsedMessage& b) {
      return a.integer("ticket") < b.integer("ticket");
    });
    std::map<int64_t, size_t> open;  // socket -> index of its open conversation
    auto start = [&](const ParsedMessage& m, int64_t socket, const std::string& opening) -> Conversation& {
      Conversation c;
      c.pid = pid;
      c.socket = socket;
      c.opening = opening;
      c.openTicket = m.integer("ticket");
      c.openTimeNs = m.timeNs();
      recording.conversations.push_back(c);
      open[socket] = recording.conversations.size() - 1;
      return recording.conversations.back();
    };
    for (const ParsedMessage& m : messages) {
      const int64_t socket = m.integer("socket", -1);
      if (m.kind == "connect") {
        Conversation& c = start(m, socket, "connect");
        c.remote = peerOf(m);
        c.local.family = c.remote.family;
        c.local.ip = localAddressFor(c.remote);
        c.local.port = static_cast<int>(m.integer("localport"));
        c.durationMs = m.integer("duration");
        c.loopback = m.integer("loopback") != 0;
        c.hasSocksError = m.find("sockserror") != nullptr;
        c.socksError = m.integer("sockserror");
        if (connectFailed(m)) {
          c.failed = true;
          c.error = m.integer("error");
          ++recording.failures;
        }
      } else if (m.kind == "accept") {
        Conversation& c = start(m, socket, "accept");
        c.remote = peerOf(m);
        c.local.family = c.remote.family;
        c.local.ip = localAddressFor(c.remote);
      } else if (m.kind == "send" || m.kind == "receive") {
        auto found = open.find(socket);
        Conversation& c = found != open.end() ? recording.conversations[found->second] : start(m, socket, "");
        Event e;
        e.kind = m.kind;
        e.ticket = m.integer("ticket");
        e.timeNs = m.timeNs();
        e.data = m.text("data");
        e.length = m.integer("length");
        e.failed = m.find("error") != nullptr;
        e.error = m.integer("error");
        // A receive's length is what it got; on an end of stream the agent still records what the
        // buffer held, which is nothing that was received.
        if (m.kind == "receive" && !e.failed && e.length <= 0) {
          e.data.clear();
          e.endOfStream = true;
        }
        if (e.failed) ++recording.failures;
        if (!e.failed) {
          (m.kind == "send" ? c.bytesSent : c.bytesReceived) += static_cast<int64_t>(e.data.size());
          (m.kind == "send" ? recording.bytesSent : recording.bytesReceived) += static_cast<int64_t>(e.data.size());
        }
        c.events.push_back(std::move(e));
      } else if (m.kind == "close") {
        auto found = open.find(socket);
        if (found != open.end()) {
          Conversation& c = recording.conversations[found->second];
          c.closed = true;
          c.closeTimeNs = m.timeNs();
          open.erase(found);
        }
      } else if (m.kind == "addrinfo") {
        recording.resolutions.push_back({pid, m.text("name"), m.text("family"), m.text("ip")});
      } else if (m.kind == "notrecorded") {
        recording.notices.push_back(m.find("name") != nullptr ? m.text("name") : m.text("info"));
      }
    }
  }
  return recording;
}

}  // namespace talvex
