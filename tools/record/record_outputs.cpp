#include "record_outputs.h"

#include <errno.h>
#include <string.h>

#include <algorithm>

#include "conversations.h"
#include "message_json.h"
#include "transcript.h"

namespace talvex {

namespace {

FILE* create(const std::string& path, std::string* error) {
  FILE* file = fopen(path.c_str(), "wb");
  if (file == nullptr) *error = "cannot write " + path + ": " + strerror(errno);
  return file;
}

}  // namespace

RecordOutputs::RecordOutputs(const RecordOptions& options, bool live)
    : options_(options), live_(live), connections_(options.filter) {}

RecordOutputs::~RecordOutputs() {
  if (transcript_ != nullptr) fclose(transcript_);
}

bool RecordOutputs::open(std::string* error) {
  if (!options_.raw.empty() && !raw_.create(options_.raw, error)) return false;
  if (!options_.jsonl.empty() && !jsonl_.create(options_.jsonl, error)) return false;
  if (!options_.transcript.empty() && (transcript_ = create(options_.transcript, error)) == nullptr) return false;
  std::string why;
  if (!options_.pcap.empty() && !capture_.open(options_.pcap, &why)) {
    *error = "cannot write " + options_.pcap + ": " + why;
    return false;
  }
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
  const bool payloads = jsonl_.isOpen() || !options_.pcap.empty() || live_;
  const bool parsed = parseRecorderMessage(raw, &m, nullptr, payloads);
  std::lock_guard<std::mutex> lock(mutex_);
  ++received_;
  LiveConnections::Seen seen;
  if (parsed) seen = connections_.observe(m);
  if (!seen.shown) return;
  // Kept only for the transcript written at the end; without one, memory stays flat however long
  // the run.
  if (keepsForTranscript()) shown_.emplace_back(raw);
  if (lasting) {
    raw_.appendLasting(raw);
  } else {
    raw_.append(raw);
  }
  if (jsonl_.isOpen()) {
    std::string line;
    if (!parsed) {
      line = receivedToJson(raw);
    } else {
      const bool traffic = m.kind == "send" || m.kind == "receive" || m.kind == "close";
      line = messageToJson(m, traffic && seen.connection != nullptr ? &seen.connection->ends : nullptr);
    }
    line += '\n';
    jsonl_.append(line);
  }
  if (!options_.pcap.empty() && parsed && seen.connection != nullptr && seen.connection->connected &&
      !seen.connection->failed) {
    const LiveConnection& c = *seen.connection;
    if (seen.opening) {
      Peer server;
      server.family = c.ends.family == "AF_INET6" ? 10 : 2;
      server.ip = c.ends.remoteIp;
      server.port = c.ends.remotePort;
      Peer client = server;
      client.ip = localAddressFor(server);
      client.port = c.ends.localPort;
      capture_.opened(c.id, client, server, m.timeNs());
    } else if (seen.closing) {
      capture_.closed(c.id, m.timeNs());
    } else if (m.find("error") == nullptr) {
      const MessageAttribute* data = m.find("data");
      if (data != nullptr) capture_.data(c.id, m.kind == "send", data->bytes, m.timeNs());
    }
    if (!capture_.flush()) noteFailure(options_.pcap);
  }
  if (live_ && parsed) writeLiveEvent(m, seen.connection, stderr);
}

void RecordOutputs::onSettle() {
  std::lock_guard<std::mutex> lock(mutex_);
  raw_.settle();
}

std::chrono::milliseconds RecordOutputs::onIdle() {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::chrono::milliseconds raw = raw_.flushWhenDue();
  const std::chrono::milliseconds jsonl = jsonl_.flushWhenDue();
  if (raw.count() < 0) return jsonl;
  return jsonl.count() < 0 ? raw : std::min(raw, jsonl);
}

void RecordOutputs::closeOrNote(OutputFile& file, const std::string& path) {
  if (file.isOpen() && !file.close()) noteFailure(path);
}

bool RecordOutputs::finish(const std::string& note) {
  std::lock_guard<std::mutex> lock(mutex_);
  const Recording recording = buildRecording(shown_);
  TranscriptOptions transcriptOptions;
  transcriptOptions.full = options_.full;
  transcriptOptions.note = note;
  if (keepsForTranscript()) {
    writeTranscript(recording, transcriptOptions, transcript_ != nullptr ? transcript_ : stderr);
  } else if (!options_.quiet && !note.empty()) {
    fprintf(stderr, "%s\n", note.c_str());
  }
  closeOrNote(raw_, options_.raw);
  closeOrNote(jsonl_, options_.jsonl);
  if (transcript_ != nullptr) {
    const bool lost = ferror(transcript_) != 0;
    if (fclose(transcript_) != 0 || lost) noteFailure(options_.transcript);
    transcript_ = nullptr;
  }
  for (const std::string& path : failed_) fprintf(stderr, "talvex-record: could not write all of %s\n", path.c_str());
  return failed_.empty();
}

size_t RecordOutputs::received() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return received_;
}

}  // namespace talvex
