// One place a recording is written to as its messages arrive: raw, JSON Lines, capture, live view,
// transcript. talvex-record and talvex-recorder drive the same outputs; talvex-record follows
// each message's connection first and shows only what its filters pass.
#pragma once

#include <chrono>
#include <string_view>

#include "connection_tracker.h"
#include "recorder_message_parser.h"

namespace talvex {

struct ArrivedMessage {
  std::string_view raw;                 // exactly as received
  bool lasting = false;                 // it stays where it lies until the outputs are settled
  const ParsedMessage* parsed = nullptr;  // null when it could not be parsed
  ConnectionTracker::Seen seen;         // its connection, where the writer follows them
};

class RecordingOutput {
 public:
  virtual ~RecordingOutput() = default;
  // Whether it shows payloads, which are then decoded for it.
  virtual bool needsPayloads() const { return false; }
  // Called on the endpoint's thread, one message at a time.
  virtual void write(const ArrivedMessage& message) = 0;
  // The views of lasting messages may go once this returns.
  virtual void settle() {}
  // The recorder has caught up: what is due is written; returns when to be called again for the
  // rest (negative: not at all).
  virtual std::chrono::milliseconds flushWhenDue() { return std::chrono::milliseconds(-1); }
  // Whether a write has failed already, before the end.
  virtual bool failedWhileWriting() const { return false; }
  // Writes what was kept for the end and closes; false when it could not be written in full.
  virtual bool finish() = 0;
};

}  // namespace talvex
