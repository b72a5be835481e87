// Reading the TLS conversations of programs whose TLS the agent cannot reach (node's bundled
// OpenSSL, browsers) from the records the agent recorded and the secrets the program wrote into a
// key log: TLS 1.3, and TLS 1.2 with the same AEADs. Decryption is OpenSSL's libcrypto's (HKDF,
// the TLS 1.2 PRF, AES-GCM, ChaCha20-Poly1305), never ciphers of this tool's own.
#pragma once

#include <map>
#include <string>

#include "conversations.h"

namespace talvex {

// The secrets of a key log (the SSLKEYLOGFILE format), by client random and label.
class KeyLog {
 public:
  // Reads what the file holds now; a file that cannot be read holds nothing.
  void load(const std::string& path);
  // The secret of `label` for the session whose client random is `clientRandom` (raw bytes), or
  // empty.
  std::string secret(const std::string& clientRandom, const std::string& label) const;

 private:
  std::map<std::string, std::map<std::string, std::string>> secrets_;  // hex random -> label -> bytes
};

// Replaces the records of an encrypted conversation with the application data they carry, when
// the key log has its secrets and its cipher suite is one of those read. False, with the conversation
// untouched and `why` saying why, when it cannot.
bool decryptConversation(Conversation& conversation, const KeyLog& keys, std::string* why);

}  // namespace talvex
