#include "har_document.h"

#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <time.h>

#include <algorithm>
#include <tuple>
#include <vector>

#include "content_decoding.h"
#include "http_conversations.h"
#include "message_json.h"
#include "payload_text.h"
#include "transcript.h"

namespace talvex {

namespace {

std::string isoTime(int64_t ns) {
  const time_t seconds = static_cast<time_t>(ns / 1000000000);
  struct tm t;
  if (ns < 0 || gmtime_r(&seconds, &t) == nullptr) {
    memset(&t, 0, sizeof t);  // no time, or one from a peer's garbage: the epoch
    t.tm_year = 70;
    t.tm_mday = 1;
    ns = 0;
  }
  char text[64];
  snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
           t.tm_hour, t.tm_min, t.tm_sec, static_cast<int>((ns / 1000000) % 1000));
  return text;
}

// Milliseconds between two times, never negative (the clocks of two processes may disagree); in
// doubles, since a peer's garbage may put them at the ends of the range.
double millisecondsBetween(int64_t from, int64_t to) {
  return to > from ? (static_cast<double>(to) - static_cast<double>(from)) / 1e6 : 0.0;
}

std::string number(double ms) {
  char text[32];
  snprintf(text, sizeof text, "%.3f", ms);
  return text;
}

std::string percentDecoded(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto hex = [](char c) -> int {
      if (c >= '0' && c <= '9') return c - '0';
      if (c >= 'a' && c <= 'f') return c - 'a' + 10;
      if (c >= 'A' && c <= 'F') return c - 'A' + 10;
      return -1;
    };
    if (text[i] == '%' && i + 2 < text.size() && hex(text[i + 1]) >= 0 && hex(text[i + 2]) >= 0) {
      out += static_cast<char>(hex(text[i + 1]) * 16 + hex(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

// "a=1&b=two" as HAR's name/value list.
std::string pairsJson(const std::string& text, char separator, bool decode) {
  std::string out = "[";
  size_t start = 0;
  bool first = true;
  while (start < text.size()) {
    size_t end = text.find(separator, start);
    if (end == std::string::npos) end = text.size();
    std::string pair = text.substr(start, end - start);
    start = end + 1;
    if (separator == ';') {
      const size_t b = pair.find_first_not_of(' ');
      pair = b == std::string::npos ? "" : pair.substr(b);
    }
    if (pair.empty()) continue;
    const size_t equals = pair.find('=');
    std::string name = pair.substr(0, equals), value = equals == std::string::npos ? "" : pair.substr(equals + 1);
    if (decode) {
      name = percentDecoded(name);
      value = percentDecoded(value);
    }
    out += std::string(first ? "" : ",") + "{\"name\":" + jsonText(name) + ",\"value\":" + jsonText(value) + "}";
    first = false;
  }
  return out + "]";
}

std::string headersJson(const std::vector<HttpHeader>& headers) {
  std::string out = "[";
  for (size_t i = 0; i < headers.size(); ++i) {
    out += std::string(i == 0 ? "" : ",") + "{\"name\":" + jsonText(headers[i].name) + ",\"value\":" + jsonText(headers[i].value) + "}";
  }
  return out + "]";
}

std::string requestCookies(const HttpRequest& r) {
  std::string joined;
  for (const HttpHeader& h : r.headers) {
    if (strcasecmp(h.name.c_str(), "Cookie") == 0) joined += (joined.empty() ? "" : "; ") + h.value;
  }
  return pairsJson(joined, ';', false);
}

// A Set-Cookie "Expires" date (RFC 1123, as servers send it) in ISO 8601, as HAR wants; empty
// when it is not such a date.
std::string cookieExpiry(const std::string& text) {
  struct tm t;
  memset(&t, 0, sizeof t);
  const char* end = strptime(text.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &t);
  if (end == nullptr) end = strptime(text.c_str(), "%a, %d-%b-%Y %H:%M:%S GMT", &t);
  if (end == nullptr) return "";
  return isoTime(static_cast<int64_t>(timegm(&t)) * 1000000000);
}

std::string responseCookies(const HttpResponse& r) {
  std::string out = "[";
  bool first = true;
  for (const HttpHeader& h : r.headers) {
    if (strcasecmp(h.name.c_str(), "Set-Cookie") != 0) continue;
    std::string cookie;
    size_t start = 0;
    bool named = false;
    while (start <= h.value.size()) {
      size_t end = h.value.find(';', start);
      if (end == std::string::npos) end = h.value.size();
      std::string part = h.value.substr(start, end - start);
      start = end + 1;
      const size_t b = part.find_first_not_of(' ');
      part = b == std::string::npos ? "" : part.substr(b);
      const size_t equals = part.find('=');
      const std::string name = part.substr(0, equals), value = equals == std::string::npos ? "" : part.substr(equals + 1);
      if (!named) {
        cookie = "\"name\":" + jsonText(name) + ",\"value\":" + jsonText(value);
        named = true;
      } else if (strcasecmp(name.c_str(), "Path") == 0) {
        cookie += ",\"path\":" + jsonText(value);
      } else if (strcasecmp(name.c_str(), "Domain") == 0) {
        cookie += ",\"domain\":" + jsonText(value);
      } else if (strcasecmp(name.c_str(), "Expires") == 0 && !cookieExpiry(value).empty()) {
        cookie += ",\"expires\":" + jsonText(cookieExpiry(value));
      } else if (strcasecmp(name.c_str(), "HttpOnly") == 0) {
        cookie += ",\"httpOnly\":true";
      } else if (strcasecmp(name.c_str(), "Secure") == 0) {
        cookie += ",\"secure\":true";
      }
    }
    out += std::string(first ? "" : ",") + "{" + cookie + "}";
    first = false;
  }
  return out + "]";
}

std::string mimeTypeOf(const HttpMessagePart& m, const char* unknown) {
  const HttpHeader* type = m.header("Content-Type");
  return type != nullptr ? type->value : unknown;
}

// Text where it is UTF-8, base64 otherwise; `encoding` says which.
std::string bodyJson(const std::string& body, const char* textKey) {
  if (isUtf8(body)) return std::string(",\"") + textKey + "\":" + jsonString(body);
  return std::string(",\"") + textKey + "\":" + jsonString(base64Encode(body)) + ",\"encoding\":\"base64\"";
}

std::string urlOf(const HttpRequest& r, const Conversation& c, bool programIsServer) {
  if (r.target.compare(0, 7, "http://") == 0 || r.target.compare(0, 8, "https://") == 0) return r.target;
  const std::string scheme = !r.scheme.empty() ? r.scheme : (!c.tls.empty() || c.decrypted) ? "https" : "http";
  std::string authority = r.authority;
  // No Host (HTTP/1.0): the address the connection went to.
  if (authority.empty()) authority = endpointText(programIsServer ? c.local : c.remote);
  if (r.method == "CONNECT") return scheme + "://" + r.target;
  const std::string path = !r.target.empty() && r.target[0] == '/' ? r.target : "/" + r.target;
  return scheme + "://" + authority + path;
}

std::string requestJson(const HttpRequest& r, const std::string& url) {
  std::string out = "{\"method\":" + jsonText(r.method) + ",\"url\":" + jsonText(url) + ",\"httpVersion\":" + jsonText(r.version) +
                    ",\"cookies\":" + requestCookies(r) + ",\"headers\":" + headersJson(r.headers);
  const size_t question = r.target.find('?');
  out += ",\"queryString\":" + pairsJson(question == std::string::npos ? "" : r.target.substr(question + 1), '&', true);
  if (!r.body.empty() || r.header("Content-Type") != nullptr) {
    const std::string mime = mimeTypeOf(r, "application/octet-stream");
    out += ",\"postData\":{\"mimeType\":" + jsonText(mime);
    if (strncasecmp(mime.c_str(), "application/x-www-form-urlencoded", 33) == 0 && isUtf8(r.body)) {
      out += ",\"params\":" + pairsJson(r.body, '&', true);
    }
    out += bodyJson(r.body, "text") + "}";
  }
  out += ",\"headersSize\":" + std::to_string(r.headersSize) + ",\"bodySize\":" + std::to_string(r.bodySize) + "}";
  return out;
}

std::string responseJson(const HttpResponse& r) {
  if (!r.present) {
    return "{\"status\":0,\"statusText\":\"\",\"httpVersion\":\"\",\"cookies\":[],\"headers\":[],"
           "\"content\":{\"size\":0,\"mimeType\":\"x-unknown\"},\"redirectURL\":\"\",\"headersSize\":-1,\"bodySize\":-1}";
  }
  const HttpHeader* location = r.header("Location");
  const HttpHeader* coding = r.header("Content-Encoding");
  std::string decoded, why;
  const bool readable = decodeContent(coding != nullptr ? coding->value : "", r.body, &decoded, &why);
  std::string content = "{\"size\":" + std::to_string(decoded.size());
  if (readable && decoded.size() != r.body.size()) {
    content += ",\"compression\":" + std::to_string(static_cast<int64_t>(decoded.size()) - static_cast<int64_t>(r.body.size()));
  }
  content += ",\"mimeType\":" + jsonText(mimeTypeOf(r, "x-unknown"));
  if (!decoded.empty()) content += bodyJson(decoded, "text");
  if (!readable && decoded.size() == kLongestDecodedBody) {
    content += ",\"comment\":" + jsonText("the body's start: it " + why);
  } else if (!readable) {
    content += ",\"comment\":" + jsonText("the body as it came; its Content-Encoding could not be undone: " + why);
  }
  content += "}";
  return "{\"status\":" + std::to_string(r.status) + ",\"statusText\":" + jsonText(r.reason) +
         ",\"httpVersion\":" + jsonText(r.version) + ",\"cookies\":" + responseCookies(r) +
         ",\"headers\":" + headersJson(r.headers) + ",\"content\":" + content +
         ",\"redirectURL\":" + jsonText(location != nullptr ? location->value : "") +
         ",\"headersSize\":" + std::to_string(r.headersSize) + ",\"bodySize\":" + std::to_string(r.bodySize) + "}";
}

struct Entry {
  int64_t startNs;
  size_t conversation, index;
  std::string json;
};

std::string entryJson(const Recording& recording, size_t ci, const HttpConversation& http, size_t xi) {
  const Conversation& c = recording.conversations[ci];
  const HttpExchange& x = http.exchanges[xi];
  const HttpRequest& q = x.request;
  const HttpResponse& r = x.response;
  // A connection is opened once: its first exchange pays for it.
  const double connect = xi == 0 && c.opening == "connect" && !http.programIsServer ? static_cast<double>(c.durationMs) : -1;
  const double send = millisecondsBetween(q.firstByteNs, q.lastByteNs);
  const double wait = r.present ? millisecondsBetween(q.lastByteNs, r.firstByteNs) : -1;
  const double receive = r.present ? millisecondsBetween(r.firstByteNs, r.lastByteNs) : -1;
  const double total = std::max(connect, 0.0) + send + std::max(wait, 0.0) + std::max(receive, 0.0);
  const Peer& server = http.programIsServer ? c.local : c.remote;
  std::string json = "{\"startedDateTime\":" + jsonText(isoTime(q.firstByteNs)) + ",\"time\":" + number(total) +
                     ",\"request\":" + requestJson(q, urlOf(q, c, http.programIsServer)) +
                     ",\"response\":" + responseJson(r) + ",\"cache\":{}" + ",\"timings\":{\"blocked\":-1,\"dns\":-1" +
                     ",\"connect\":" + (connect < 0 ? std::string("-1") : number(connect)) + ",\"send\":" + number(send) +
                     ",\"wait\":" + (wait < 0 ? std::string("-1") : number(wait)) +
                     ",\"receive\":" + (receive < 0 ? std::string("-1") : number(receive)) + ",\"ssl\":-1}";
  if (!server.ip.empty() && server.ip != "?") json += ",\"serverIPAddress\":" + jsonText(server.ip);
  json += ",\"connection\":" + jsonText(std::to_string(ci + 1));
  const ProcessHeader* process = c.process < recording.processes.size() ? &recording.processes[c.process] : nullptr;
  json += ",\"_talvex\":{\"pid\":" + std::to_string(c.pid);
  if (process != nullptr && !process->commandLine.empty()) json += ",\"process\":" + jsonText(process->commandLine);
  json += ",\"socket\":" + std::to_string(c.socket) + ",\"connection\":" + std::to_string(ci + 1) +
          ",\"side\":" + (http.programIsServer ? "\"server\"" : "\"client\"");
  if (x.stream != 0) json += ",\"stream\":" + std::to_string(x.stream);
  if (!c.tls.empty()) {
    json += ",\"tls\":" + jsonText(c.tls);
  } else if (c.decrypted) {
    json += ",\"tls\":\"decrypted with the key log\"";
  }
  if (!x.problem.empty()) json += ",\"incomplete\":" + jsonText(x.problem);
  return json + "}}";
}

// Whether the conversation carried any data at all.
bool carriedData(const Conversation& c) { return c.bytesSent + c.bytesReceived > 0; }

}  // namespace

std::string harDocument(const Recording& recording, const std::string& creatorVersion, HarSummary* summary) {
  std::vector<Entry> entries;
  *summary = HarSummary();
  for (size_t ci = 0; ci < recording.conversations.size(); ++ci) {
    const Conversation& c = recording.conversations[ci];
    const HttpConversation http = readHttp(c);
    if (http.kind == HttpKind::None || http.exchanges.empty()) {
      if (carriedData(c)) {
        ++summary->notHttp;
        if (c.encrypted && !c.decrypted) ++summary->unreadableTls;
      }
      continue;
    }
    for (size_t xi = 0; xi < http.exchanges.size(); ++xi) {
      if (!http.exchanges[xi].problem.empty()) ++summary->incomplete;
      entries.push_back(Entry{http.exchanges[xi].request.firstByteNs, ci, xi, entryJson(recording, ci, http, xi)});
    }
  }
  std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
    return std::tie(a.startNs, a.conversation, a.index) < std::tie(b.startNs, b.conversation, b.index);
  });
  summary->entries = entries.size();
  std::string out = "{\"log\":{\"version\":\"1.2\",\"creator\":{\"name\":\"talvex-record\",\"version\":" +
                    jsonString(creatorVersion) + "},\"entries\":[";
  for (size_t i = 0; i < entries.size(); ++i) out += (i == 0 ? "\n" : ",\n") + entries[i].json;
  return out + "\n]}}\n";
}

std::string harSummaryLine(const HarSummary& s, bool keyLog) {
  std::string line = "the HAR holds " + std::to_string(s.entries) + " HTTP exchange" + (s.entries == 1 ? "" : "s");
  if (s.incomplete > 0) line += " (" + std::to_string(s.incomplete) + " marked incomplete)";
  if (s.notHttp > 0) {
    line += "; " + std::to_string(s.notHttp) + (s.notHttp == 1 ? " conversation that is" : " conversations that are") +
            " not HTTP " + (s.notHttp == 1 ? "is" : "are") + " left out";
    if (s.unreadableTls > 0 && keyLog) {
      line += " (" + std::to_string(s.unreadableTls) + " of them TLS that the key log could not decrypt)";
    } else if (s.unreadableTls > 0) {
      line += " (" + std::to_string(s.unreadableTls) +
              " of them TLS whose plaintext was not recorded: a program with TLS built in; --keylog reads node's)";
    }
  }
  return line;
}

}  // namespace talvex
