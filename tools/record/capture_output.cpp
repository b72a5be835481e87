#include "capture_output.h"

namespace talvex {

bool CaptureOutput::open(const std::string& path, std::string* error) { return capture_.open(path, error); }

void CaptureOutput::write(const ArrivedMessage& message) {
  const LiveConnection* connection = message.seen.connection;
  if (message.parsed == nullptr || connection == nullptr || !connection->connected || connection->failed) return;
  const ParsedMessage& m = *message.parsed;
  const LiveConnection& c = *connection;
  if (message.seen.opening) {
    Peer server;
    server.family = c.ends.family == "AF_INET6" ? 10 : 2;
    server.ip = c.ends.remoteIp;
    server.port = c.ends.remotePort;
    Peer client = server;
    client.ip = localAddressFor(server);
    client.port = c.ends.localPort;
    capture_.opened(c.id, client, server, m.timeNs());
  } else if (message.seen.closing) {
    capture_.closed(c.id, m.timeNs());
  } else if (m.find("error") == nullptr) {
    const MessageAttribute* data = m.find("data");
    if (data != nullptr) capture_.data(c.id, m.kind == "send", data->bytes, m.timeNs());
  }
  if (!capture_.flush()) failed_ = true;
}

}  // namespace talvex
