#include "live_view.h"

#include <stdio.h>

#include "address_text.h"
#include "error_text.h"
#include "transcript.h"
#include "unrecorded_sockets.h"

namespace talvex {

namespace {

// An end of the message's connection; unknown (no address) when the message has none.
Peer endOf(const TrackedConnection* c, bool local) { return c != nullptr ? endOf(c->ends, local) : Peer(); }

// "connect 127.0.0.1:52042 -> 127.0.0.1:8080", the local end left out while its port is unknown.
std::string connectEnds(const TrackedConnection* c) {
  const Peer local = endOf(c, true);
  return "connect " + (local.port != 0 ? endpointText(local) + " -> " : std::string("-> ")) + endpointText(endOf(c, false));
}

std::string payloadGlimpse(const std::string& bytes) {
  std::string shown;
  for (const char ch : bytes.substr(0, 60)) {
    const unsigned char c = static_cast<unsigned char>(ch);
    shown += c == '\r' ? "\\r" : c == '\n' ? "\\n" : (c >= 0x20 && c < 0x7f) ? std::string(1, ch) : ".";
  }
  return shown + (bytes.size() > 60 ? "..." : "");
}

// What the message says, after its time, process and socket.
std::string eventText(const ParsedMessage& m, const ConnectionTracker::Seen& seen) {
  const TrackedConnection* c = seen.connection;
  if (m.kind == "connect" && !seen.opening) return "connect again";
  if (m.kind == "connect") {
    if (c != nullptr && c->state == ConnectState::kConnecting) return connectEnds(c) + " (in progress)";
    return connectEnds(c) + (c != nullptr && c->failed() ? " FAILED (" + failureText(*c) + ")" : "");
  }
  if (m.kind == "accept") {
    const Peer local = endOf(c, true);
    return "accepted from " + endpointText(endOf(c, false)) + (local.port != 0 ? " on " + endpointText(local) : "");
  }
  if (m.kind == "send" || m.kind == "receive") {
    const MessageAttribute* data = m.find("data");
    const int64_t bytes = data != nullptr ? static_cast<int64_t>(data->bytes.size()) : 0;
    std::string text = (m.kind == "send" ? "> " : "< ") + counted(bytes, "byte", "bytes");
    if (data != nullptr && !data->bytes.empty()) text += "  " + payloadGlimpse(data->bytes);
    if (m.find("error") != nullptr) text += " FAILED (" + errorText(m.integer("error")) + ")";
    return text;
  }
  if (m.kind == "wiresend" || m.kind == "wirereceive") {
    // The records behind the plaintext shown: counted, not shown as if they were what was said.
    const MessageAttribute* data = m.find("data");
    const int64_t bytes = data != nullptr ? static_cast<int64_t>(data->bytes.size()) : 0;
    return (m.kind == "wiresend" ? "> " : "< ") + counted(bytes, "byte", "bytes") + " of TLS records";
  }
  if (m.kind == "process") {
    const MessageAttribute* directory = m.find("workingdir");
    const MessageAttribute* command = m.find("commandline");
    return "process started" + (command != nullptr ? ": " + shellCommandLine(command->bytes) : std::string()) +
           (directory != nullptr ? " in " + directory->bytes : std::string());
  }
  if (m.kind == "addrinfo") {
    const std::string address = normalIp(m.find("address") != nullptr ? m.text("address") : m.text("ip"));
    return resolutionSentence(m.text("name"), familyName(m.text("family")),
                              address.empty() ? std::vector<std::string>{} : std::vector<std::string>{address},
                              m.integer("gaierror"));
  }
  if (isSocketNotice(m)) return "is a " + unrecordedKind(m) + " socket: not recorded";
  if (m.kind == "notrecorded") return (m.find("name") != nullptr ? m.text("name") : m.text("info")) + " was called (not recorded)";
  if (m.kind == "connectoutcome") return "";  // said by the line of its outcome
  return m.kind;
}

}  // namespace

void LiveView::write(const ArrivedMessage& message) {
  if (message.parsed == nullptr) {
    totals_.addMalformed();
    return;
  }
  const ParsedMessage& m = *message.parsed;
  const ConnectionTracker::Seen& seen = message.seen;
  totals_.add(m, seen);
  std::string head = clockTime(m.timeNs());
  if (m.find("pid") != nullptr) head += " [" + std::to_string(m.integer("pid")) + "]";
  if (m.find("socket") != nullptr) head += " socket " + std::to_string(m.integer("socket"));
  // A message of a resolution gives each entry its own: one line for the addresses it repeats.
  if (m.kind == "addrinfo") {
    const std::string key = std::to_string(m.integer("pid")) + " " + std::to_string(m.integer("ticket")) + " " +
                            m.text("address") + m.text("ip") + m.text("family");
    if (key == lastResolution_) return;
    lastResolution_ = key;
  }
  const std::string text = eventText(m, seen);
  if (!text.empty()) fprintf(stderr, "%s %s\n", head.c_str(), text.c_str());
  if (seen.settled && seen.connection != nullptr && !(m.kind == "connect" && seen.opening)) {
    const TrackedConnection& c = *seen.connection;
    fprintf(stderr, "%s %s%s\n", head.c_str(), connectEnds(&c).c_str(),
            c.failed() ? (" FAILED (" + failureText(c) + ")").c_str() : ": connected");
  }
  fflush(stderr);
}

bool LiveView::finish() {
  const std::string unrecorded = unrecordedSummary(totals_.unrecorded());
  if (!unrecorded.empty()) fprintf(stderr, "%s\n", unrecorded.c_str());
  fprintf(stderr, "%s\n", summaryLine(totals_.totals()).c_str());
  return true;
}

}  // namespace talvex
