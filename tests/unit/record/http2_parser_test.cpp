#include "http2_parser.h"

#include <gtest/gtest.h>
#include <nghttp2/nghttp2.h>

#include <string>
#include <vector>

namespace {

using talvex::HttpExchange;
using talvex::TimedStream;

const std::string kPreface = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";

std::string frame(uint8_t type, uint8_t flags, uint32_t stream, const std::string& payload) {
  std::string f;
  f += static_cast<char>((payload.size() >> 16) & 0xff);
  f += static_cast<char>((payload.size() >> 8) & 0xff);
  f += static_cast<char>(payload.size() & 0xff);
  f += static_cast<char>(type);
  f += static_cast<char>(flags);
  for (int shift = 24; shift >= 0; shift -= 8) f += static_cast<char>((stream >> shift) & 0xff);
  return f + payload;
}

// Header blocks made by nghttp2's own encoder, one per direction, as a peer makes them: later
// blocks refer to the dynamic table the earlier ones filled.
class Encoder {
 public:
  Encoder() { nghttp2_hd_deflate_new(&deflater_, 4096); }
  ~Encoder() { nghttp2_hd_deflate_del(deflater_); }
  std::string block(const std::vector<std::pair<std::string, std::string>>& headers) {
    std::vector<nghttp2_nv> nv;
    for (const auto& [name, value] : headers) {
      nv.push_back(nghttp2_nv{reinterpret_cast<uint8_t*>(const_cast<char*>(name.data())),
                              reinterpret_cast<uint8_t*>(const_cast<char*>(value.data())), name.size(), value.size(),
                              NGHTTP2_NV_FLAG_NONE});
    }
    std::string out(nghttp2_hd_deflate_bound(deflater_, nv.data(), nv.size()), '\0');
    const ssize_t n = nghttp2_hd_deflate_hd(deflater_, reinterpret_cast<uint8_t*>(&out[0]), out.size(), nv.data(), nv.size());
    out.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return out;
  }

 private:
  nghttp2_hd_deflater* deflater_ = nullptr;
};

const uint8_t kData = 0, kHeaders = 1, kRst = 3, kSettings = 4, kContinuation = 9;
const uint8_t kEndStream = 1, kEndHeaders = 4, kPadded = 8;

TEST(Http2Parser, EachStreamIsAnExchangeWithItsHeadersDecompressed) {
  Encoder client, server;
  const std::vector<std::pair<std::string, std::string>> common = {
      {":method", "GET"}, {":scheme", "https"}, {":authority", "example.test:8443"}, {"user-agent", "test/1"}};
  auto first = common, second = common;
  first.insert(first.begin() + 3, {":path", "/one"});
  second.insert(second.begin() + 3, {":path", "/two?q=1"});
  TimedStream up, down;
  up.append(kPreface + frame(kSettings, 0, 0, ""), 1);
  up.append(frame(kHeaders, kEndStream | kEndHeaders, 1, client.block(first)), 2);
  up.append(frame(kHeaders, kEndStream | kEndHeaders, 3, client.block(second)), 3);
  down.append(frame(kSettings, 0, 0, ""), 4);
  down.append(frame(kHeaders, kEndHeaders, 3, server.block({{":status", "404"}, {"x-order", "3"}})), 5);
  down.append(frame(kData, kEndStream, 3, "missing"), 6);
  // A padded first response: its padding is not body.
  const std::string padded = std::string(1, '\x04') + "body" + std::string(4, '\0');
  down.append(frame(kHeaders, kEndHeaders, 1, server.block({{":status", "200"}, {"content-type", "text/plain"}})), 7);
  down.append(frame(kData, kPadded | kEndStream, 1, padded), 8);
  // curl resets a stream it has read to the end: that cuts nothing short.
  up.append(frame(kRst, 0, 1, std::string("\0\0\0\x05", 4)), 9);
  const std::vector<HttpExchange> x = talvex::readHttp2(up, down);
  ASSERT_EQ(x.size(), 2u);
  EXPECT_EQ(x[0].stream, 1);
  EXPECT_EQ(x[0].request.method, "GET");
  EXPECT_EQ(x[0].request.scheme, "https");
  EXPECT_EQ(x[0].request.authority, "example.test:8443");
  EXPECT_EQ(x[0].request.target, "/one");
  ASSERT_EQ(x[0].request.headers.size(), 1u);
  EXPECT_EQ(x[0].request.headers[0].name, "user-agent");
  EXPECT_EQ(x[0].response.status, 200);
  EXPECT_EQ(x[0].response.body, "body");
  EXPECT_EQ(x[0].response.version, "HTTP/2.0");
  EXPECT_EQ(x[0].response.firstByteNs, 7);
  EXPECT_EQ(x[0].response.lastByteNs, 8);
  EXPECT_EQ(x[0].problem, "");
  EXPECT_EQ(x[1].stream, 3);
  EXPECT_EQ(x[1].request.target, "/two?q=1");
  EXPECT_EQ(x[1].request.headers[0].value, "test/1");  // from the encoder's dynamic table
  EXPECT_EQ(x[1].response.status, 404);
  EXPECT_EQ(x[1].response.headers[0].name, "x-order");
  EXPECT_EQ(x[1].response.body, "missing");
  EXPECT_EQ(x[1].problem, "");
}

TEST(Http2Parser, HeaderBlocksContinueAcrossFramesAndInterimResponsesAreStepped) {
  Encoder client, server;
  const std::string block =
      client.block({{":method", "POST"}, {":scheme", "http"}, {":authority", "h"}, {":path", "/up"}, {"x-long", std::string(300, 'v')}});
  TimedStream up, down;
  up.append(kPreface, 1);
  up.append(frame(kHeaders, 0, 1, block.substr(0, 10)), 2);
  up.append(frame(kContinuation, kEndHeaders, 1, block.substr(10)), 2);
  up.append(frame(kData, 0, 1, "part one, "), 3);
  up.append(frame(kData, kEndStream, 1, "part two"), 4);
  down.append(frame(kHeaders, kEndHeaders, 1, server.block({{":status", "100"}})), 3);
  down.append(frame(kHeaders, kEndHeaders | kEndStream, 1, server.block({{":status", "204"}})), 5);
  const std::vector<HttpExchange> x = talvex::readHttp2(up, down);
  ASSERT_EQ(x.size(), 1u);
  EXPECT_EQ(x[0].request.headers[0].value, std::string(300, 'v'));
  EXPECT_EQ(x[0].request.body, "part one, part two");
  EXPECT_EQ(x[0].request.bodySize, 18);
  EXPECT_EQ(x[0].request.lastByteNs, 4);
  EXPECT_EQ(x[0].response.status, 204);
  EXPECT_EQ(x[0].problem, "");
}

TEST(Http2Parser, StreamsCutShortAreMarked) {
  Encoder client, server;
  TimedStream up, down;
  up.append(kPreface, 1);
  up.append(frame(kHeaders, kEndStream | kEndHeaders, 1, client.block({{":method", "GET"}, {":path", "/a"}})), 2);
  up.append(frame(kHeaders, kEndStream | kEndHeaders, 3, client.block({{":method", "GET"}, {":path", "/b"}})), 2);
  up.append(frame(kHeaders, kEndStream | kEndHeaders, 5, client.block({{":method", "GET"}, {":path", "/c"}})), 2);
  down.append(frame(kHeaders, kEndHeaders, 1, server.block({{":status", "200"}})), 3);
  down.append(frame(kRst, 0, 1, std::string("\0\0\0\x08", 4)), 4);
  down.append(frame(kHeaders, kEndHeaders, 3, server.block({{":status", "200"}})), 5);
  down.append(frame(kData, 0, 3, "the recording ends in"), 6);
  down.append(frame(kData, 0, 3, "side this frame").substr(0, 12), 7);
  const std::vector<HttpExchange> x = talvex::readHttp2(up, down);
  ASSERT_EQ(x.size(), 3u);
  EXPECT_EQ(x[0].problem, "the stream was reset by the server (error code 8)");
  EXPECT_EQ(x[1].response.body, "the recording ends in");
  EXPECT_EQ(x[1].problem, "the recording ends inside a frame, the response's stream never ended");
  EXPECT_EQ(x[2].problem, "no response was recorded");
}

TEST(Http2Parser, GarbageInAHeaderBlockMarksItsStreamAndNothingCrashes) {
  TimedStream up, down;
  up.append(kPreface, 1);
  up.append(frame(kHeaders, kEndStream | kEndHeaders, 1, std::string("\xff\xff\xff\xff\xff\xff", 6)), 2);
  // Frames whose lengths promise more than there is, and padding longer than its frame.
  up.append(frame(kData, kPadded, 1, std::string("\xff", 1)), 3);
  down.append(std::string("\x00\x10\x00\x01\x04\x00\x00\x00\x01", 9), 4);
  const std::vector<HttpExchange> x = talvex::readHttp2(up, down);
  ASSERT_EQ(x.size(), 1u);
  EXPECT_EQ(x[0].problem, "a header block that could not be decompressed");
}

TEST(Http2Parser, ThePrefaceIsRecognised) {
  EXPECT_TRUE(talvex::beginsWithHttp2Preface(kPreface + "more"));
  EXPECT_FALSE(talvex::beginsWithHttp2Preface("PRI * HTTP/2.0\r\n"));
  EXPECT_FALSE(talvex::beginsWithHttp2Preface("GET / HTTP/1.1\r\n\r\n"));
}

}  // namespace
