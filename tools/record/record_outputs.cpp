#include "record_outputs.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <utility>

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
  for (FILE* file : {raw_, jsonl_, transcript_}) {
    if (file != nullptr) fclose(file);
  }
}

bool RecordOutputs::open(std::string* error) {
  if (!options_.raw.empty() && (raw_ = create(options_.raw, error)) == nullptr) return false;
  if (!options_.jsonl.empty() && (jsonl_ = create(options_.jsonl, error)) == nullptr) return false;
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

void RecordOutputs::flushOrNote(FILE* file, const std::string& path) {
  if (ferror(file) || fflush(file) != 0) noteFailure(path);
}

bool RecordOutputs::keepsForTranscript() const {
  return !options_.transcript.empty() || (!options_.quiet && !live_);
}

void RecordOutputs::onMessage(std::string_view raw) {
  ParsedMessage m;
  // Payloads are decoded only for the outputs that show them: the raw output alone needs no more
  // than who talked to whom.
  const bool payloads = jsonl_ != nullptr || !options_.pcap.empty() || live_;
  const bool parsed = parseRecorderMessage(raw, &m, nullptr, payloads);
  std::lock_guard<std::mutex> lock(mutex_);
  ++received_;
  LiveConnections::Seen seen;
  if (parsed) seen = connections_.observe(m);
  if (!seen.shown) return;
  // Kept only for the transcript written at the end; without one, memory stays flat however long
  // the run.
  if (keepsForTranscript()) shown_.emplace_back(raw);
  if (raw_ != nullptr) {
    fwrite(raw.data(), 1, raw.size(), raw_);
    flushOrNote(raw_, options_.raw);
  }
  if (jsonl_ != nullptr) {
    std::string line;
    if (!parsed) {
      line = receivedToJson(raw);
    } else {
      const bool traffic = m.kind == "send" || m.kind == "receive" || m.kind == "close";
      line = messageToJson(m, traffic && seen.connection != nullptr ? &seen.connection->ends : nullptr);
    }
    line += '\n';
    fwrite(line.data(), 1, line.size(), jsonl_);
    flushOrNote(jsonl_, options_.jsonl);
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
  const std::pair<FILE**, const std::string*> files[] = {
      {&raw_, &options_.raw}, {&jsonl_, &options_.jsonl}, {&transcript_, &options_.transcript}};
  for (const auto& file : files) {
    if (*file.first == nullptr) continue;
    flushOrNote(*file.first, *file.second);
    if (fclose(*file.first) != 0) noteFailure(*file.second);
    *file.first = nullptr;
  }
  for (const std::string& path : failed_) fprintf(stderr, "talvex-record: could not write all of %s\n", path.c_str());
  return failed_.empty();
}

size_t RecordOutputs::received() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return received_;
}

}  // namespace talvex
