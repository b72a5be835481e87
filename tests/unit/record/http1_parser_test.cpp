#include "http1_parser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "http_conversations.h"
#include "recorded_conversation.h"

namespace {

using talvex::HttpExchange;
using talvex::TimedStream;

TimedStream streamOf(const std::vector<std::pair<std::string, int64_t>>& calls, bool ended = true) {
  TimedStream s;
  for (const auto& [data, at] : calls) s.append(data, at);
  if (ended) s.markEnded();
  return s;
}

TEST(Http1Parser, KeptAliveRequestsArePairedWithTheirResponsesInOrder) {
  const TimedStream requests = streamOf({{"GET /a HTTP/1.1\r\nHost: h\r\n\r\nGET /b?x=1 HTTP/1.1\r\nHost: h\r\n\r\n", 10},
                                         {"GET /c HTTP/1.1\r\nHost: h\r\n\r\n", 30}});
  const TimedStream responses = streamOf({{"HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\na", 20},
                                          {"HTTP/1.1 404 Not Found\r\nContent-Length: 1\r\n\r\nbHTTP/1.1 200 OK\r\nCont", 25},
                                          {"ent-Length: 1\r\n\r\nc", 40}});
  const std::vector<HttpExchange> x = talvex::readHttp1(requests, responses);
  ASSERT_EQ(x.size(), 3u);
  EXPECT_EQ(x[0].request.target, "/a");
  EXPECT_EQ(x[0].response.body, "a");
  EXPECT_EQ(x[1].request.target, "/b?x=1");
  EXPECT_EQ(x[1].response.status, 404);
  EXPECT_EQ(x[1].response.reason, "Not Found");
  EXPECT_EQ(x[1].response.body, "b");
  EXPECT_EQ(x[2].request.target, "/c");
  EXPECT_EQ(x[2].response.body, "c");
  // The pipelined second request went with the first call; the third response spans two calls.
  EXPECT_EQ(x[1].request.firstByteNs, 10);
  EXPECT_EQ(x[2].request.firstByteNs, 30);
  EXPECT_EQ(x[2].response.firstByteNs, 25);
  EXPECT_EQ(x[2].response.lastByteNs, 40);
  for (const HttpExchange& e : x) EXPECT_EQ(e.problem, "");
}

TEST(Http1Parser, HeadersKeepTheirOrderAndCaseAndSizes) {
  const std::string head = "POST /up HTTP/1.1\r\nHost: example.test:81\r\nX-Mixed-Case: 1\r\ncontent-length: 4\r\n\r\n";
  const TimedStream requests = streamOf({{head + "body", 1}});
  const TimedStream responses = streamOf({{"HTTP/1.1 201 Created\r\nContent-Length: 0\r\n\r\n", 2}});
  const std::vector<HttpExchange> x = talvex::readHttp1(requests, responses);
  ASSERT_EQ(x.size(), 1u);
  const talvex::HttpRequest& r = x[0].request;
  EXPECT_EQ(r.method, "POST");
  EXPECT_EQ(r.version, "HTTP/1.1");
  EXPECT_EQ(r.authority, "example.test:81");
  ASSERT_EQ(r.headers.size(), 3u);
  EXPECT_EQ(r.headers[1].name, "X-Mixed-Case");
  EXPECT_EQ(r.headers[2].name, "content-length");
  EXPECT_EQ(r.body, "body");
  EXPECT_EQ(r.headersSize, static_cast<int64_t>(head.size()));
  EXPECT_EQ(r.bodySize, 4);
  EXPECT_EQ(x[0].response.body, "");
  EXPECT_EQ(x[0].problem, "");
}

TEST(Http1Parser, ChunkedBodiesAreJoinedAndTheirTrailersStepped) {
  const TimedStream requests = streamOf({{"GET / HTTP/1.1\r\n\r\nGET /next HTTP/1.1\r\n\r\n", 1}});
  const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\n\r\n"
                              "5;ext=1\r\nhello\r\n7\r\n, world\r\n0\r\nTrailer: x\r\n\r\n";
  const TimedStream responses = streamOf({{chunked + "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok", 2}});
  const std::vector<HttpExchange> x = talvex::readHttp1(requests, responses);
  ASSERT_EQ(x.size(), 2u);
  EXPECT_EQ(x[0].response.body, "hello, world");
  EXPECT_EQ(x[0].response.bodySize, 45);  // the chunks' framing and the trailer included
  EXPECT_EQ(x[0].problem, "");
  EXPECT_EQ(x[1].response.body, "ok");
}

TEST(Http1Parser, InterimResponsesAreSteppedOver) {
  const TimedStream requests =
      streamOf({{"POST /upload HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 3\r\n\r\n", 1}, {"abc", 3}});
  const TimedStream responses = streamOf(
      {{"HTTP/1.1 100 Continue\r\n\r\n", 2}, {"HTTP/1.1 201 Created\r\nContent-Length: 2\r\n\r\nok", 4}});
  const std::vector<HttpExchange> x = talvex::readHttp1(requests, responses);
  ASSERT_EQ(x.size(), 1u);
  EXPECT_EQ(x[0].request.body, "abc");
  EXPECT_EQ(x[0].request.lastByteNs, 3);
  EXPECT_EQ(x[0].response.status, 201);
  EXPECT_EQ(x[0].response.firstByteNs, 4);
  EXPECT_EQ(x[0].response.body, "ok");
  EXPECT_EQ(x[0].problem, "");
}

TEST(Http1Parser, HeadAndBodilessStatusesHaveNoBodyWhateverTheirLength) {
  const TimedStream requests = streamOf({{"HEAD /x HTTP/1.1\r\n\r\nGET /y HTTP/1.1\r\n\r\nGET /z HTTP/1.1\r\n\r\n", 1}});
  const TimedStream responses = streamOf({{"HTTP/1.1 200 OK\r\nContent-Length: 99\r\n\r\n"
                                           "HTTP/1.1 204 No Content\r\n\r\n"
                                           "HTTP/1.1 304 Not Modified\r\nContent-Length: 5\r\n\r\n",
                                           2}});
  const std::vector<HttpExchange> x = talvex::readHttp1(requests, responses);
  ASSERT_EQ(x.size(), 3u);
  EXPECT_EQ(x[0].response.status, 200);
  EXPECT_EQ(x[1].response.status, 204);
  EXPECT_EQ(x[2].response.status, 304);
  for (const HttpExchange& e : x) {
    EXPECT_EQ(e.response.body, "");
    EXPECT_EQ(e.problem, "");
  }
}

TEST(Http1Parser, ABodyEndedByTheConnectionIsWholeOnlyWhenTheEndWasSeen) {
  const TimedStream requests = streamOf({{"GET / HTTP/1.0\r\n\r\n", 1}});
  const std::string response = "HTTP/1.0 200 OK\r\n\r\nall of it";
  std::vector<HttpExchange> x = talvex::readHttp1(requests, streamOf({{response, 2}}, true));
  ASSERT_EQ(x.size(), 1u);
  EXPECT_EQ(x[0].response.body, "all of it");
  EXPECT_EQ(x[0].problem, "");
  x = talvex::readHttp1(requests, streamOf({{response, 2}}, false));
  ASSERT_EQ(x.size(), 1u);
  EXPECT_EQ(x[0].problem, "the response ends with the connection, and the recording ends before it");
}

TEST(Http1Parser, MalformedMessagesAreMarkedNeverDropped) {
  const TimedStream requests = streamOf({{"GET /a HTTP/1.1\r\n\r\n", 1}});
  struct Case {
    std::string response, problem, body;
  } cases[] = {
      {"HTTP/1.1 200 OK\r\nContent-Ty", "the response's headers are cut off", ""},
      {"HTTP/1.1 200 OK\r\nno colon here\r\nContent-Length: 2\r\n\r\nok", "a header line without a colon: no colon here", "ok"},
      {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nonly ten b", "the body is shorter than its Content-Length: 10 of 100 bytes", "only ten b"},
      {"HTTP/1.1 200 OK\r\nContent-Length: lots\r\n\r\n", "a Content-Length that is not a number", ""},
      {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n10\r\nabc", "the chunked body ends inside a chunk", "abc"},
      {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n", "a chunk size that is not a number: zz", ""},
      {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nffffffffffffffffff\r\n", "a chunk size that is not a number: ffffffffffffffffff", ""},
      {"HTTP/1.1 20", "the status line is cut off", ""},
      {"", "no response was recorded", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.response);
    const std::vector<HttpExchange> x = talvex::readHttp1(requests, streamOf({{c.response, 2}}));
    ASSERT_EQ(x.size(), 1u);
    EXPECT_EQ(x[0].problem, c.problem);
    EXPECT_EQ(x[0].response.body, c.body);
  }
}

TEST(Http1Parser, ARequestLineCutOffIsOneIncompleteExchange) {
  // Found by the fuzz target: a request line without its end was read again and again.
  const std::vector<HttpExchange> x = talvex::readHttp1(streamOf({{"GET /still-arriv", 1}}), streamOf({}));
  ASSERT_EQ(x.size(), 1u);
  EXPECT_EQ(x[0].request.method, "");
  EXPECT_EQ(x[0].problem, "the request line is cut off");
}

TEST(Http1Parser, ASwitchOfProtocolsEndsTheHttp) {
  const TimedStream requests = streamOf({{"GET /ws HTTP/1.1\r\nUpgrade: websocket\r\n\r\n\x81\x05hello", 1}});
  const TimedStream responses = streamOf({{"HTTP/1.1 101 Switching Protocols\r\n\r\n\x81\x02hi", 2}});
  const std::vector<HttpExchange> x = talvex::readHttp1(requests, responses);
  ASSERT_EQ(x.size(), 1u);
  EXPECT_EQ(x[0].response.status, 101);
  EXPECT_EQ(x[0].response.body, "");
  EXPECT_EQ(x[0].problem, "");
}

TEST(Http1Parser, RequestLinesAreToldFromOtherText) {
  EXPECT_TRUE(talvex::beginsWithHttp1Request("GET / HTTP/1.1\r\n"));
  EXPECT_TRUE(talvex::beginsWithHttp1Request("M-SEARCH * HTTP/1.1\r\n"));
  EXPECT_TRUE(talvex::beginsWithHttp1Request("GET /still-arriv"));
  EXPECT_FALSE(talvex::beginsWithHttp1Request("get / HTTP/1.1\r\n"));
  EXPECT_FALSE(talvex::beginsWithHttp1Request("HELLO world\r\n"));
  EXPECT_FALSE(talvex::beginsWithHttp1Request("PRI * HTTP/2.0\r\n"));
  EXPECT_FALSE(talvex::beginsWithHttp1Request(std::string("\x16\x03\x01\x02\x00", 5)));
  EXPECT_FALSE(talvex::beginsWithHttp1Request(""));
  EXPECT_TRUE(talvex::beginsWithHttp1Response("HTTP/1.1 200 OK\r\n"));
  EXPECT_FALSE(talvex::beginsWithHttp1Response("HTTP/2 200\r\n"));
}

TEST(HttpConversations, TheSideThatSentTheRequestIsTheClient) {
  talvex::Conversation served = talvex_test::clientConversation();
  served.opening = "accept";
  talvex_test::addData(served, "receive", "GET / HTTP/1.1\r\nHost: me\r\n\r\n", 1);
  talvex_test::addData(served, "send", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", 2);
  const talvex::HttpConversation http = talvex::readHttp(served);
  EXPECT_EQ(http.kind, talvex::HttpKind::Http1);
  EXPECT_TRUE(http.programIsServer);
  ASSERT_EQ(http.exchanges.size(), 1u);
  EXPECT_EQ(http.exchanges[0].response.status, 200);

  talvex::Conversation other = talvex_test::clientConversation();
  talvex_test::addData(other, "send", "SSH-2.0-OpenSSH_9.2\r\n", 1);
  EXPECT_EQ(talvex::readHttp(other).kind, talvex::HttpKind::None);

  talvex::Conversation encrypted = talvex_test::clientConversation();
  encrypted.encrypted = true;
  talvex_test::addData(encrypted, "send", "GET / HTTP/1.1\r\n\r\n", 1);
  EXPECT_EQ(talvex::readHttp(encrypted).kind, talvex::HttpKind::None);
}

}  // namespace
