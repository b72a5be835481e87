#include "transcript.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "address_text.h"
#include "error_text.h"
#include "payload_text.h"
#include "recorder_message_parser.h"
#include "recording_totals.h"
#include "unrecorded_sockets.h"

namespace talvex {

// Times are the reader's local time; the process header names the zone. Microseconds: calls a
// program makes one after another are apart by less than a millisecond.
std::string clockTime(int64_t timeNs) {
  const time_t seconds = static_cast<time_t>(timeNs / 1000000000);
  struct tm local;
  localtime_r(&seconds, &local);
  char text[32];
  snprintf(text, sizeof text, "%02d:%02d:%02d.%06d", local.tm_hour, local.tm_min, local.tm_sec,
           static_cast<int>((timeNs / 1000) % 1000000));
  return text;
}

namespace {

// "UTC+01:00, CET" for the zone in force at `timeNs`.
std::string zone(int64_t timeNs) {
  const time_t seconds = static_cast<time_t>(timeNs / 1000000000);
  struct tm local;
  localtime_r(&seconds, &local);
  const long offset = local.tm_gmtoff;
  char text[64];
  snprintf(text, sizeof text, "UTC%c%02ld:%02ld, %s", offset < 0 ? '-' : '+', labs(offset) / 3600,
           labs(offset) % 3600 / 60, local.tm_zone != nullptr ? local.tm_zone : "?");
  return text;
}

}  // namespace

std::string endpointText(const Peer& p) {
  if (p.ip.empty()) return "?";
  if (p.family == 10) return "[" + normalIp(p.ip) + "]:" + std::to_string(p.port);
  return p.ip + ":" + std::to_string(p.port);
}

namespace {

// Whether `next` continues the block `first` began: the same direction, succeeded, with bytes.
bool joinsBlock(const Event& first, const Event& next) {
  return next.kind == first.kind && !next.failed && !next.endOfStream;
}

// Text as lines, with line ends made visible; anything else as a classic hex dump.
void payload(const std::string& bytes, FILE* out) {
  const char* indent = "      ";
  if (!isPrintableText(bytes)) {
    fputs(hexDump(bytes, indent).c_str(), out);
    return;
  }
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
}

}  // namespace

namespace {

// The sends and receives of one conversation, a block each.
void writeEvents(const Conversation& c, const TranscriptOptions& options, FILE* out) {
  for (size_t i = 0; i < c.events.size(); ++i) {
    const Event& e = c.events[i];
    if (e.kind == "close") {
      fprintf(out, "   %s close of %s (the connection stays open through another descriptor)\n",
              clockTime(e.timeNs).c_str(), e.descriptor.c_str());
      continue;
    }
    if (e.endOfStream) {
      fprintf(out, "   %s < end of stream\n", clockTime(e.timeNs).c_str());
      continue;
    }
    // Sends, or receives, one after another with nothing between are one block: a program
    // that reads a byte at a time (ssh does) would otherwise fill pages with one-byte blocks.
    std::string data = e.data;
    size_t calls = 1;
    while (!e.failed && i + 1 < c.events.size() && joinsBlock(e, c.events[i + 1])) {
      data += c.events[++i].data;
      ++calls;
    }
    const bool sent = e.kind == "send";
    fprintf(out, "   %s %s %s", clockTime(e.timeNs).c_str(), sent ? "> sent" : "< received",
            counted(e.failed ? e.length : static_cast<int64_t>(data.size()), "byte", "bytes").c_str());
    if (calls > 1) fprintf(out, " in %zu calls", calls);
    if (e.failed) fprintf(out, " FAILED (%s)", errorText(e.error).c_str());
    // Records shown as bytes would read as if they were what the program said.
    if (c.encrypted && !data.empty()) fputs(" (encrypted)", out);
    fputs("\n", out);
    if (data.empty() || c.encrypted) continue;
    if (options.full || data.size() <= options.abbreviate) {
      payload(data, out);
    } else {
      payload(data.substr(0, options.abbreviate), out);
      fprintf(out, "      ... %zu more bytes (--full shows them)\n", data.size() - options.abbreviate);
    }
  }
}

// How a connect ended, after its two ends.
std::string connectOutcome(const Conversation& c) {
  if (c.failed) return " FAILED (" + c.failure + ")";
  if (c.state == ConnectState::kConnecting) return " (in progress; its outcome was not seen)";
  if (c.wasUnderWay) return " (in progress, then connected)";
  return " (" + std::to_string(c.durationMs) + " ms)";
}

}  // namespace

std::string conversationHeadline(const Conversation& c) {
  std::string line;
  if (c.opening == "connect") {
    // A connect refused at once left from no port: only its destination is shown.
    const std::string local = c.local.port != 0 ? endpointText(c.local) + " " : "";
    line = "connect " + local + "-> " + endpointText(c.remote) + connectOutcome(c);
    if (c.loopback) {
      line += c.hasSocksError ? " [to this process: direct, the SOCKS server was not used]" : " [to this process]";
    } else if (c.hasSocksError && c.socksError != 0 && c.failed) {
      line += " [the SOCKS exchange failed: " + errorText(c.socksError) + "]";
    } else if (c.hasSocksError && c.socksError != 0) {
      line += " [the SOCKS server was not used: it failed (" + errorText(c.socksError) + "), the connect went direct]";
    } else if (c.hasSocksError) {
      line += " [via SOCKS]";
    }
  } else if (c.opening == "accept") {
    line = "accepted from " + endpointText(c.remote);
    if (c.local.port != 0) line += " on " + endpointText(c.local);
  } else {
    line = "traffic of a socket whose opening was not seen";
  }
  if (!c.tls.empty()) line += " [TLS: plaintext from " + c.tls + "]";
  if (c.encrypted) line += " [TLS, encrypted: the program's TLS code is out of the agent's reach]";
  if (c.decrypted) line += " [TLS: decrypted with the key log]";
  return line;
}

namespace {

// One conversation: how it opened, its events, its close.
void writeConversation(const Conversation& c, const TranscriptOptions& options, FILE* out) {
  fprintf(out, "\n-- socket %lld", static_cast<long long>(c.socket));
  for (const std::string& other : c.alsoThrough) fprintf(out, ", %s", other.c_str());
  fprintf(out, ": %s  at %s\n", conversationHeadline(c).c_str(), clockTime(c.openTimeNs).c_str());
  writeEvents(c, options, out);
  if (c.closed) fprintf(out, "   %s close\n", clockTime(c.closeTimeNs).c_str());
}

// The calls seen but not recorded: each name once, in the order first seen, with how often when
// more than once (a program that waits in select does so again and again).
void writeNotices(const std::vector<std::string>& notices, FILE* out) {
  if (notices.empty()) return;
  std::vector<std::pair<std::string, int64_t>> seen;
  for (const std::string& n : notices) {
    auto found = std::find_if(seen.begin(), seen.end(), [&](const auto& entry) { return entry.first == n; });
    if (found == seen.end()) {
      seen.emplace_back(n, 1);
    } else {
      ++found->second;
    }
  }
  fputs("calls seen but not recorded:", out);
  for (const auto& entry : seen) {
    fprintf(out, " %s", entry.first.c_str());
    if (entry.second > 1) fprintf(out, " (%lld times)", static_cast<long long>(entry.second));
  }
  fputs("\n", out);
}

}  // namespace

std::string resolutionSentence(const std::string& name, const std::string& family,
                               const std::vector<std::string>& addresses, int64_t resolverError) {
  if (resolverError != 0) return "could not resolve " + name + ": " + resolverErrorText(resolverError);
  std::string line = "resolved " + name + " -> ";
  if (addresses.empty()) line += "?";
  for (size_t i = 0; i < addresses.size(); ++i) line += (i == 0 ? "" : ", ") + addresses[i];
  return family.empty() ? line : line + " (" + family + ")";
}

void writeTranscript(const Recording& recording, const TranscriptOptions& options, FILE* out) {
  for (size_t index = 0; index < recording.processes.size(); ++index) {
    const ProcessHeader& process = recording.processes[index];
    fprintf(out, "== process %lld", static_cast<long long>(process.pid));
    if (!process.commandLine.empty()) fprintf(out, ": %s", process.commandLine.c_str());
    if (!process.workingDirectory.empty()) fprintf(out, " in %s", process.workingDirectory.c_str());
    int64_t firstNs = 0;
    for (const Conversation& c : recording.conversations) {
      if (c.process == index) {
        firstNs = c.openTimeNs;
        break;
      }
    }
    fprintf(out, "; times are local (%s)\n", zone(firstNs).c_str());
    for (const Resolution& r : recording.resolutions) {
      if (r.process != index) continue;
      fprintf(out, "   %s\n", resolutionSentence(r.name, r.family, r.addresses, r.resolverError).c_str());
    }
    for (const Conversation& c : recording.conversations) {
      if (c.process != index) continue;
      writeConversation(c, options, out);
    }
    fputs("\n", out);
  }
  writeNotices(recording.notices, out);
  const std::string unrecorded = unrecordedSummary(recording.unrecorded);
  if (!unrecorded.empty()) fprintf(out, "%s\n", unrecorded.c_str());
  if (!options.note.empty()) fprintf(out, "%s\n", options.note.c_str());
  Totals totals;
  totals.sockets = static_cast<int64_t>(recording.conversations.size());
  totals.messages = static_cast<int64_t>(recording.messages);
  totals.bytesSent = recording.bytesSent;
  totals.bytesReceived = recording.bytesReceived;
  totals.failures = recording.failures;
  totals.malformed = static_cast<int64_t>(recording.malformed);
  fprintf(out, "%s\n", summaryLine(totals).c_str());
}

}  // namespace talvex
