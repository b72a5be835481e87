#include "http2_parser.h"

#include <nghttp2/nghttp2.h>

#include <map>
#include <memory>

namespace talvex {

namespace {

const char kPreface[] = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";
const size_t kPrefaceLength = sizeof kPreface - 1;
const size_t kFrameHead = 9;

enum FrameType : uint8_t { kData = 0, kHeaders = 1, kRstStream = 3, kSettings = 4, kPushPromise = 5, kContinuation = 9 };
enum FrameFlag : uint8_t { kEndStream = 0x1, kEndHeaders = 0x4, kPadded = 0x8, kPriority = 0x20 };
const uint16_t kHeaderTableSize = 0x1;

struct Frame {
  size_t offset = 0;  // where its head begins
  uint8_t type = 0, flags = 0;
  uint32_t stream = 0;
  std::string payload;
};

// The frames of one direction from `offset`; `cut` when the last one is not whole.
std::vector<Frame> framesOf(const std::string& s, size_t offset, bool* cut) {
  std::vector<Frame> frames;
  *cut = false;
  while (offset < s.size()) {
    if (s.size() - offset < kFrameHead) {
      *cut = true;
      break;
    }
    const unsigned char* h = reinterpret_cast<const unsigned char*>(s.data() + offset);
    const size_t length = (size_t{h[0]} << 16) | (size_t{h[1]} << 8) | h[2];
    if (s.size() - offset - kFrameHead < length) {
      *cut = true;
      break;
    }
    Frame f;
    f.offset = offset;
    f.type = h[3];
    f.flags = h[4];
    f.stream = ((uint32_t{h[5]} << 24) | (uint32_t{h[6]} << 16) | (uint32_t{h[7]} << 8) | h[8]) & 0x7fffffffu;
    f.payload.assign(s, offset + kFrameHead, length);
    frames.push_back(std::move(f));
    offset += kFrameHead + length;
  }
  return frames;
}

// The largest header table a side allowed its peer's encoder in its SETTINGS.
uint32_t largestHeaderTable(const std::vector<Frame>& frames) {
  uint32_t largest = 4096;
  for (const Frame& f : frames) {
    if (f.type != kSettings || f.stream != 0) continue;
    for (size_t i = 0; i + 6 <= f.payload.size(); i += 6) {
      const unsigned char* p = reinterpret_cast<const unsigned char*>(f.payload.data() + i);
      const uint16_t id = static_cast<uint16_t>((p[0] << 8) | p[1]);
      const uint32_t value = (uint32_t{p[2]} << 24) | (uint32_t{p[3]} << 16) | (uint32_t{p[4]} << 8) | p[5];
      if (id == kHeaderTableSize && value > largest) largest = value;
    }
  }
  return largest;
}

// The fragment of a HEADERS, PUSH_PROMISE or DATA payload, its padding and priority stripped.
bool fragmentOf(const Frame& f, std::string* fragment) {
  size_t begin = 0, end = f.payload.size();
  if ((f.type == kData || f.type == kHeaders || f.type == kPushPromise) && (f.flags & kPadded) != 0) {
    if (end < 1) return false;
    const size_t pad = static_cast<unsigned char>(f.payload[0]);
    begin = 1;
    if (pad > end - begin) return false;
    end -= pad;
  }
  if (f.type == kHeaders && (f.flags & kPriority) != 0) begin += 5;
  if (f.type == kPushPromise) begin += 4;
  if (begin > end) return false;
  fragment->assign(f.payload, begin, end - begin);
  return true;
}

struct InflaterDeleter {
  void operator()(nghttp2_hd_inflater* i) const { nghttp2_hd_inflate_del(i); }
};

// One direction's header decompression: its state runs through every header block in order.
class HeaderDecoder {
 public:
  explicit HeaderDecoder(uint32_t tableSize) {
    nghttp2_hd_inflater* i = nullptr;
    if (nghttp2_hd_inflate_new(&i) == 0) {
      inflater_.reset(i);
      nghttp2_hd_inflate_change_table_size(i, tableSize);
    }
  }
  // False once a block could not be read: the table no longer matches the encoder's, so no
  // later block can be read either.
  bool decode(const std::string& block, std::vector<HttpHeader>* headers) {
    if (!inflater_) return false;
    const uint8_t* in = reinterpret_cast<const uint8_t*>(block.data());
    size_t left = block.size();
    for (;;) {
      nghttp2_nv nv;
      int flags = 0;
      const ssize_t used = nghttp2_hd_inflate_hd2(inflater_.get(), &nv, &flags, in, left, 1);
      if (used < 0) {
        inflater_.reset();
        return false;
      }
      in += used;
      left -= static_cast<size_t>(used);
      if ((flags & NGHTTP2_HD_INFLATE_EMIT) != 0) {
        headers->push_back(HttpHeader{std::string(reinterpret_cast<const char*>(nv.name), nv.namelen),
                                      std::string(reinterpret_cast<const char*>(nv.value), nv.valuelen)});
      }
      if ((flags & NGHTTP2_HD_INFLATE_FINAL) != 0) {
        nghttp2_hd_inflate_end_headers(inflater_.get());
        return true;
      }
      if ((flags & NGHTTP2_HD_INFLATE_EMIT) == 0 && left == 0) return true;
    }
  }

 private:
  std::unique_ptr<nghttp2_hd_inflater, InflaterDeleter> inflater_;
};

struct StreamState {
  HttpExchange exchange;
  bool requestEnded = false, responseEnded = false;
  std::string reset;
};

void noteProblem(StreamState& s, const std::string& problem) {
  if (s.exchange.problem.empty()) s.exchange.problem = problem;
}

// Pseudo-headers go to the fields they name; the others are kept in order.
void takeRequestHeaders(HttpRequest& r, const std::vector<HttpHeader>& headers) {
  for (const HttpHeader& h : headers) {
    if (h.name == ":method") {
      r.method = h.value;
    } else if (h.name == ":path") {
      r.target = h.value;
    } else if (h.name == ":authority") {
      r.authority = h.value;
    } else if (h.name == ":scheme") {
      r.scheme = h.value;
    } else if (!h.name.empty() && h.name[0] != ':') {
      r.headers.push_back(h);
    }
  }
  if (r.authority.empty()) {
    if (const HttpHeader* host = r.header("host")) r.authority = host->value;
  }
}

int statusOf(const std::vector<HttpHeader>& headers) {
  for (const HttpHeader& h : headers) {
    if (h.name == ":status" && h.value.size() == 3 && h.value.find_first_not_of("0123456789") == std::string::npos) {
      return std::stoi(h.value);
    }
  }
  return 0;
}

// Reads one direction's frames into the streams. `fromClient` says whose they are.
void readDirection(const std::vector<Frame>& frames, const TimedStream& stream, bool fromClient, HeaderDecoder& decoder,
                   std::map<uint32_t, StreamState>& streams) {
  std::string block;
  uint32_t blockStream = 0;
  uint8_t blockType = 0;
  bool blockEndsStream = false, inBlock = false, unreadable = false;
  for (const Frame& f : frames) {
    const int64_t at = stream.timeAt(f.offset);
    if (f.type == kContinuation && inBlock && f.stream == blockStream) {
      block += f.payload;
    } else if (f.type == kHeaders || f.type == kPushPromise) {
      std::string fragment;
      if (!fragmentOf(f, &fragment)) continue;
      block = fragment;
      blockStream = f.stream;
      blockType = f.type;
      blockEndsStream = (f.flags & kEndStream) != 0;
      inBlock = true;
    } else {
      inBlock = false;
    }
    if (inBlock && (f.flags & kEndHeaders) != 0) {
      inBlock = false;
      std::vector<HttpHeader> headers;
      const bool decoded = !unreadable && decoder.decode(block, &headers);
      unreadable = !decoded;
      // A promised stream's headers keep the decoder in step; the stream is the server's own.
      if (blockType == kPushPromise || (blockStream % 2) == 0) continue;
      StreamState& s = streams[blockStream];
      s.exchange.stream = blockStream;
      HttpMessagePart& part = fromClient ? static_cast<HttpMessagePart&>(s.exchange.request) : s.exchange.response;
      if (!decoded) noteProblem(s, "a header block that could not be decompressed");
      if (fromClient && !s.exchange.request.present) {
        takeRequestHeaders(s.exchange.request, headers);
        part.present = true;
        part.firstByteNs = at;
      } else if (!fromClient && !s.exchange.response.present) {
        const int status = statusOf(headers);
        if (decoded && status >= 100 && status < 200) continue;  // interim
        s.exchange.response.status = status;
        for (const HttpHeader& h : headers) {
          if (!h.name.empty() && h.name[0] != ':') s.exchange.response.headers.push_back(h);
        }
        part.present = true;
        part.firstByteNs = at;
      }  // else: trailers, after the body
      part.version = "HTTP/2.0";
      part.lastByteNs = at;
      if (blockEndsStream) (fromClient ? s.requestEnded : s.responseEnded) = true;
      continue;
    }
    if (f.stream == 0 || (f.stream % 2) == 0) continue;
    if (f.type == kData) {
      std::string fragment;
      auto found = streams.find(f.stream);
      if (found == streams.end() || !fragmentOf(f, &fragment)) continue;
      StreamState& s = found->second;
      HttpMessagePart& part = fromClient ? static_cast<HttpMessagePart&>(s.exchange.request) : s.exchange.response;
      part.body += fragment;
      part.bodySize = static_cast<int64_t>(part.body.size());
      part.lastByteNs = at;
      if ((f.flags & kEndStream) != 0) (fromClient ? s.requestEnded : s.responseEnded) = true;
    } else if (f.type == kRstStream) {
      auto found = streams.find(f.stream);
      if (found == streams.end()) continue;
      uint32_t code = 0;
      for (size_t i = 0; i < 4 && i < f.payload.size(); ++i) code = (code << 8) | static_cast<unsigned char>(f.payload[i]);
      // Only a reset before both ends ended the stream cut it short; curl resets streams it has
      // read to the end.
      found->second.reset = std::string("the stream was reset by the ") + (fromClient ? "client" : "server") +
                            " (error code " + std::to_string(code) + ")";
    }
  }
}

}  // namespace

bool beginsWithHttp2Preface(const std::string& bytes) { return bytes.compare(0, kPrefaceLength, kPreface) == 0; }

std::vector<HttpExchange> readHttp2(const TimedStream& client, const TimedStream& server) {
  bool clientCut = false, serverCut = false;
  const std::vector<Frame> fromClient = framesOf(client.bytes(), kPrefaceLength, &clientCut);
  const std::vector<Frame> fromServer = framesOf(server.bytes(), 0, &serverCut);
  // Each side's encoder may use the table its peer allowed.
  HeaderDecoder clientHeaders(largestHeaderTable(fromServer));
  HeaderDecoder serverHeaders(largestHeaderTable(fromClient));
  std::map<uint32_t, StreamState> streams;
  readDirection(fromClient, client, true, clientHeaders, streams);
  readDirection(fromServer, server, false, serverHeaders, streams);
  std::vector<HttpExchange> exchanges;
  for (auto& [id, s] : streams) {
    HttpExchange& x = s.exchange;
    if (!x.request.present) continue;  // a stream of frames whose headers were not recorded
    x.request.headersSize = -1;
    x.response.headersSize = -1;
    if (x.request.bodySize < 0) x.request.bodySize = 0;
    if (x.response.present && x.response.bodySize < 0) x.response.bodySize = 0;
    if (!s.reset.empty() && !(s.requestEnded && s.responseEnded)) noteProblem(s, s.reset);
    if (!x.response.present) {
      noteProblem(s, "no response was recorded");
    } else if (!s.requestEnded) {
      noteProblem(s, "the request's stream never ended");
    } else if (!s.responseEnded) {
      noteProblem(s, (serverCut ? std::string("the recording ends inside a frame, ") : std::string()) +
                         "the response's stream never ended");
    }
    exchanges.push_back(std::move(x));
  }
  return exchanges;
}

}  // namespace talvex
