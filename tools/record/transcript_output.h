// The readable transcript, one block per process and per socket, written when the run ends, to a
// file or on standard error.
#pragma once

#include <stdio.h>

#include <string>

#include "recording_document.h"
#include "transcript.h"

namespace talvex {

class TranscriptOutput : public RecordingDocument {
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
  bool write(const Recording& recording) override;

 private:
  TranscriptOptions options_;
  FILE* file_ = nullptr;
};

}  // namespace talvex
