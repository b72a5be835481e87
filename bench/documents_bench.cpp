// What the documents written at the end of a run cost talvex-record: the HAR and the HTML report
// of a recording of many HTTP conversations, against the transcript of the same recording (the
// document every run already writes, abbreviated as by default and whole as with --full), in one
// run. No network: the recording is made here, as
// talvex-record builds it from the agent's messages.
#include <stdio.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "conversations.h"
#include "har_document.h"
#include "html_report.h"
#include "transcript.h"

namespace {

using Clock = std::chrono::steady_clock;

// `connections` kept-alive connections of `exchanges` GETs each, whose responses carry `body`
// bytes of text: the shape of a test suite's traffic against an API.
talvex::Recording httpRecording(int connections, int exchanges, size_t body) {
  talvex::Recording r;
  r.processes.push_back(talvex::ProcessHeader{1000, "/tmp", "tests --against http://api.test"});
  std::string text;
  while (text.size() < body) text += "{\"id\":12345,\"name\":\"an item of the catalogue\",\"tags\":[\"a\",\"b\"]},\n";
  text.resize(body);
  int64_t t = 1795514400LL * 1000000000;
  for (int c = 0; c < connections; ++c) {
    talvex::Conversation conversation;
    conversation.pid = 1000;
    conversation.socket = 5;
    conversation.opening = "connect";
    conversation.local = talvex::Peer{2, "127.0.0.1", 40000 + c % 20000};
    conversation.remote = talvex::Peer{2, "127.0.0.1", 8080};
    conversation.state = talvex::ConnectState::kConnected;
    conversation.openTimeNs = t;
    for (int x = 0; x < exchanges; ++x) {
      talvex::Event send, receive;
      send.kind = "send";
      send.timeNs = t += 1000;
      send.data = "GET /items/" + std::to_string(x) + "?page=" + std::to_string(c) +
                  " HTTP/1.1\r\nHost: api.test\r\nUser-Agent: tests/1\r\nAccept: application/json\r\n\r\n";
      receive.kind = "receive";
      receive.timeNs = t += 50000;
      receive.data = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(text.size()) +
                     "\r\n\r\n" + text;
      conversation.bytesSent += static_cast<int64_t>(send.data.size());
      conversation.bytesReceived += static_cast<int64_t>(receive.data.size());
      conversation.events.push_back(send);
      conversation.events.push_back(receive);
    }
    conversation.closed = true;
    conversation.closeTimeNs = t += 1000;
    r.bytesSent += conversation.bytesSent;
    r.bytesReceived += conversation.bytesReceived;
    r.conversations.push_back(std::move(conversation));
  }
  return r;
}

// The best of five runs of `write`, in seconds.
template <typename Write>
double best(Write write) {
  double fastest = 1e9;
  for (int i = 0; i < 5; ++i) {
    const auto start = Clock::now();
    write();
    fastest = std::min(fastest, std::chrono::duration<double>(Clock::now() - start).count());
  }
  return fastest;
}

}  // namespace

int main() {
  const talvex::Recording recording = httpRecording(1000, 20, 4096);
  const double megabytes = static_cast<double>(recording.bytesSent + recording.bytesReceived) / 1e6;
  FILE* sink = fopen("/dev/null", "w");
  size_t harSize = 0, htmlSize = 0;
  const double transcript = best([&] {
    talvex::TranscriptOptions options;
    talvex::writeTranscript(recording, options, sink);
  });
  const double full = best([&] {
    talvex::TranscriptOptions options;
    options.full = true;
    talvex::writeTranscript(recording, options, sink);
  });
  const double har = best([&] {
    talvex::HarSummary summary;
    harSize = talvex::harDocument(recording, "bench", &summary).size();
  });
  const double html = best([&] { htmlSize = talvex::htmlReport(recording).size(); });
  fclose(sink);
  printf("documents of 1,000 connections, 20,000 HTTP exchanges, %.1f MB of payloads (best of 5)\n", megabytes);
  printf("  %-28s %8.3f s  %6.2fx\n", "transcript (the baseline)", transcript, 1.0);
  printf("  %-28s %8.3f s  %6.2fx\n", "transcript, --full", full, full / transcript);
  printf("  %-28s %8.3f s  %6.2fx  %.1f MB\n", "HAR", har, har / transcript, static_cast<double>(harSize) / 1e6);
  printf("  %-28s %8.3f s  %6.2fx  %.1f MB\n", "HTML report", html, html / transcript, static_cast<double>(htmlSize) / 1e6);
  return 0;
}
