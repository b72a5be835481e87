// How fast a message is encoded, no network: payload throughput of building and finishing a
// send message with binary and with text payloads, against the obvious escaper written a
// character at a time. Built for both ABIs: the 32-bit encoder has half the registers.
#include <stdio.h>

#include <chrono>
#include <string>

#include "message/recorder_message.h"

namespace {

using Clock = std::chrono::steady_clock;

double seconds(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// A payload of `size` bytes: every byte value in turn, or the text of an HTTP exchange (lines of
// printable characters, a few of which need an escape).
std::string benchPayload(size_t size, bool text) {
  static const std::string kText =
      "GET /index.html HTTP/1.1\r\nHost: www.example.com\r\nUser-Agent: curl/7.88.1\r\n"
      "Accept: text/html, */*; q=0.8\r\nCookie: session=7f3a9c0e1b2d4f6a8c0e\r\n\r\n";
  std::string payload(size, '\0');
  for (size_t i = 0; i < size; ++i) payload[i] = text ? kText[i % kText.size()] : static_cast<char>(i * 31);
  return payload;
}

int roundsFor(size_t payloadSize) { return payloadSize >= (1u << 20) ? 50 : static_cast<int>(20000000 / payloadSize); }

// Returns the payload throughput in MB/s of building and finishing messages.
double encodingMegabytes(const std::string& payload) {
  const int rounds = roundsFor(payload.size());
  const auto start = Clock::now();
  unsigned sink = 0;
  for (int i = 0; i < rounds; ++i) {
    RecorderMessage message(RMT_SEND, i);
    message.set(RMA_DATA, payload.data(), static_cast<int>(payload.size()));
    message.finish();
    sink += message.length();
  }
  const double elapsed = seconds(start);
  if (sink == 0) puts("");
  return rounds * static_cast<double>(payload.size()) / elapsed / 1e6;
}

// The obvious way to escape the same bytes, a character at a time into a string: what the
// encoder is measured against.
double naiveEscapeMegabytes(const std::string& payload) {
  const int rounds = roundsFor(payload.size());
  size_t sink = 0;
  const auto start = Clock::now();
  for (int i = 0; i < rounds; ++i) {
    std::string out = "<send data_AS=\"";
    for (const char ch : payload) {
      const unsigned char c = static_cast<unsigned char>(ch);
      char escaped[8];
      if (c == 9 || c == 10 || c == '"' || c == '&' || c == '<') {
        snprintf(escaped, sizeof escaped, "&#x%02x;", c);
        out += escaped;
      } else if (c == '\\') {
        out += "\\\\";
      } else if (c < 0x20 || c > 0x7e) {
        snprintf(escaped, sizeof escaped, "\\x%02x", c);
        out += escaped;
      } else {
        out += ch;
      }
    }
    out += "\"/>\n";
    sink += out.size();
  }
  const double elapsed = seconds(start);
  if (sink == 0) puts("");
  return rounds * static_cast<double>(payload.size()) / elapsed / 1e6;
}

}  // namespace

int main() {
  printf("encoding a message, %d-bit encoder (payload MB/s; naive escaping of the same bytes as the baseline)\n",
         static_cast<int>(sizeof(void*) * 8));
  for (const bool text : {false, true}) {
    for (size_t size : {size_t(1024), size_t(64 * 1024), size_t(4u << 20)}) {
      const std::string payload = benchPayload(size, text);
      const double mb = encodingMegabytes(payload);
      const double naive = naiveEscapeMegabytes(payload);
      printf("  %-6s %8zu B: %6.0f MB/s   naive %5.0f MB/s   ratio %5.2f\n", text ? "text" : "binary", size, mb, naive,
             mb / naive);
    }
  }
  return 0;
}
