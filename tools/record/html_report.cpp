#include "html_report.h"

#include <stdio.h>

#include <algorithm>
#include <limits>

#include "content_decoding.h"
#include "error_text.h"
#include "http_conversations.h"
#include "message_json.h"
#include "payload_text.h"
#include "transcript.h"

namespace talvex {

const char* htmlReportPage();  // html_report_page.cpp

namespace {

std::string milliseconds(int64_t ns, int64_t originNs) {
  char text[32];
  // In doubles: a time stamp from a misbehaving peer may lie anywhere in the range.
  snprintf(text, sizeof text, "%.3f", (static_cast<double>(ns) - static_cast<double>(originNs)) / 1e6);
  return text;
}

// What the page may still show of payloads: each conversation's share and the page's.
class Budget {
 public:
  explicit Budget(const HtmlReportLimits& limits) : limits_(limits), report_(limits.perReport) {}
  void startConversation() { conversation_ = limits_.perConversation; }
  size_t perEvent() const { return limits_.perEvent; }
  // How many of `length` bytes are shown, each costing `weight` characters of the page.
  size_t take(size_t length, size_t weight) {
    const size_t shown = std::min({length, limits_.perEvent, conversation_ / weight, report_ / weight});
    conversation_ -= shown * weight;
    report_ -= shown * weight;
    return shown;
  }

 private:
  const HtmlReportLimits& limits_;
  size_t report_;
  size_t conversation_ = 0;
};

// Text a person can read as it is: UTF-8 without control bytes other than line ends and tabs.
bool readableText(const std::string& bytes) {
  for (const char ch : bytes) {
    const unsigned char c = static_cast<unsigned char>(ch);
    if ((c < 0x20 && c != '\n' && c != '\r' && c != '\t') || c == 0x7f) return false;
  }
  return isUtf8(bytes);
}

// {"n":LENGTH,"text":...} or {"n":LENGTH,"hex":...}, with "cut" the bytes left out.
// A cut at `length` moved back to the start of the UTF-8 character it falls in, so that text
// stays text.
size_t textCut(const std::string& bytes, size_t length) {
  if (length >= bytes.size()) return bytes.size();
  for (int i = 0; i < 3 && length > 0 && (static_cast<unsigned char>(bytes[length]) & 0xc0) == 0x80; ++i) --length;
  return length;
}

std::string payloadJson(const std::string& bytes, Budget& budget) {
  // A hex dump line shows sixteen bytes in about seventy-five characters.
  const bool text = readableText(bytes.substr(0, textCut(bytes, budget.perEvent())));
  size_t shown = budget.take(bytes.size(), text ? 1 : 5);
  if (text) shown = textCut(bytes, shown);
  const std::string part = bytes.substr(0, shown);
  std::string out = "{\"n\":" + std::to_string(bytes.size());
  if (!part.empty()) {
    out += text ? ",\"text\":" + jsonText(part) : ",\"hex\":" + jsonText(hexDump(part, ""));
  }
  if (shown < bytes.size()) out += ",\"cut\":" + std::to_string(bytes.size() - shown);
  return out + "}";
}

std::string headersJson(const std::vector<HttpHeader>& headers) {
  std::string out = "[";
  for (size_t i = 0; i < headers.size(); ++i) {
    out += std::string(i == 0 ? "" : ",") + "[" + jsonText(headers[i].name) + "," + jsonText(headers[i].value) + "]";
  }
  return out + "]";
}

std::string exchangeJson(const HttpExchange& x, const Conversation& c, bool programIsServer, Budget& budget) {
  const HttpRequest& q = x.request;
  const HttpResponse& r = x.response;
  std::string target = q.target;
  if (!q.authority.empty() && !target.empty() && target[0] == '/') {
    const std::string scheme = !q.scheme.empty() ? q.scheme : (!c.tls.empty() || c.decrypted) ? "https" : "http";
    target = scheme + "://" + q.authority + target;
  }
  std::string out = "{\"m\":" + jsonText(q.method) + ",\"u\":" + jsonText(target) + ",\"v\":" + jsonText(q.version) +
                    ",\"qh\":" + headersJson(q.headers) + ",\"qb\":" + payloadJson(q.body, budget);
  if (r.present) {
    const HttpHeader* coding = r.header("Content-Encoding");
    std::string body, why;
    const bool decoded = decodeContent(coding != nullptr ? coding->value : "", r.body, &body, &why);
    out += ",\"s\":" + std::to_string(r.status) + ",\"r\":" + jsonText(r.reason) + ",\"sv\":" + jsonText(r.version) +
           ",\"sh\":" + headersJson(r.headers) + ",\"sb\":" + payloadJson(body, budget);
    if (!decoded) out += ",\"coding\":" + jsonText(why);
  }
  if (!x.problem.empty()) out += ",\"bad\":" + jsonText(x.problem);
  if (programIsServer) out += ",\"served\":true";
  return out + "}";
}

std::string eventJson(const Event& e, const Conversation& c, int64_t originNs, Budget& budget) {
  std::string kind = e.kind;
  if (e.endOfStream) kind = "eof";
  std::string out = "{\"k\":" + jsonText(kind) + ",\"t\":" + milliseconds(e.timeNs, originNs);
  if (e.kind == "close") return out + ",\"d\":" + jsonText(e.descriptor) + "}";
  if (e.failed) return out + ",\"n\":" + std::to_string(e.length) + ",\"err\":" + jsonText(errorText(e.error)) + "}";
  if (e.endOfStream) return out + "}";
  // Records shown as bytes would read as if they were what the program said: their length only.
  if (c.encrypted && !c.decrypted) return out + ",\"p\":{\"n\":" + std::to_string(e.data.size()) + ",\"enc\":true}}";
  return out + ",\"p\":" + payloadJson(e.data, budget) + "}";
}

std::string connectionJson(const Recording& recording, size_t index, int64_t originNs, Budget& budget) {
  const Conversation& c = recording.conversations[index];
  budget.startConversation();
  const HttpConversation http = readHttp(c);
  const Peer& far = c.remote;
  std::string out = "{\"id\":" + std::to_string(index + 1) + ",\"p\":" + std::to_string(c.process) +
                    ",\"pid\":" + std::to_string(c.pid) + ",\"sock\":" + std::to_string(c.socket) +
                    ",\"head\":" + jsonText(conversationHeadline(c)) + ",\"host\":" + jsonText(far.ip) +
                    ",\"port\":" + std::to_string(far.port) + ",\"lport\":" + std::to_string(c.local.port) +
                    ",\"t0\":" + milliseconds(c.openTimeNs, originNs);
  const int64_t lastNs = c.closed ? c.closeTimeNs : c.events.empty() ? c.openTimeNs : c.events.back().timeNs;
  out += ",\"t1\":" + milliseconds(std::max(lastNs, c.openTimeNs), originNs) +
         ",\"sent\":" + std::to_string(c.bytesSent) + ",\"recv\":" + std::to_string(c.bytesReceived);
  bool eventFailed = false;
  for (const Event& e : c.events) eventFailed = eventFailed || e.failed;
  if (c.failed || eventFailed) out += ",\"bad\":true";
  if (!c.tls.empty() || c.decrypted) out += ",\"tls\":true";
  if (c.encrypted && !c.decrypted) out += ",\"enc\":true";
  if (!c.closed) out += ",\"open\":true";
  out += ",\"http\":[";
  for (size_t i = 0; i < http.exchanges.size(); ++i) {
    out += (i == 0 ? "" : ",") + exchangeJson(http.exchanges[i], c, http.programIsServer, budget);
  }
  out += "],\"ev\":[";
  for (size_t i = 0; i < c.events.size(); ++i) out += (i == 0 ? "" : ",") + eventJson(c.events[i], c, originNs, budget);
  return out + "]}";
}

// The earliest time the recording holds, which the page's times count from.
int64_t originOf(const Recording& recording) {
  int64_t origin = std::numeric_limits<int64_t>::max();
  for (const Conversation& c : recording.conversations) {
    if (c.openTimeNs > 0) origin = std::min(origin, c.openTimeNs);
    if (!c.events.empty() && c.events.front().timeNs > 0) origin = std::min(origin, c.events.front().timeNs);
  }
  return origin == std::numeric_limits<int64_t>::max() ? 0 : origin;
}

// The data the page draws, as JSON inside a script element: "</" written "<\/" (the same string
// to JSON) so that no payload can end the element.
std::string reportData(const Recording& recording, const HtmlReportLimits& limits) {
  const int64_t origin = originOf(recording);
  Budget budget(limits);
  std::string out = "{\"origin\":" + std::to_string(origin / 1000000) + ",\"processes\":[";
  for (size_t i = 0; i < recording.processes.size(); ++i) {
    const ProcessHeader& p = recording.processes[i];
    out += std::string(i == 0 ? "" : ",") + "{\"pid\":" + std::to_string(p.pid) + ",\"cmd\":" + jsonText(p.commandLine) +
           ",\"cwd\":" + jsonText(p.workingDirectory) + "}";
  }
  out += "],\"resolutions\":[";
  for (size_t i = 0; i < recording.resolutions.size(); ++i) {
    const Resolution& r = recording.resolutions[i];
    out += std::string(i == 0 ? "" : ",") + "{\"p\":" + std::to_string(r.process) +
           ",\"text\":" + jsonText(resolutionSentence(r.name, r.family, r.addresses, r.resolverError)) +
           (r.resolverError != 0 ? ",\"bad\":true" : "") + "}";
  }
  out += "],\"connections\":[";
  for (size_t i = 0; i < recording.conversations.size(); ++i) {
    out += (i == 0 ? "\n" : ",\n") + connectionJson(recording, i, origin, budget);
  }
  out += "],\"messages\":" + std::to_string(recording.messages) + ",\"malformed\":" + std::to_string(recording.malformed) +
         ",\"sent\":" + std::to_string(recording.bytesSent) + ",\"recv\":" + std::to_string(recording.bytesReceived) + "}";
  std::string safe;
  safe.reserve(out.size());
  for (size_t i = 0; i < out.size(); ++i) {
    if (out[i] == '<' && i + 1 < out.size() && out[i + 1] == '/') {
      safe += "<\\/";
      ++i;
    } else if (out[i] == '<' && out.compare(i, 4, "<!--") == 0) {
      safe += "\\u003c";
    } else {
      safe += out[i];
    }
  }
  return safe;
}

}  // namespace

std::string htmlReport(const Recording& recording, const HtmlReportLimits& limits) {
  std::string page = htmlReportPage();
  const std::string marker = "/*TALVEX_DATA*/";
  const size_t at = page.find(marker);
  if (at == std::string::npos) return page;
  return page.replace(at, marker.size(), reportData(recording, limits));
}

}  // namespace talvex
