// A sink on a stdio stream (talvex-recorder's standard output or --output file), written through
// a large buffer and flushed whenever the recorder has caught up with its peers: a busy recorder
// writes in large blocks, an idle one leaves nothing behind in its buffer.
#pragma once

#include <stdio.h>

#include "byte_sink.h"

namespace talvex {

class StdioSink : public ByteSink {
 public:
  // Takes `stream`; it is closed by close() unless it is standard output. Only one thread may
  // write to it: its lock is not taken.
  explicit StdioSink(FILE* stream);
  StdioSink(const StdioSink&) = delete;
  StdioSink& operator=(const StdioSink&) = delete;

  void append(std::string_view bytes) override;
  std::chrono::milliseconds flushWhenDue() override;
  bool close() override;

 private:
  FILE* stream_;
};

}  // namespace talvex
