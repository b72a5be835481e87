// One flat JSON object per message (message_json.h); a message that could not be parsed is one
// object that says why. The connection's ends go on its traffic where they are known.
#pragma once

#include "byte_sink.h"
#include "message_json.h"
#include "recording_output.h"

namespace talvex {

// What the tracker knows of a message, for its JSON object: valid as long as the answer it points
// into.
MessageContext contextOf(const ConnectionTracker::Seen& seen);

class JsonLinesOutput : public RecordingOutput {
 public:
  explicit JsonLinesOutput(ByteSink& sink) : sink_(sink) {}
  bool needsPayloads() const override { return true; }
  void write(const ArrivedMessage& message) override;
  std::chrono::milliseconds flushWhenDue() override { return sink_.flushWhenDue(); }
  bool finish() override { return sink_.close(); }

 private:
  ByteSink& sink_;
};

}  // namespace talvex
