#include "json_lines_output.h"

#include "message_json.h"

namespace talvex {

namespace {

const char* stateName(ConnectState state) {
  switch (state) {
    case ConnectState::kOpen: return "open";
    case ConnectState::kConnecting: return "connecting";
    case ConnectState::kConnected: return "connected";
    case ConnectState::kFailed: return "failed";
  }
  return "open";
}

}  // namespace

MessageContext contextOf(const ConnectionTracker::Seen& seen) {
  MessageContext context;
  context.pid = seen.pid;
  if (seen.connection != nullptr) {
    context.ends = &seen.connection->ends;
    context.connection = seen.connection->id;
    context.state = stateName(seen.connection->state);
    context.connectionError = seen.connection->error;
  }
  return context;
}

void JsonLinesOutput::write(const ArrivedMessage& message) {
  std::string line;
  if (message.parsed == nullptr) {
    line = receivedToJson(message.raw);
  } else {
    const MessageContext context = contextOf(message.seen);
    line = messageToJson(*message.parsed, &context);
  }
  line += '\n';
  sink_.append(line);
}

}  // namespace talvex
