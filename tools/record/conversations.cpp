#include "conversations.h"

#include <stdio.h>

#include <algorithm>
#include <functional>
#include <map>
#include <queue>
#include <utility>

#include "address_text.h"
#include "encrypted_connections.h"
#include "unrecorded_sockets.h"

namespace talvex {

Peer endOf(const ConnectionEnds& ends, bool local) {
  Peer p;
  p.family = ends.family == "AF_INET6" ? 10 : ends.family == "AF_INET" ? 2 : 0;
  p.ip = local ? localIpOf(ends) : ends.remoteIp;
  p.port = local ? ends.localPort : ends.remotePort;
  return p;
}

namespace {

// The state the connection is in now, as the conversation shows it.
void followState(Conversation& c, const TrackedConnection& connection) {
  if (connection.state == ConnectState::kConnecting) c.wasUnderWay = true;
  c.state = connection.state;
  c.failed = connection.failed();
  if (c.failed) c.failure = failureText(connection);
}

void addEvent(Recording& recording, Conversation& c, const ParsedMessage& m) {
  if (c.tls.empty() && m.find("tls") != nullptr) c.tls = m.text("tls");
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
  // Judged by the conversation's first bytes, as EncryptedConnections judges it.
  if (c.bytesSent + c.bytesReceived == 0 && c.tls.empty() && beginsWithTlsHandshake(e.data)) c.encrypted = true;
  if (!e.failed) {
    (m.kind == "send" ? c.bytesSent : c.bytesReceived) += static_cast<int64_t>(e.data.size());
    (m.kind == "send" ? recording.bytesSent : recording.bytesReceived) += static_cast<int64_t>(e.data.size());
  }
  c.events.push_back(std::move(e));
}

void addResolution(Recording& recording, size_t process, const ParsedMessage& m) {
  // The entries of one resolution share its ticket: one line for them all.
  const std::string address = normalIp(m.find("address") != nullptr ? m.text("address") : m.text("ip"));
  Resolution* same = nullptr;
  if (!recording.resolutions.empty() && recording.resolutions.back().process == process &&
      recording.resolutions.back().ticket == m.integer("ticket") && recording.resolutions.back().name == m.text("name")) {
    same = &recording.resolutions.back();
  }
  if (same == nullptr) {
    Resolution r;
    r.process = process;
    r.ticket = m.integer("ticket");
    r.name = m.text("name");
    r.family = familyName(m.text("family"));
    r.resolverError = m.integer("gaierror");
    recording.resolutions.push_back(r);
    same = &recording.resolutions.back();
  } else if (same->family != familyName(m.text("family"))) {
    same->family.clear();  // several families: the addresses say which
  }
  if (!address.empty() && std::find(same->addresses.begin(), same->addresses.end(), address) == same->addresses.end()) {
    same->addresses.push_back(address);
  }
}

}  // namespace

std::string shellCommandLine(const std::string& zeroSeparated) {
  std::string line;
  for (const std::string& argument : commandLineArguments(zeroSeparated)) {
    const bool plain = !argument.empty() && argument.find_first_not_of(
                           "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-+=./:,@%") == std::string::npos;
    if (!line.empty()) line += ' ';
    const bool control = std::any_of(argument.begin(), argument.end(), [](char c) {
      return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
    });
    if (plain) {
      line += argument;
    } else if (control) {
      // One line whatever the arguments hold: bash's $'...' form, which a shell reads back.
      line += "$'";
      for (const char c : argument) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '\n') {
          line += "\\n";
        } else if (c == '\t') {
          line += "\\t";
        } else if (c == '\\' || c == '\'') {
          line += std::string("\\") + c;
        } else if (u < 0x20 || u == 0x7f) {
          char escaped[8];
          snprintf(escaped, sizeof escaped, "\\x%02x", u);
          line += escaped;
        } else {
          line += c;
        }
      }
      line += '\'';
    } else {
      line += '\'';
      for (const char c : argument) line += c == '\'' ? std::string("'\\''") : std::string(1, c);
      line += '\'';
    }
  }
  return line;
}

Recording buildRecording(std::vector<ParsedMessage> shown, size_t malformed) {
  Recording recording;
  recording.malformed = malformed;
  // One stream of messages per agent that ran: a process, and again after each exec, when the
  // program's new agent starts its tickets afresh under the same pid.
  std::vector<std::vector<ParsedMessage>> streams;
  std::map<int64_t, size_t> currentStream;  // pid -> its latest stream
  std::vector<bool> headed;                 // whether the stream's process message was seen
  // Messages without a pid (resolutions, notices) belong to the process whose message came last.
  int64_t lastPid = 0;
  for (ParsedMessage& m : shown) {
    ++recording.messages;
    if (m.find("pid") != nullptr) lastPid = m.integer("pid");
    auto found = currentStream.find(lastPid);
    if (found == currentStream.end() || (m.kind == "process" && headed[found->second])) {
      streams.emplace_back();
      headed.push_back(false);
      ProcessHeader header;
      header.pid = lastPid;
      recording.processes.push_back(header);
      found = currentStream.insert_or_assign(lastPid, streams.size() - 1).first;
    }
    const size_t stream = found->second;
    if (m.kind == "process") {
      headed[stream] = true;
      recording.processes[stream].workingDirectory = m.text("workingdir");
      recording.processes[stream].commandLine = shellCommandLine(m.text("commandline"));
    }
    streams[stream].push_back(std::move(m));
  }
  for (auto& messages : streams) {
    std::stable_sort(messages.begin(), messages.end(), [](const ParsedMessage& a, const ParsedMessage& b) {
      return a.integer("ticket") < b.integer("ticket");
    });
  }
  // Each stream's messages in ticket order, the streams interleaved by time, so that a
  // connection a child inherited is still open when the child's first message about it comes.
  // (time of its next message, stream) of each stream with messages left.
  using Head = std::pair<int64_t, size_t>;
  std::priority_queue<Head, std::vector<Head>, std::greater<Head>> heads;
  std::vector<size_t> next(streams.size(), 0);
  for (size_t i = 0; i < streams.size(); ++i) {
    if (!streams[i].empty()) heads.emplace(streams[i][0].timeNs(), i);
  }
  ConnectionTracker tracker;
  std::map<uint64_t, size_t> conversationOf;  // connection id -> index
  while (!heads.empty()) {
    const size_t index = heads.top().second;
    heads.pop();
    const int64_t pid = recording.processes[index].pid;
    const auto& messages = streams[index];
    const ParsedMessage& m = messages[next[index]++];
    if (next[index] < messages.size()) heads.emplace(messages[next[index]].timeNs(), index);
    {
      if (m.kind == "addrinfo") addResolution(recording, index, m);
      if (m.kind == "notrecorded") {
        if (isSocketNotice(m)) {
          recording.unrecorded.push_back(unrecordedKind(m));
        } else {
          recording.notices.push_back(m.find("name") != nullptr ? m.text("name") : m.text("info"));
        }
      }
      const ConnectionTracker::Seen seen = tracker.observe(m);
      if (seen.connection == nullptr) continue;
      const TrackedConnection& connection = *seen.connection;
      if (seen.opening) {
        Conversation c;
        c.pid = pid;
        c.process = index;
        c.socket = m.integer("socket");
        c.opening = connection.opening;
        c.local = endOf(connection.ends, true);
        c.remote = endOf(connection.ends, false);
        c.openTicket = m.integer("ticket");
        c.openTimeNs = m.timeNs();
        c.durationMs = m.integer("duration");
        c.loopback = m.integer("loopback") != 0;
        c.hasSocksError = m.find("sockserror") != nullptr;
        c.socksError = m.integer("sockserror");
        recording.conversations.push_back(c);
        conversationOf[connection.id] = recording.conversations.size() - 1;
      }
      Conversation& c = recording.conversations[conversationOf[connection.id]];
      followState(c, connection);
      const std::string through =
          "socket " + std::to_string(m.integer("socket")) + (pid != c.pid ? " of process " + std::to_string(pid) : "");
      if ((m.integer("socket") != c.socket || pid != c.pid) &&
          std::find(c.alsoThrough.begin(), c.alsoThrough.end(), through) == c.alsoThrough.end()) {
        c.alsoThrough.push_back(through);
      }
      if (m.kind == "send" || m.kind == "receive") addEvent(recording, c, m);
      if (m.kind == "close" && !seen.closing) {
        // One descriptor of several closed: the connection goes on through the others.
        Event e;
        e.kind = "close";
        e.ticket = m.integer("ticket");
        e.timeNs = m.timeNs();
        e.descriptor = through;
        c.events.push_back(std::move(e));
      }
      if (seen.closing) {
        c.closed = true;
        c.closeTimeNs = m.timeNs();
      }
    }
  }
  for (const Conversation& c : recording.conversations) {
    if (c.failed) ++recording.failures;
  }
  return recording;
}

}  // namespace talvex
