#include "recording_totals.h"

#include "connect_outcome.h"

namespace talvex {

std::string counted(int64_t n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

std::string summaryLine(const Totals& t) {
  std::string line = "summary: " + counted(t.sockets, "socket", "sockets") + ", " +
                     counted(t.messages, "message", "messages") + ", " + counted(t.bytesSent, "byte", "bytes") +
                     " sent, " + counted(t.bytesReceived, "byte", "bytes") + " received, " +
                     counted(t.failures, "failure", "failures");
  if (t.malformed != 0) line += ", " + counted(t.malformed, "malformed message", "malformed messages");
  return line;
}

void RecordingTotals::add(const ParsedMessage& m) {
  ++totals_.messages;
  // Messages without a pid (resolutions, notices) belong to the process whose message came last.
  if (m.find("pid") != nullptr) lastPid_ = m.integer("pid");
  const auto key = std::make_pair(lastPid_, m.integer("socket", -1));
  if (m.kind == "connect" || m.kind == "accept") {
    ++totals_.sockets;
    open_.insert(key);
    if (m.kind == "connect" && connectFailed(m)) ++totals_.failures;
  } else if (m.kind == "send" || m.kind == "receive") {
    if (open_.insert(key).second) ++totals_.sockets;
    if (m.find("error") != nullptr) {
      ++totals_.failures;
      return;
    }
    // On an end of stream the agent still records what the buffer held, which was not received.
    if (m.kind == "receive" && m.integer("length") <= 0) return;
    const MessageAttribute* data = m.find("data");
    const int64_t bytes = data != nullptr ? static_cast<int64_t>(data->bytes.size()) : 0;
    (m.kind == "send" ? totals_.bytesSent : totals_.bytesReceived) += bytes;
  } else if (m.kind == "close") {
    open_.erase(key);
  }
}

}  // namespace talvex
