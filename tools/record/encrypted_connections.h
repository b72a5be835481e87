// Connections whose bytes are TLS records the agent could not read as plaintext: TLS code linked
// into the program (Go's crypto/tls, node's bundled OpenSSL) rather than a library the agent
// stands in front of. They are told apart from the conversations they hide, never shown as if
// their records were what the program said.
#pragma once

#include <stdint.h>

#include <map>
#include <set>
#include <string>
#include <utility>

#include "recorder_message_parser.h"

namespace talvex {

// Whether `data` begins with a TLS handshake record: what every TLS conversation begins with.
bool beginsWithTlsHandshake(const std::string& data);

class EncryptedConnections {
 public:
  // One message, in the order they arrived.
  void observe(const ParsedMessage& message);
  // The end-of-run line that names the programs of such connections; empty when there were none.
  // `keyLogged`: the run wrote a key log, with which the transcript decrypts what it can.
  std::string summary(bool keyLogged) const;

 private:
  std::map<int64_t, std::string> programs_;                  // by pid, from process messages
  std::set<std::pair<int64_t, int64_t>> seen_;               // (pid, socket) with data seen
  std::map<std::string, int64_t> encryptedByProgram_;
};

}  // namespace talvex
