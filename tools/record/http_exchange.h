// One HTTP exchange read back from a recorded conversation: a request, the response to it, and
// when their bytes went. HTTP/1.x and HTTP/2 are read into the same shape, so that the HAR and the
// HTML report draw them alike.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace talvex {

struct HttpHeader {
  std::string name, value;  // as they were sent: order and case kept
};

struct HttpMessagePart {
  std::string version;  // "HTTP/1.1", "HTTP/2.0"
  std::vector<HttpHeader> headers;
  std::string body;            // transfer coding undone (chunks joined), content coding kept
  int64_t headersSize = -1;    // bytes from the start line to the empty line; -1 where unknown (HTTP/2)
  int64_t bodySize = -1;       // bytes of the body as it was carried
  int64_t firstByteNs = 0, lastByteNs = 0;
  bool present = false;        // it was seen at all

  // The first header of that name, whatever its case; null when there is none.
  const HttpHeader* header(const char* name) const;
};

struct HttpRequest : HttpMessagePart {
  std::string method;
  std::string target;     // as in the request line: "/path?query", or an absolute URL
  std::string authority;  // the host as the program asked for it (Host, or HTTP/2's :authority)
  std::string scheme;     // HTTP/2's :scheme; empty for HTTP/1.x, where the connection says
};

struct HttpResponse : HttpMessagePart {
  int status = 0;
  std::string reason;
};

struct HttpExchange {
  HttpRequest request;
  HttpResponse response;
  int64_t stream = 0;   // the HTTP/2 stream; 0 for HTTP/1.x
  std::string problem;  // why the exchange is incomplete or malformed; empty when whole
};

enum class HttpKind { None, Http1, Http2 };

// What one conversation holds, read as HTTP.
struct HttpConversation {
  HttpKind kind = HttpKind::None;
  bool programIsServer = false;  // the requests came in: the program served them
  std::vector<HttpExchange> exchanges;
};

}  // namespace talvex
