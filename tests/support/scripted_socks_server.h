// A SOCKS5 server of the test's own, for what a real one will not do: every reply is scripted.
// After a scripted success it echoes what the client sends, standing in for the destination.
#pragma once

#include <string>
#include <thread>

namespace talvex_test {

struct SocksScript {
  std::string methodReply = std::string("\x05\x00", 2);
  // Version, reply code, reserved, address type, bound address, bound port.
  std::string requestReply = std::string("\x05\x00\x00\x01\x7f\x00\x00\x01\x04\x38", 10);
  bool closeAtOnce = false;     // accept and close without a byte
  bool neverAnswer = false;     // accept, read, say nothing
  int methodDelayMs = 0;        // wait before the method reply
  int replyDelayMs = 0;         // wait before the request reply
  bool inPieces = false;        // each reply a byte at a time, 100 ms apart
};

class ScriptedSocksServer {
 public:
  // Listens on `address` ("127.0.0.1" or "::1"), port chosen by the system; serves one client.
  ScriptedSocksServer(const std::string& address, const SocksScript& script);
  ~ScriptedSocksServer();
  int port() const { return port_; }
  // Everything the client sent: greeting, request, then what was echoed. Complete once the
  // client is done (the server has seen its close).
  std::string received();

 private:
  void serve();
  SocksScript script_;
  int listener_ = -1;
  int port_ = 0;
  int wake_[2] = {-1, -1};
  std::string received_;
  std::thread thread_;
};

}  // namespace talvex_test
