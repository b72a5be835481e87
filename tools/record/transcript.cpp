#include "transcript.h"

#include <string.h>
#include <time.h>

#include <string>

namespace talvex {

namespace {

std::string clock(int64_t timeNs) {
  const time_t seconds = static_cast<time_t>(timeNs / 1000000000);
  struct tm utc;
  gmtime_r(&seconds, &utc);
  char text[32];
  snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", utc.tm_hour, utc.tm_min, utc.tm_sec,
           static_cast<int>((timeNs / 1000000) % 1000));
  return text;
}

std::string endpoint(const Peer& p) {
  if (p.family == 10) return "[" + p.ip + "]:" + std::to_string(p.port);
  if (p.ip.empty()) return "?";
  return p.ip + ":" + std::to_string(p.port);
}

bool printable(const std::string& bytes) {
  for (const char ch : bytes) {
    const unsigned char c = static_cast<unsigned char>(ch);
    if ((c < 0x20 && c != '\n' && c != '\r' && c != '\t') || c >= 0x7f) return false;
  }
  return true;
}

// Text as lines, with line ends made visible; anything else as a classic hex dump.
void payload(const std::string& bytes, FILE* out) {
  const char* indent = "      ";
  if (printable(bytes)) {
    std::string line;
    for (const char c : bytes) {
      if (c == '\r') {
        line += "\\r";
      } else if (c == '\t') {
        line += "\\t";
      } else if (c == '\n') {
        fprintf(out, "%s%s\\n\n", indent, line.c_str());
        line.clear();
      } else {
        line += c;
      }
    }
    if (!line.empty()) fprintf(out, "%s%s\n", indent, line.c_str());
    return;
  }
  for (size_t offset = 0; offset < bytes.size(); offset += 16) {
    fprintf(out, "%s%04zx ", indent, offset);
    std::string ascii;
    for (size_t i = 0; i < 16; ++i) {
      if (offset + i < bytes.size()) {
        const unsigned char c = static_cast<unsigned char>(bytes[offset + i]);
        fprintf(out, " %02x", c);
        ascii += (c >= 0x20 && c < 0x7f) ? static_cast<char>(c) : '.';
      } else {
        fputs("   ", out);
      }
    }
    fprintf(out, "  |%s|\n", ascii.c_str());
  }
}

}  // namespace

void writeTranscript(const Recording& recording, const TranscriptOptions& options, FILE* out) {
  for (size_t i = 0; i < recording.pids.size(); ++i) {
    const int64_t pid = recording.pids[i];
    fprintf(out, "== process %lld", static_cast<long long>(pid));
    if (!recording.workingDirectories[i].empty()) fprintf(out, " in %s", recording.workingDirectories[i].c_str());
    fputs("\n", out);
    for (const Resolution& r : recording.resolutions) {
      if (r.pid != pid) continue;
      fprintf(out, "   resolved %s -> %s (%s)\n", r.name.c_str(), r.ip.empty() ? "?" : r.ip.c_str(), r.family.c_str());
    }
    for (const Conversation& c : recording.conversations) {
      if (c.pid != pid) continue;
      fprintf(out, "\n-- socket %lld: ", static_cast<long long>(c.socket));
      if (c.opening == "connect") {
        fprintf(out, "connect %s -> %s", endpoint(c.local).c_str(), endpoint(c.remote).c_str());
        if (c.failed) {
          fprintf(out, " FAILED (error %lld)", static_cast<long long>(c.error));
        } else {
          fprintf(out, " (%lld ms)", static_cast<long long>(c.durationMs));
        }
        if (c.loopback) fputs(" [to this process]", out);
        if (c.hasSocksError) fprintf(out, " [via SOCKS, status %lld]", static_cast<long long>(c.socksError));
      } else if (c.opening == "accept") {
        fprintf(out, "accepted from %s", endpoint(c.remote).c_str());
      } else {
        fputs("traffic of a socket whose opening was not seen", out);
      }
      fprintf(out, "  at %s\n", clock(c.openTimeNs).c_str());
      for (const Event& e : c.events) {
        if (e.endOfStream) {
          fprintf(out, "   %s < end of stream\n", clock(e.timeNs).c_str());
          continue;
        }
        const bool sent = e.kind == "send";
        fprintf(out, "   %s %s %lld bytes", clock(e.timeNs).c_str(), sent ? "> sent" : "< received",
                static_cast<long long>(e.failed ? e.length : static_cast<int64_t>(e.data.size())));
        if (e.failed) fprintf(out, " FAILED (error %lld)", static_cast<long long>(e.error));
        fputs("\n", out);
        if (e.data.empty()) continue;
        if (options.full || e.data.size() <= options.abbreviate) {
          payload(e.data, out);
        } else {
          payload(e.data.substr(0, options.abbreviate), out);
          fprintf(out, "      ... %zu more bytes (--full shows them)\n", e.data.size() - options.abbreviate);
        }
      }
      if (c.closed) fprintf(out, "   %s close\n", clock(c.closeTimeNs).c_str());
    }
    fputs("\n", out);
  }
  if (!recording.notices.empty()) {
    fputs("calls seen but not recorded:", out);
    for (const std::string& n : recording.notices) fprintf(out, " %s", n.c_str());
    fputs("\n", out);
  }
  size_t sockets = 0;
  for (const Conversation& c : recording.conversations) sockets += c.opening != "accept";
  fprintf(out, "summary: %zu sockets, %zu messages, %lld bytes sent, %lld bytes received, %d failures", sockets,
          recording.messages, static_cast<long long>(recording.bytesSent),
          static_cast<long long>(recording.bytesReceived), recording.failures);
  if (recording.malformed != 0) fprintf(out, ", %zu malformed messages", recording.malformed);
  fputs("\n", out);
}

}  // namespace talvex
