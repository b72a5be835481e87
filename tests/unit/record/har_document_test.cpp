#include "har_document.h"

#include <gtest/gtest.h>

#include <string>

#include "recorded_conversation.h"

namespace {

using talvex_test::addData;
using talvex_test::clientConversation;
using talvex_test::closeAt;

const int64_t kSecond = 1000000000;
// 2026-11-24T10:00:00Z.
const int64_t kStart = 1795514400 * kSecond;

talvex::Recording recordingOf(std::vector<talvex::Conversation> conversations) {
  talvex::Recording r;
  r.processes.push_back(talvex::ProcessHeader{42, "/tmp", "curl -s http://example.test:8080/"});
  r.conversations = std::move(conversations);
  return r;
}

TEST(HarDocument, AnExchangeIsAnEntryOfEveryFieldHarNames) {
  talvex::Conversation c = clientConversation(8080, kStart);
  addData(c, "send",
          std::string("POST /form?q=a%20b&empty HTTP/1.1\r\nHost: example.test:8080\r\nCookie: a=1; b=2\r\n"
          "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: 11\r\n\r\nname=x%2By"),
          kStart + 3000000);
  addData(c, "send", "z", kStart + 4000000);
  addData(c, "receive",
          std::string("HTTP/1.1 302 Found\r\nLocation: /next\r\nSet-Cookie: s=v; Path=/; Expires=Wed, 25 Nov 2026 10:00:00 GMT; "
          "HttpOnly; Secure\r\nContent-Length: 4\r\n\r\n") + std::string("\xff\xfe\x00\x01", 4),
          kStart + 10500000);
  closeAt(c, kStart + 11000000);
  talvex::HarSummary summary;
  const std::string har = talvex::harDocument(recordingOf({c}), "9.9", &summary);
  const std::string expected =
      R"({"log":{"version":"1.2","creator":{"name":"talvex-record","version":"9.9"},"entries":[)"
      "\n"
      R"({"startedDateTime":"2026-11-24T10:00:00.003Z","time":9.500,"request":{"method":"POST","url":"http://example.test:8080/form?q=a%20b&empty","httpVersion":"HTTP/1.1",)"
      R"("cookies":[{"name":"a","value":"1"},{"name":"b","value":"2"}],"headers":[{"name":"Host","value":"example.test:8080"},{"name":"Cookie","value":"a=1; b=2"},)"
      R"({"name":"Content-Type","value":"application/x-www-form-urlencoded"},{"name":"Content-Length","value":"11"}],)"
      R"("queryString":[{"name":"q","value":"a b"},{"name":"empty","value":""}],)"
      R"("postData":{"mimeType":"application/x-www-form-urlencoded","params":[{"name":"name","value":"x+yz"}],"text":"name=x%2Byz"},"headersSize":149,"bodySize":11},)"
      R"("response":{"status":302,"statusText":"Found","httpVersion":"HTTP/1.1","cookies":[{"name":"s","value":"v","path":"/","expires":"2026-11-25T10:00:00.000Z","httpOnly":true,"secure":true}],)"
      R"("headers":[{"name":"Location","value":"/next"},{"name":"Set-Cookie","value":"s=v; Path=/; Expires=Wed, 25 Nov 2026 10:00:00 GMT; HttpOnly; Secure"},{"name":"Content-Length","value":"4"}],)"
      R"("content":{"size":4,"mimeType":"x-unknown","text":"//4AAQ==","encoding":"base64"},"redirectURL":"/next","headersSize":140,"bodySize":4},)"
      R"("cache":{},"timings":{"blocked":-1,"dns":-1,"connect":2.000,"send":1.000,"wait":6.500,"receive":0.000,"ssl":-1},)"
      R"("serverIPAddress":"127.0.0.1","connection":"1","_talvex":{"pid":42,"process":"curl -s http://example.test:8080/","socket":5,"connection":1,"side":"client"}})"
      "\n]}}\n";
  EXPECT_EQ(har, expected);
  EXPECT_EQ(summary.entries, 1u);
  EXPECT_EQ(summary.incomplete, 0u);
  EXPECT_EQ(talvex::harSummaryLine(summary, false), "the HAR holds 1 HTTP exchange");
}

TEST(HarDocument, EntriesFollowTheOrderTheRequestsWereSentAcrossConnections) {
  talvex::Conversation a = clientConversation(8080, kStart);
  talvex::Conversation b = clientConversation(8081, kStart);
  b.socket = 6;
  addData(a, "send", "GET /a1 HTTP/1.1\r\nHost: h\r\n\r\n", kStart + 1);
  addData(b, "send", "GET /b1 HTTP/1.1\r\nHost: h\r\n\r\n", kStart + 2);
  addData(a, "receive", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", kStart + 3);
  addData(a, "send", "GET /a2 HTTP/1.1\r\nHost: h\r\n\r\n", kStart + 4);
  addData(b, "receive", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", kStart + 5);
  addData(b, "send", "GET /b2 HTTP/1.1\r\nHost: h\r\n\r\n", kStart + 6);
  talvex::Conversation echo = clientConversation(7, kStart);
  addData(echo, "send", std::string("\x00\x01", 2), kStart + 7);
  talvex::Conversation encrypted = clientConversation(443, kStart);
  encrypted.encrypted = true;
  addData(encrypted, "send", "\x16\x03\x01", kStart + 8);
  talvex::Conversation silent = clientConversation(9, kStart);
  talvex::HarSummary summary;
  const std::string har = talvex::harDocument(recordingOf({a, b, echo, encrypted, silent}), "1", &summary);
  const size_t a1 = har.find("/a1"), b1 = har.find("/b1"), a2 = har.find("/a2"), b2 = har.find("/b2");
  ASSERT_NE(b2, std::string::npos);
  EXPECT_LT(a1, b1);
  EXPECT_LT(b1, a2);
  EXPECT_LT(a2, b2);
  EXPECT_EQ(summary.entries, 4u);
  EXPECT_EQ(summary.incomplete, 2u);  // a2 and b2 have no response
  EXPECT_NE(har.find(R"("_talvex":{"pid":42,"process":"curl -s http://example.test:8080/","socket":6,"connection":2,"side":"client","incomplete":"no response was recorded"})"),
            std::string::npos);
  EXPECT_EQ(summary.notHttp, 2u);
  EXPECT_EQ(summary.unreadableTls, 1u);
  EXPECT_EQ(talvex::harSummaryLine(summary, false),
            "the HAR holds 4 HTTP exchanges (2 marked incomplete); 2 conversations that are not HTTP are left out (1 of "
            "them TLS whose plaintext was not recorded: a program with TLS built in; --keylog reads node's)");
  EXPECT_EQ(talvex::harSummaryLine(summary, true),
            "the HAR holds 4 HTTP exchanges (2 marked incomplete); 2 conversations that are not HTTP are left out (1 of "
            "them TLS that the key log could not decrypt)");
}

TEST(HarDocument, BodiesAreDecodedAndServedExchangesSaySo) {
  talvex::Conversation c = clientConversation(8080, kStart);
  c.opening = "accept";
  c.tls = "OpenSSL";
  // The program served this request: it came in on an accepted socket, without Host.
  addData(c, "receive", "GET /x HTTP/1.0\r\n\r\n", kStart + 1000000);
  addData(c, "send", "HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\nContent-Encoding: gzip\r\n\r\nnot gzip", kStart + 2000000);
  closeAt(c, kStart + 3000000);
  talvex::HarSummary summary;
  const std::string har = talvex::harDocument(recordingOf({c}), "1", &summary);
  EXPECT_NE(har.find(R"("url":"https://127.0.0.1:40000/x")"), std::string::npos) << har;
  EXPECT_NE(har.find(R"("content":{"size":8,"mimeType":"text/plain","text":"not gzip","comment":"the body as it came; its Content-Encoding could not be undone: the body is not what its Content-Encoding says"})"),
            std::string::npos)
      << har;
  EXPECT_NE(har.find(R"("timings":{"blocked":-1,"dns":-1,"connect":-1,)"), std::string::npos);
  EXPECT_NE(har.find(R"("serverIPAddress":"127.0.0.1","connection":"1","_talvex":{"pid":42,"process":"curl -s http://example.test:8080/","socket":5,"connection":1,"side":"server","tls":"OpenSSL"})"),
            std::string::npos)
      << har;
}

TEST(HarDocument, HeaderBytesThatAreNotUtf8AreReadAsLatin1) {
  talvex::Conversation c = clientConversation(8080, kStart);
  addData(c, "send", "GET / HTTP/1.1\r\nX-Name: caf\xe9\r\n\r\n", kStart);
  talvex::HarSummary summary;
  const std::string har = talvex::harDocument(recordingOf({c}), "1", &summary);
  EXPECT_NE(har.find("{\"name\":\"X-Name\",\"value\":\"caf\xc3\xa9\"}"), std::string::npos);
}

TEST(HarDocument, TimesFromAPeersGarbageAreReadWithoutOverflow) {
  // Found by the fuzz target: times at the ends of the range overflowed their difference.
  talvex::Conversation c = clientConversation(8080, INT64_MIN + 1);
  addData(c, "send", "GET / HTTP/1.1\r\nHost: h\r\n\r\n", -7427829050294462920LL);
  addData(c, "receive", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", INT64_MAX);
  talvex::HarSummary summary;
  const std::string har = talvex::harDocument(recordingOf({c}), "1", &summary);
  EXPECT_NE(har.find(R"("startedDateTime":"1970-01-01T00:00:00.000Z")"), std::string::npos) << har;
  EXPECT_NE(har.find(R"("wait":16651201087149.238,)"), std::string::npos) << har;
}

TEST(HarDocument, ARecordingWithoutHttpIsAnEmptyLog) {
  talvex::HarSummary summary;
  EXPECT_EQ(talvex::harDocument(recordingOf({}), "1", &summary),
            "{\"log\":{\"version\":\"1.2\",\"creator\":{\"name\":\"talvex-record\",\"version\":\"1\"},\"entries\":[\n]}}\n");
  EXPECT_EQ(talvex::harSummaryLine(summary, false), "the HAR holds 0 HTTP exchanges");
}

}  // namespace
