#include "http1_parser.h"

#include <ctype.h>
#include <stdlib.h>
#include <strings.h>

#include <algorithm>

namespace talvex {

namespace {

// A request line's method is a token; real ones are upper case letters, with a dash at most
// ("M-SEARCH"), and the longest in use are well under this.
const size_t kLongestMethod = 24;

bool isMethodChar(char c) { return (c >= 'A' && c <= 'Z') || c == '-' || c == '_'; }

// The line that begins at `pos`, without its line end; `next` is where the one after begins.
// False when the stream ends before the line does.
bool lineAt(const std::string& s, size_t pos, std::string* line, size_t* next) {
  const size_t lf = s.find('\n', pos);
  if (lf == std::string::npos) return false;
  size_t end = lf;
  if (end > pos && s[end - 1] == '\r') --end;
  line->assign(s, pos, end - pos);
  *next = lf + 1;
  return true;
}

std::string trimmed(const std::string& text) {
  size_t b = 0, e = text.size();
  while (b < e && (text[b] == ' ' || text[b] == '\t')) ++b;
  while (e > b && (text[e - 1] == ' ' || text[e - 1] == '\t')) --e;
  return text.substr(b, e - b);
}

bool isHttpVersion(const std::string& v) {
  return v.size() == 8 && v.compare(0, 5, "HTTP/") == 0 && isdigit(static_cast<unsigned char>(v[5])) && v[6] == '.' &&
         isdigit(static_cast<unsigned char>(v[7]));
}

// The header lines up to the empty one. False when the stream ends first. A line without a colon
// is kept out and noted, as is a folded continuation line (obsolete in HTTP/1.1), which is joined.
bool readHeaders(const std::string& s, size_t* pos, std::vector<HttpHeader>* headers, std::string* problem) {
  std::string line;
  size_t next = 0;
  while (lineAt(s, *pos, &line, &next)) {
    *pos = next;
    if (line.empty()) return true;
    if ((line[0] == ' ' || line[0] == '\t') && !headers->empty()) {
      headers->back().value += " " + trimmed(line);
      continue;
    }
    const size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0) {
      if (problem->empty()) *problem = "a header line without a colon: " + line.substr(0, 80);
      continue;
    }
    headers->push_back(HttpHeader{line.substr(0, colon), trimmed(line.substr(colon + 1))});
  }
  return false;
}

bool hasChunkedCoding(const HttpMessagePart& m) {
  for (const HttpHeader& h : m.headers) {
    if (strcasecmp(h.name.c_str(), "Transfer-Encoding") != 0) continue;
    // The last coding applied is the one that frames the body.
    std::string v = h.value;
    std::transform(v.begin(), v.end(), v.begin(), [](char c) { return static_cast<char>(tolower(c)); });
    const size_t comma = v.rfind(',');
    if (trimmed(comma == std::string::npos ? v : v.substr(comma + 1)) == "chunked") return true;
  }
  return false;
}

// The body's length from Content-Length: -1 when there is none, -2 when it is not a number.
int64_t contentLength(const HttpMessagePart& m) {
  const HttpHeader* h = m.header("Content-Length");
  if (h == nullptr) return -1;
  const std::string v = trimmed(h->value);
  if (v.empty() || v.size() > 18 || v.find_first_not_of("0123456789") != std::string::npos) return -2;
  return strtoll(v.c_str(), nullptr, 10);
}

// A chunked body from `pos`: the chunks joined into `body`. False, with a problem, when it
// stops before its last chunk.
bool readChunked(const std::string& s, size_t* pos, std::string* body, std::string* problem) {
  std::string line;
  size_t next = 0;
  for (;;) {
    if (!lineAt(s, *pos, &line, &next)) {
      *problem = "the chunked body ends before its last chunk";
      return false;
    }
    const std::string hex = trimmed(line.substr(0, line.find(';')));
    if (hex.empty() || hex.size() > 15 || hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
      *problem = "a chunk size that is not a number: " + line.substr(0, 40);
      return false;
    }
    const uint64_t size = strtoull(hex.c_str(), nullptr, 16);
    *pos = next;
    if (size == 0) {
      // Trailers, then the empty line.
      while (lineAt(s, *pos, &line, &next)) {
        *pos = next;
        if (line.empty()) return true;
      }
      *problem = "the chunked body ends in its trailer";
      return false;
    }
    if (size > s.size() - *pos) {
      body->append(s, *pos, std::string::npos);
      *pos = s.size();
      *problem = "the chunked body ends inside a chunk";
      return false;
    }
    body->append(s, *pos, static_cast<size_t>(size));
    *pos += static_cast<size_t>(size);
    if (s.compare(*pos, 2, "\r\n") == 0) {
      *pos += 2;
    } else if (s.compare(*pos, 1, "\n") == 0) {
      *pos += 1;
    } else if (*pos >= s.size()) {
      *problem = "the chunked body ends before its last chunk";
      return false;
    } else {
      *problem = "a chunk not followed by a line end";
      return false;
    }
  }
}

// A body of `length` bytes, or what there is of it.
bool readSized(const std::string& s, size_t* pos, int64_t length, std::string* body, std::string* problem) {
  const size_t left = s.size() - *pos;
  const size_t take = static_cast<uint64_t>(length) > left ? left : static_cast<size_t>(length);
  body->assign(s, *pos, take);
  *pos += take;
  if (take < static_cast<uint64_t>(length)) {
    *problem = "the body is shorter than its Content-Length: " + std::to_string(take) + " of " +
               std::to_string(length) + " bytes";
    return false;
  }
  return true;
}

void timeOf(HttpMessagePart* m, const TimedStream& stream, size_t begin, size_t end) {
  m->firstByteNs = stream.timeAt(begin);
  m->lastByteNs = stream.timeAt(end > begin ? end - 1 : begin);
}

// One request from `pos`. False when there is none there (the stream ended, or what follows is
// not a request).
bool readRequest(const TimedStream& stream, size_t* pos, HttpExchange* x) {
  const std::string& s = stream.bytes();
  const size_t begin = *pos;
  std::string line;
  size_t next = 0;
  if (begin >= s.size() || !beginsWithHttp1Request(s.substr(begin, 8 * 1024))) return false;
  HttpRequest& r = x->request;
  r.present = true;
  if (!lineAt(s, begin, &line, &next)) {
    x->problem = "the request line is cut off";
    timeOf(&r, stream, begin, s.size());
    *pos = s.size();
    return true;
  }
  const size_t first = line.find(' '), last = line.rfind(' ');
  r.method = line.substr(0, first);
  r.target = line.substr(first + 1, last - first - 1);
  r.version = line.substr(last + 1);
  *pos = next;
  if (!readHeaders(s, pos, &r.headers, &x->problem)) {
    x->problem = "the request's headers are cut off";
    r.headersSize = static_cast<int64_t>(s.size() - begin);
    timeOf(&r, stream, begin, s.size());
    *pos = s.size();
    return true;
  }
  r.headersSize = static_cast<int64_t>(*pos - begin);
  if (const HttpHeader* host = r.header("Host")) r.authority = host->value;
  const size_t bodyBegin = *pos;
  std::string problem;
  if (hasChunkedCoding(r)) {
    readChunked(s, pos, &r.body, &problem);
  } else {
    const int64_t length = contentLength(r);
    if (length == -2) {
      problem = "a Content-Length that is not a number";
    } else if (length > 0) {
      readSized(s, pos, length, &r.body, &problem);
    }
  }
  if (x->problem.empty()) x->problem = problem;
  r.bodySize = static_cast<int64_t>(*pos - bodyBegin);
  timeOf(&r, stream, begin, *pos);
  return true;
}

bool isInterim(int status) { return status >= 100 && status < 200 && status != 101; }

// The response to `x`'s request from `pos`, interim ones stepped over. False when there is none.
bool readResponse(const TimedStream& stream, size_t* pos, HttpExchange* x) {
  const std::string& s = stream.bytes();
  HttpResponse& r = x->response;
  for (;;) {
    const size_t begin = *pos;
    if (begin >= s.size() || !beginsWithHttp1Response(s.substr(begin, 16))) return false;
    r = HttpResponse();
    r.present = true;
    std::string line;
    size_t next = 0;
    if (!lineAt(s, begin, &line, &next)) {
      if (x->problem.empty()) x->problem = "the status line is cut off";
      timeOf(&r, stream, begin, s.size());
      *pos = s.size();
      return true;
    }
    const size_t first = line.find(' ');
    r.version = line.substr(0, first);
    const size_t second = line.find(' ', first + 1);
    const std::string code = line.substr(first + 1, second == std::string::npos ? std::string::npos : second - first - 1);
    r.status = code.size() == 3 && code.find_first_not_of("0123456789") == std::string::npos ? atoi(code.c_str()) : 0;
    r.reason = second == std::string::npos ? "" : line.substr(second + 1);
    *pos = next;
    std::string problem;
    if (!readHeaders(s, pos, &r.headers, &problem)) {
      if (x->problem.empty()) x->problem = "the response's headers are cut off";
      r.headersSize = static_cast<int64_t>(s.size() - begin);
      timeOf(&r, stream, begin, s.size());
      *pos = s.size();
      return true;
    }
    if (x->problem.empty()) x->problem = problem;
    if (r.status == 0 && x->problem.empty()) x->problem = "a status line without a status code: " + line.substr(0, 80);
    r.headersSize = static_cast<int64_t>(*pos - begin);
    if (isInterim(r.status)) continue;
    const size_t bodyBegin = *pos;
    const bool bodiless = x->request.method == "HEAD" || r.status == 204 || r.status == 304 || r.status == 101 ||
                          (x->request.method == "CONNECT" && r.status / 100 == 2);
    problem.clear();
    if (bodiless) {
    } else if (hasChunkedCoding(r)) {
      readChunked(s, pos, &r.body, &problem);
    } else {
      const int64_t length = contentLength(r);
      if (length == -2) {
        problem = "a Content-Length that is not a number";
      } else if (length >= 0) {
        readSized(s, pos, length, &r.body, &problem);
      } else {
        // Delimited by the end of the connection.
        r.body.assign(s, *pos, std::string::npos);
        *pos = s.size();
        if (!stream.ended()) problem = "the response ends with the connection, and the recording ends before it";
      }
    }
    if (x->problem.empty()) x->problem = problem;
    r.bodySize = static_cast<int64_t>(*pos - bodyBegin);
    timeOf(&r, stream, begin, *pos);
    return true;
  }
}

}  // namespace

bool beginsWithHttp1Request(const std::string& bytes) {
  size_t i = 0;
  while (i < bytes.size() && i <= kLongestMethod && isMethodChar(bytes[i])) ++i;
  if (i == 0 || i > kLongestMethod || i >= bytes.size() || bytes[i] != ' ') return false;
  const size_t lf = bytes.find('\n', i);
  // A request line that is still arriving: judged by what came.
  const std::string line = bytes.substr(0, lf == std::string::npos ? bytes.size() : lf);
  const size_t last = line.rfind(' ');
  if (last == i) return lf == std::string::npos;
  std::string version = line.substr(last + 1);
  if (!version.empty() && version.back() == '\r') version.pop_back();
  return isHttpVersion(version) && version.compare(0, 7, "HTTP/1.") == 0;
}

bool beginsWithHttp1Response(const std::string& bytes) {
  return bytes.compare(0, 7, "HTTP/1.") == 0 && bytes.size() >= 9 && isdigit(static_cast<unsigned char>(bytes[7])) &&
         bytes[8] == ' ';
}

std::vector<HttpExchange> readHttp1(const TimedStream& requests, const TimedStream& responses) {
  std::vector<HttpExchange> exchanges;
  size_t in = 0, out = 0;
  for (;;) {
    HttpExchange x;
    const size_t before = in;
    if (!readRequest(requests, &in, &x)) break;
    // Every request read takes bytes: a stream read again from the same place would never end.
    if (in == before) break;
    const bool answered = readResponse(responses, &out, &x);
    if (!answered && x.problem.empty()) x.problem = "no response was recorded";
    const bool tunnel = x.response.status == 101 || (x.request.method == "CONNECT" && x.response.status / 100 == 2);
    exchanges.push_back(std::move(x));
    // After a switch of protocols what follows is not HTTP/1 (a WebSocket, a tunnel).
    if (tunnel) break;
  }
  return exchanges;
}

}  // namespace talvex
