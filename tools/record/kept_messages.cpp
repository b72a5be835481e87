#include "kept_messages.h"

#include <utility>

#include "tls_decryption.h"

namespace talvex {

void KeptMessages::write(const ArrivedMessage& message) {
  if (message.parsed != nullptr) {
    shown_.push_back(*message.parsed);
  } else {
    ++malformed_;
  }
}

Recording KeptMessages::build(const std::string& keylog) {
  Recording recording = buildRecording(std::move(shown_), malformed_);
  shown_.clear();
  if (keylog.empty()) return recording;
  // Node's secrets among them: the run's own key log.
  KeyLog keys;
  keys.load(keylog);
  for (Conversation& c : recording.conversations) {
    if (!c.encrypted) continue;
    const int64_t sent = c.bytesSent, received = c.bytesReceived;
    std::string why;
    if (!decryptConversation(c, keys, &why)) continue;
    recording.bytesSent += c.bytesSent - sent;
    recording.bytesReceived += c.bytesReceived - received;
  }
  return recording;
}

}  // namespace talvex
