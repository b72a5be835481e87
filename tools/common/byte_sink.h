// Where an output's bytes go: a file written in large blocks (OutputFile) or a stdio stream
// (StdioSink). The outputs (recording_output.h) write through it and need not know which.
#pragma once

#include <chrono>
#include <string_view>

namespace talvex {

class ByteSink {
 public:
  virtual ~ByteSink() = default;
  virtual void append(std::string_view bytes) = 0;
  // Bytes that stay valid until settle() is next called (a message in a shared ring); a sink
  // that cannot use that copies them like any others.
  virtual void appendLasting(std::string_view bytes) { append(bytes); }
  virtual void settle() {}
  // Called when the recorder has caught up with its peers: writes out what is due and returns
  // how long until the rest will be, or a negative duration when nothing is held back.
  virtual std::chrono::milliseconds flushWhenDue() = 0;
  // Writes out everything and closes; false if any write failed.
  virtual bool close() = 0;
};

}  // namespace talvex
