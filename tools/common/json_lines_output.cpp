#include "json_lines_output.h"

#include "message_json.h"

namespace talvex {

void JsonLinesOutput::write(const ArrivedMessage& message) {
  std::string line;
  if (message.parsed == nullptr) {
    line = receivedToJson(message.raw);
  } else {
    const ParsedMessage& m = *message.parsed;
    const bool traffic = m.kind == "send" || m.kind == "receive" || m.kind == "close";
    const LiveConnection* connection = message.seen.connection;
    line = messageToJson(m, traffic && connection != nullptr ? &connection->ends : nullptr);
  }
  line += '\n';
  sink_.append(line);
}

}  // namespace talvex
