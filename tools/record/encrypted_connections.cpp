#include "encrypted_connections.h"

namespace talvex {

bool beginsWithTlsHandshake(const std::string& data) {
  return data.size() >= 3 && static_cast<unsigned char>(data[0]) == 0x16 && data[1] == 3 &&
         static_cast<unsigned char>(data[2]) <= 4;
}

void EncryptedConnections::observe(const ParsedMessage& m) {
  const int64_t pid = m.integer("pid");
  if (m.kind == "process") {
    const std::vector<std::string> arguments = commandLineArguments(m.text("commandline"));
    std::string program = arguments.empty() ? "" : arguments[0];
    program = program.substr(program.rfind('/') + 1);
    programs_[pid] = program.empty() ? "process " + std::to_string(pid) : program;
    return;
  }
  if (m.kind == "connect" || m.kind == "accept") {
    // A descriptor number a program used before starts a connection of its own.
    seen_.erase({pid, m.integer("socket")});
    return;
  }
  if (m.kind != "send" && m.kind != "receive") return;
  const MessageAttribute* data = m.find("data");
  if (data == nullptr || data->bytes.empty()) return;
  // A connection is judged by its first bytes: a plaintext protocol that later starts TLS hands
  // it to a library the agent reads, or is told by that library's messages.
  if (!seen_.insert({pid, m.integer("socket")}).second) return;
  if (m.find("tls") != nullptr || !beginsWithTlsHandshake(data->bytes)) return;
  const auto program = programs_.find(pid);
  ++encryptedByProgram_[program != programs_.end() ? program->second : "process " + std::to_string(pid)];
}

std::string EncryptedConnections::summary(bool keyLogged) const {
  if (encryptedByProgram_.empty()) return "";
  std::string line;
  for (const auto& entry : encryptedByProgram_) {
    line += line.empty() ? "" : ", ";
    line += std::to_string(entry.second) + (entry.second == 1 ? " connection of " : " connections of ") + entry.first;
  }
  line += " carried TLS that could not be read as plaintext: its TLS code is linked into the program (as Go's "
          "crypto/tls and node's bundled OpenSSL are), out of the agent's reach; ";
  return line + (keyLogged ? "the transcript shows them decrypted where the key log holds their secrets (TLS 1.3, "
                             "and TLS 1.2 with AES-GCM or ChaCha20-Poly1305), as encrypted otherwise"
                           : "the transcript shows those connections as encrypted (--keylog FILE asks node for its "
                             "secrets, and decrypts with them)");
}

}  // namespace talvex
