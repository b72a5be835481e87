#include "http_conversations.h"

#include "http1_parser.h"
#include "http2_parser.h"
#include "timed_stream.h"

namespace talvex {

HttpConversation readHttp(const Conversation& c) {
  HttpConversation http;
  // Encrypted records read as nothing: only plaintext (from the agent or a key log) is HTTP.
  if (c.encrypted && !c.decrypted) return http;
  TimedStream sent, received;
  for (const Event& e : c.events) {
    if (e.failed) continue;
    if (e.kind == "send") {
      sent.append(e.data, e.timeNs);
    } else if (e.kind == "receive") {
      if (e.endOfStream) received.markEnded();
      received.append(e.data, e.timeNs);
    }
  }
  // A closed conversation holds everything either side sent on it.
  if (c.closed) {
    sent.markEnded();
    received.markEnded();
  }
  const std::string& out = sent.bytes();
  const std::string& in = received.bytes();
  if (beginsWithHttp2Preface(out) || beginsWithHttp2Preface(in)) {
    http.kind = HttpKind::Http2;
    http.programIsServer = !beginsWithHttp2Preface(out);
    http.exchanges = http.programIsServer ? readHttp2(received, sent) : readHttp2(sent, received);
  } else if (beginsWithHttp1Request(out.substr(0, 8 * 1024))) {
    http.kind = HttpKind::Http1;
    http.exchanges = readHttp1(sent, received);
  } else if (beginsWithHttp1Request(in.substr(0, 8 * 1024))) {
    http.kind = HttpKind::Http1;
    http.programIsServer = true;
    http.exchanges = readHttp1(received, sent);
  }
  return http;
}

}  // namespace talvex
