#include "transcript_output.h"

#include <errno.h>
#include <string.h>

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

bool TranscriptOutput::write(const Recording& recording) {
  writeTranscript(recording, options_, file_ != nullptr ? file_ : stderr);
  if (file_ == nullptr) return true;
  const bool lost = fflush(file_) != 0 || ferror(file_) != 0;
  const bool closed = file_ == stdout || fclose(file_) == 0;
  file_ = nullptr;
  return closed && !lost;
}

}  // namespace talvex
