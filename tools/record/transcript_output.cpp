#include "transcript_output.h"

#include <errno.h>
#include <string.h>

#include <utility>

#include "conversations.h"
#include "tls_decryption.h"

namespace talvex {

TranscriptOutput::~TranscriptOutput() {
  if (file_ != nullptr && file_ != stdout) fclose(file_);
}

bool TranscriptOutput::open(const std::string& path, std::string* error) {
  if (path == "-") {
    file_ = stdout;
    return true;
  }
  file_ = fopen(path.c_str(), "wb");
  if (file_ == nullptr) *error = "cannot write " + path + ": " + strerror(errno);
  return file_ != nullptr;
}

void TranscriptOutput::write(const ArrivedMessage& message) {
  if (message.parsed != nullptr) {
    shown_.push_back(*message.parsed);
  } else {
    ++malformed_;
  }
}

// The conversations whose TLS the agent could not read, read with the key log the run wrote
// (node's secrets among them), where it holds their session's secrets.
void TranscriptOutput::decryptWithKeyLog(Recording& recording) const {
  KeyLog keys;
  keys.load(options_.keylog);
  for (Conversation& c : recording.conversations) {
    if (!c.encrypted) continue;
    const int64_t sent = c.bytesSent, received = c.bytesReceived;
    std::string why;
    if (!decryptConversation(c, keys, &why)) continue;
    recording.bytesSent += c.bytesSent - sent;
    recording.bytesReceived += c.bytesReceived - received;
  }
}

bool TranscriptOutput::finish() {
  Recording recording = buildRecording(std::move(shown_), malformed_);
  if (!options_.keylog.empty()) decryptWithKeyLog(recording);
  writeTranscript(recording, options_, file_ != nullptr ? file_ : stderr);
  if (file_ == nullptr) return true;
  const bool lost = fflush(file_) != 0 || ferror(file_) != 0;
  const bool closed = file_ == stdout || fclose(file_) == 0;
  file_ = nullptr;
  return closed && !lost;
}

}  // namespace talvex
