// The readable transcript, one block per process and per socket: it groups each conversation, so
// the messages it shows are kept and it is written when the run ends, to a file or on standard
// error.
#pragma once

#include <stdio.h>

#include <string>
#include <vector>

#include "recording_output.h"
#include "transcript.h"

namespace talvex {

class TranscriptOutput : public RecordingOutput {
 public:
  explicit TranscriptOutput(const TranscriptOptions& options) : options_(options) {}
  ~TranscriptOutput() override;
  TranscriptOutput(const TranscriptOutput&) = delete;
  TranscriptOutput& operator=(const TranscriptOutput&) = delete;

  // To `path` ("-": standard output); without a call, on standard error. False with `error`
  // filled in.
  bool open(const std::string& path, std::string* error);
  // A line before the summary: what became of the command.
  void setNote(const std::string& note) { options_.note = note; }
  // It shows payloads, and keeps each message as it was parsed on arrival.
  bool needsPayloads() const override { return true; }
  void write(const ArrivedMessage& message) override;
  bool finish() override;

 private:
  void decryptWithKeyLog(Recording& recording) const;
  TranscriptOptions options_;
  FILE* file_ = nullptr;
  std::vector<ParsedMessage> shown_;
  size_t malformed_ = 0;
};

}  // namespace talvex
