#include "stdio_sink.h"

namespace talvex {

StdioSink::StdioSink(FILE* stream) : stream_(stream) {
  // A block the size of a page would cost a write for every few dozen small messages.
  setvbuf(stream_, nullptr, _IOFBF, 1u << 20);
}

void StdioSink::append(std::string_view bytes) { fwrite_unlocked(bytes.data(), 1, bytes.size(), stream_); }

std::chrono::milliseconds StdioSink::flushWhenDue() {
  fflush(stream_);
  return std::chrono::milliseconds(-1);
}

bool StdioSink::close() {
  if (stream_ == nullptr) return true;
  const bool lost = fflush(stream_) != 0 || ferror(stream_) != 0;
  const bool closed = stream_ == stdout || fclose(stream_) == 0;
  stream_ = nullptr;
  return !lost && closed;
}

}  // namespace talvex
