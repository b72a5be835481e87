#include "recording_totals.h"

#include "unrecorded_sockets.h"

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

void RecordingTotals::add(const ParsedMessage& m, const ConnectionTracker::Seen& seen) {
  ++totals_.messages;
  if (isSocketNotice(m)) unrecorded_.push_back(unrecordedKind(m));
  if (seen.opening) ++totals_.sockets;
  // A connection counts as one failure once it is known to have failed: at once, or when the
  // outcome of its connect arrives.
  if (seen.connection != nullptr && seen.connection->failed() && (seen.opening || seen.settled)) ++totals_.failures;
  if (m.kind != "send" && m.kind != "receive") return;
  if (m.find("error") != nullptr) {
    ++totals_.failures;
    return;
  }
  // On an end of stream the agent still records what the buffer held, which was not received.
  if (m.kind == "receive" && m.integer("length") <= 0) return;
  const MessageAttribute* data = m.find("data");
  const int64_t bytes = data != nullptr ? static_cast<int64_t>(data->bytes.size()) : 0;
  (m.kind == "send" ? totals_.bytesSent : totals_.bytesReceived) += bytes;
}

}  // namespace talvex
