#include "record_outputs.h"

#include <stdio.h>

#include <algorithm>

#include "capture_output.h"
#include "har_output.h"
#include "html_report_output.h"
#include "json_lines_output.h"
#include "live_view.h"
#include "raw_output.h"
#include "transcript_output.h"

namespace talvex {

RecordOutputs::RecordOutputs(const RecordOptions& options, bool live)
    : options_(options), live_(live), connections_(&options.filter) {}

RecordOutputs::~RecordOutputs() = default;

void RecordOutputs::add(std::unique_ptr<RecordingOutput> output, const std::string& path) {
  payloads_ = payloads_ || output->needsPayloads();
  outputs_.push_back(Output{std::move(output), path});
}

void RecordOutputs::addDocument(std::unique_ptr<RecordingDocument> document, const std::string& path) {
  if (kept_ == nullptr) {
    auto kept = std::make_unique<KeptMessages>();
    kept_ = kept.get();
    add(std::move(kept), "");
  }
  documents_.push_back(Document{std::move(document), path});
}

bool RecordOutputs::open(std::string* error) {
  // Created in this order, so that the first path that cannot be written is the one named.
  if (!options_.raw.empty() && !rawFile_.create(options_.raw, error)) return false;
  if (!options_.jsonl.empty() && !jsonlFile_.create(options_.jsonl, error)) return false;
  std::unique_ptr<TranscriptOutput> transcript;
  if (keepsForTranscript()) {
    TranscriptOptions transcriptOptions;
    transcriptOptions.full = options_.full;
    transcript = std::make_unique<TranscriptOutput>(transcriptOptions);
    if (!options_.transcript.empty() && !transcript->open(options_.transcript, error)) return false;
  }
  std::unique_ptr<CaptureOutput> capture;
  if (!options_.pcap.empty()) {
    capture = std::make_unique<CaptureOutput>();
    std::string why;
    if (!capture->open(options_.pcap, &why)) {
      *error = "cannot write " + options_.pcap + ": " + why;
      return false;
    }
  }
  std::unique_ptr<HarOutput> har;
  if (!options_.har.empty()) {
    har = std::make_unique<HarOutput>(!options_.keylog.empty());
    if (!har->open(options_.har, error)) return false;
  }
  std::unique_ptr<HtmlReportOutput> html;
  if (!options_.html.empty()) {
    html = std::make_unique<HtmlReportOutput>();
    if (!html->open(options_.html, error)) return false;
  }
  if (rawFile_.isOpen()) add(std::make_unique<RawOutput>(rawFile_), options_.raw);
  if (jsonlFile_.isOpen()) add(std::make_unique<JsonLinesOutput>(jsonlFile_), options_.jsonl);
  if (capture) add(std::move(capture), options_.pcap);
  if (live_) add(std::make_unique<LiveView>(), "");
  if (transcript) {
    transcript_ = transcript.get();
    addDocument(std::move(transcript), options_.transcript);
  }
  if (har) addDocument(std::move(har), options_.har);
  if (html) addDocument(std::move(html), options_.html);
  return true;
}

void RecordOutputs::noteFailure(const std::string& path) {
  if (std::find(failed_.begin(), failed_.end(), path) == failed_.end()) failed_.push_back(path);
}

bool RecordOutputs::keepsForTranscript() const {
  return !options_.transcript.empty() || (!options_.quiet && !live_);
}

void RecordOutputs::receive(std::string_view raw, bool lasting) {
  ParsedMessage m;
  // Payloads are decoded only for the outputs that show them: the raw output alone needs no more
  // than who talked to whom.
  const bool parsed = parseRecorderMessage(raw, &m, nullptr, payloads_);
  std::lock_guard<std::mutex> lock(mutex_);
  ++received_;
  ArrivedMessage message;
  message.raw = raw;
  message.lasting = lasting;
  message.parsed = parsed ? &m : nullptr;
  if (parsed) {
    message.seen = connections_.observe(m);
    encrypted_.observe(m);
  }
  if (!message.seen.shown) return;
  for (const Output& o : outputs_) o.output->write(message);
}

void RecordOutputs::onSettle() {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const Output& o : outputs_) o.output->settle();
}

std::chrono::milliseconds RecordOutputs::onIdle() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::chrono::milliseconds soonest(-1);
  for (const Output& o : outputs_) {
    const std::chrono::milliseconds due = o.output->flushWhenDue();
    if (due.count() >= 0 && (soonest.count() < 0 || due < soonest)) soonest = due;
  }
  return soonest;
}

std::string RecordOutputs::encryptedSummary() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return encrypted_.summary(!options_.keylog.empty());
}

bool RecordOutputs::finish(const std::string& note) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (transcript_ != nullptr) {
    transcript_->setNote(note);
  } else if (!options_.quiet && !note.empty()) {
    fprintf(stderr, "%s\n", note.c_str());
  }
  // What failed during the run is named first, then what failed as it was closed.
  for (const Output& o : outputs_) {
    if (o.output->failedWhileWriting()) noteFailure(o.path);
  }
  for (const Output& o : outputs_) {
    if (!o.output->finish()) noteFailure(o.path);
  }
  if (kept_ != nullptr) {
    const Recording recording = kept_->build(options_.keylog);
    for (const Document& d : documents_) {
      if (!d.document->write(recording)) noteFailure(d.path);
    }
  }
  for (const std::string& path : failed_) fprintf(stderr, "talvex-record: could not write all of %s\n", path.c_str());
  return failed_.empty();
}

std::vector<std::string> RecordOutputs::documentLines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> lines;
  for (const Document& d : documents_) {
    const std::string line = d.document->endLine();
    if (!line.empty()) lines.push_back(line);
  }
  return lines;
}

size_t RecordOutputs::received() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return received_;
}

}  // namespace talvex
