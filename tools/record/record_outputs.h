// Everything talvex-record writes, opened before the command starts (so that a path that cannot
// be written stops the run before it begins, by name) and written as the messages arrive. The raw
// and JSON Lines outputs go out in blocks and are flushed whenever the endpoint has caught up with
// its peers: whatever was recorded is in the file however the run ends, except what arrived in the
// last moment of a burst. The transcript, the HAR and the HTML report are the exception: they group
// what arrived in pieces and are written when the run ends, from one recording built for them all.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "connection_tracker.h"
#include "encrypted_connections.h"
#include "kept_messages.h"
#include "output_file.h"
#include "record_options.h"
#include "recording_document.h"
#include "recording_output.h"

namespace talvex {

class TranscriptOutput;

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
  // Writes the transcript (with `note` before its summary), the other documents, and closes the
  // files. False, with a message on standard error naming the file, when an output could not be
  // written in full.
  bool finish(const std::string& note);
  // What the documents say of themselves at the end of the run, a line each (the HAR: how many
  // exchanges, what it left out).
  std::vector<std::string> documentLines() const;
  // Every message received, shown or not.
  size_t received() const;
  // The end-of-run line about connections whose TLS could not be read (empty: none).
  std::string encryptedSummary() const;

 private:
  struct Output {
    std::unique_ptr<RecordingOutput> output;
    std::string path;  // what a failure names
  };

  struct Document {
    std::unique_ptr<RecordingDocument> document;
    std::string path;  // what a failure names
  };

  void receive(std::string_view raw, bool lasting);
  void add(std::unique_ptr<RecordingOutput> output, const std::string& path);
  void addDocument(std::unique_ptr<RecordingDocument> document, const std::string& path);
  // An output that could not be written in full, named once in the end.
  void noteFailure(const std::string& path);
  // Whether messages are kept for a transcript written at the end (to a file, or on standard
  // error when neither --live nor --quiet takes its place).
  bool keepsForTranscript() const;

  const RecordOptions& options_;
  const bool live_;
  mutable std::mutex mutex_;
  OutputFile rawFile_;
  OutputFile jsonlFile_;
  std::vector<Output> outputs_;  // in the order they are written and closed
  KeptMessages* kept_ = nullptr;  // one of outputs_, when there are documents
  std::vector<Document> documents_;  // written when the run ends, in this order
  TranscriptOutput* transcript_ = nullptr;  // one of documents_, when the transcript is kept
  bool payloads_ = false;  // whether any output shows payloads
  ConnectionTracker connections_;
  EncryptedConnections encrypted_;
  size_t received_ = 0;
  std::vector<std::string> failed_;  // outputs that could not be written
};

}  // namespace talvex
