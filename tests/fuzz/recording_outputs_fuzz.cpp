// Plays arbitrary lines, as a misbehaving peer of the recorder could send them, through what
// talvex-record makes of its messages: the parser, the connection tracker, the JSON Lines, capture,
// live-view totals and transcript outputs, the decryption of encrypted conversations with a key
// log, and HTTP read back from the conversations into the HAR and the HTML report. Every input must end in outputs written, never in a crash or a memory error.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <string_view>
#include <vector>

#include "capture_output.h"
#include "connection_tracker.h"
#include "conversations.h"
#include "har_document.h"
#include "html_report.h"
#include "json_lines_output.h"
#include "message_json.h"
#include "recorder_message_parser.h"
#include "recording_totals.h"
#include "tls_decryption.h"
#include "transcript.h"

namespace {

// A key log with secrets for the session whose client random is 32 bytes of 'A' (0x41), read
// once: inputs that carry that random reach the key schedule and the record decryption.
const talvex::KeyLog& fuzzKeyLog() {
  static talvex::KeyLog* keys = nullptr;
  if (keys == nullptr) {
    keys = new talvex::KeyLog();
    char path[] = "/tmp/talvex-fuzz-keylog-XXXXXX";
    const int fd = mkstemp(path);
    if (fd >= 0) {
      std::string random;
      for (int i = 0; i < 32; ++i) random += "41";
      std::string text;
      for (const char* label : {"CLIENT_HANDSHAKE_TRAFFIC_SECRET", "SERVER_HANDSHAKE_TRAFFIC_SECRET",
                                "CLIENT_TRAFFIC_SECRET_0", "SERVER_TRAFFIC_SECRET_0"}) {
        text += std::string(label) + " " + random + " " + std::string(64, '2') + "\n";
      }
      if (write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size())) keys->load(path);
      close(fd);
      unlink(path);
    }
  }
  return *keys;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  talvex::ConnectionTracker tracker;
  talvex::RecordingTotals totals;
  talvex::CaptureOutput capture;
  std::string error;
  capture.open("/dev/null", &error);
  std::vector<talvex::ParsedMessage> shown;
  size_t malformed = 0;
  for (size_t start = 0; start < input.size();) {
    size_t end = input.find('\n', start);
    if (end == std::string_view::npos) end = input.size();
    const std::string_view line = input.substr(start, end - start + (end < input.size() ? 1 : 0));
    start = end + 1;
    talvex::ParsedMessage m;
    talvex::ArrivedMessage arrived;
    arrived.raw = line;
    if (!talvex::parseRecorderMessage(line, &m, nullptr)) {
      ++malformed;
      totals.addMalformed();
      capture.write(arrived);
      continue;
    }
    arrived.parsed = &m;
    arrived.seen = tracker.observe(m);
    totals.add(m, arrived.seen);
    const talvex::MessageContext context = talvex::contextOf(arrived.seen);
    talvex::messageToJson(m, &context);
    capture.write(arrived);
    shown.push_back(m);
  }
  capture.finish();
  talvex::summaryLine(totals.totals());
  FILE* sink = fopen("/dev/null", "w");
  if (sink != nullptr) {
    talvex::TranscriptOptions options;
    talvex::Recording recording = talvex::buildRecording(std::move(shown), malformed);
    for (talvex::Conversation& c : recording.conversations) {
      std::string why;
      talvex::decryptConversation(c, fuzzKeyLog(), &why);
    }
    talvex::writeTranscript(recording, options, sink);
    talvex::HarSummary summary;
    talvex::harDocument(recording, "fuzz", &summary);
    talvex::htmlReport(recording);
    fclose(sink);
  }
  return 0;
}
