// The messages exactly as received, one per line.
#pragma once

#include "byte_sink.h"
#include "recording_output.h"

namespace talvex {

class RawOutput : public RecordingOutput {
 public:
  explicit RawOutput(ByteSink& sink) : sink_(sink) {}
  void write(const ArrivedMessage& message) override;
  void settle() override { sink_.settle(); }
  std::chrono::milliseconds flushWhenDue() override { return sink_.flushWhenDue(); }
  bool finish() override { return sink_.close(); }

 private:
  ByteSink& sink_;
};

}  // namespace talvex
