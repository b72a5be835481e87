#include "transcript_output.h"

#include <errno.h>
#include <string.h>

#include "conversations.h"

namespace talvex {

TranscriptOutput::~TranscriptOutput() {
  if (file_ != nullptr) fclose(file_);
}

bool TranscriptOutput::open(const std::string& path, std::string* error) {
  file_ = fopen(path.c_str(), "wb");
  if (file_ == nullptr) *error = "cannot write " + path + ": " + strerror(errno);
  return file_ != nullptr;
}

bool TranscriptOutput::finish() {
  writeTranscript(buildRecording(shown_), options_, file_ != nullptr ? file_ : stderr);
  if (file_ == nullptr) return true;
  const bool lost = ferror(file_) != 0;
  const bool closed = fclose(file_) == 0;
  file_ = nullptr;
  return closed && !lost;
}

}  // namespace talvex
