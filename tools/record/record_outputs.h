// Everything talvex-record writes, opened before the command starts (so that a path that cannot
// be written stops the run before it begins, by name) and written as the messages arrive. The raw
// and JSON Lines outputs go out in blocks and are flushed whenever the endpoint has caught up with
// its peers: whatever was recorded is in the file however the run ends, except what arrived in the
// last moment of a burst. The transcript is the exception: it groups each conversation and is
// written when the run ends.
#pragma once

#include <stdio.h>

#include <chrono>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "capture_writer.h"
#include "live_connections.h"
#include "output_file.h"
#include "record_options.h"

namespace talvex {

class RecordOutputs {
 public:
  RecordOutputs(const RecordOptions& options, bool live);
  ~RecordOutputs();
  RecordOutputs(const RecordOutputs&) = delete;
  RecordOutputs& operator=(const RecordOutputs&) = delete;

  // Creates every output file. False with `error` naming the first that cannot be written.
  bool open(std::string* error);
  // One message as it arrived. Safe to call from the endpoint's thread.
  void onMessage(std::string_view raw) { receive(raw, false); }
  // One that stays where it lies until onSettle (see RecorderEndpoint::setLastingHandler).
  void onLastingMessage(std::string_view raw) { receive(raw, true); }
  void onSettle();
  // The endpoint has nothing more to read for now: what has been held back long enough is
  // written. Returns when to be called again for the rest (negative: never).
  std::chrono::milliseconds onIdle();
  // Writes the transcript (with `note` before its summary) and closes the files. False, with a
  // message on standard error naming the file, when an output could not be written in full.
  bool finish(const std::string& note);
  // Every message received, shown or not.
  size_t received() const;

 private:
  void receive(std::string_view raw, bool lasting);
  // An output that could not be written in full, named once in the end.
  void noteFailure(const std::string& path);
  void closeOrNote(OutputFile& file, const std::string& path);
  // Whether messages are kept for a transcript written at the end (to a file, or on standard
  // error when neither --live nor --quiet takes its place).
  bool keepsForTranscript() const;

  const RecordOptions& options_;
  const bool live_;
  mutable std::mutex mutex_;
  OutputFile raw_;
  OutputFile jsonl_;
  FILE* transcript_ = nullptr;
  CaptureFile capture_;
  LiveConnections connections_;
  std::vector<std::string> shown_;
  size_t received_ = 0;
  std::vector<std::string> failed_;  // outputs that could not be written
};

}  // namespace talvex
