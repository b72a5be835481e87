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

int64_t timeOf(const ParsedMessage& m) {
  const MessageAttribute* ns = m.find("timestamp_ns");
  if (ns != nullptr) return ns->integer;
  const MessageAttribute* ms = m.find("timestamp");
  return ms != nullptr ? ms->integer * 1000000 : 0;
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

bool RecordOutputs::fail(FILE* file, const std::string& path) {
  if (file == nullptr || (!ferror(file) && fflush(file) == 0)) return true;
  if (std::find(failed_.begin(), failed_.end(), path) == failed_.end()) failed_.push_back(path);
  return false;
}

void RecordOutputs::onMessage(const std::string& raw) {
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
  if (transcript_ != nullptr || (!options_.quiet && !live_)) shown_.push_back(raw);
  if (raw_ != nullptr) {
    fwrite(raw.data(), 1, raw.size(), raw_);
    fail(raw_, options_.raw);
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
    fail(jsonl_, options_.jsonl);
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
      capture_.opened(c.id, client, server, timeOf(m));
    } else if (seen.closing) {
      capture_.closed(c.id, timeOf(m));
    } else if (m.find("error") == nullptr) {
      const MessageAttribute* data = m.find("data");
      if (data != nullptr) capture_.data(c.id, m.kind == "send", data->bytes, timeOf(m));
    }
    if (!capture_.flush() && std::find(failed_.begin(), failed_.end(), options_.pcap) == failed_.end()) {
      failed_.push_back(options_.pcap);
    }
  }
  if (live_ && parsed) writeLiveEvent(m, seen.connection, stderr);
}

bool RecordOutputs::finish(const std::string& note) {
  std::lock_guard<std::mutex> lock(mutex_);
  const Recording recording = buildRecording(shown_);
  TranscriptOptions transcriptOptions;
  transcriptOptions.full = options_.full;
  transcriptOptions.note = note;
  if (transcript_ != nullptr) {
    writeTranscript(recording, transcriptOptions, transcript_);
    fail(transcript_, options_.transcript);
  } else if (!options_.quiet && !live_) {
    writeTranscript(recording, transcriptOptions, stderr);
  } else if (!options_.quiet) {
    if (!note.empty()) fprintf(stderr, "%s\n", note.c_str());
  }
  for (FILE** file : {&raw_, &jsonl_, &transcript_}) {
    if (*file == nullptr) continue;
    const std::string& path = *file == raw_ ? options_.raw : *file == jsonl_ ? options_.jsonl : options_.transcript;
    if (fclose(*file) != 0 && std::find(failed_.begin(), failed_.end(), path) == failed_.end()) failed_.push_back(path);
    *file = nullptr;
  }
  for (const std::string& path : failed_) fprintf(stderr, "talvex-record: could not write all of %s\n", path.c_str());
  return failed_.empty();
}

size_t RecordOutputs::received() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return received_;
}

}  // namespace talvex
