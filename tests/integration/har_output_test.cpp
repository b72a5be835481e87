// talvex-record --har: real clients (curl, Python, over HTTP/1.1 and HTTP/2) against the suite's
// own servers. Each HAR is checked against what the servers received, validated against the HAR
// 1.2 schema, and turned back into requests by a real importer (httpsnippet), whose requests the
// servers then receive with the recorded bodies.
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "http_servers.h"
#include "message_json.h"
#include "process_runner.h"
#include "record_command.h"
#include "test_paths.h"

namespace talvex_test {
namespace {

const std::string kText = "hello from /text\n";

std::string longText() {
  std::string t;
  for (int i = 0; i < 2000; ++i) t += "line " + std::to_string(i) + " of a text that compresses well\n";
  return t;
}

std::string closeText() {
  std::string t;
  for (int i = 0; i < 100; ++i) t += "until the end of the connection\n";
  return t;
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (size_t end; (end = text.find(separator, start)) != std::string::npos; start = end + 1) {
    parts.push_back(text.substr(start, end - start));
  }
  if (start < text.size()) parts.push_back(text.substr(start));
  return parts;
}

// Each entry's request as it went over the wire, rebuilt from the HAR: its request line, its
// headers in their order and case, the empty line, and its body (a base64 body left as it is
// written). One per entry, after its connection and a tab.
std::vector<std::string> rebuiltRequests(const std::string& har) {
  const std::string out = jq(
      ".log.entries[] | .connection + \"\\t\" + .request.method + \" \" + (.request.url | sub(\"^[a-z]+://[^/]*\"; \"\")) "
      "+ \" \" + .request.httpVersion + \"\\r\\n\" + ([.request.headers[] | .name + \": \" + .value + \"\\r\\n\"] | join(\"\")) "
      "+ \"\\r\\n\" + (.request.postData.text // \"\") + \"\\u0001\"",
      har);
  std::vector<std::string> requests = split(out, '\x01');
  if (!requests.empty() && requests.back() == "\n") requests.pop_back();
  for (std::string& r : requests) {
    if (!r.empty() && r[0] == '\n') r.erase(0, 1);
  }
  return requests;
}

// What each connection of the HAR sent, its requests joined, connections in the order their
// first request went.
std::vector<std::string> sentPerConnection(const std::string& har, const std::string& binaryBody = "",
                                           const std::string& binaryBodyBase64 = "") {
  std::vector<std::string> order;
  std::map<std::string, std::string> sent;
  for (const std::string& entry : rebuiltRequests(har)) {
    const size_t tab = entry.find('\t');
    const std::string connection = entry.substr(0, tab);
    std::string request = entry.substr(tab + 1);
    if (!binaryBodyBase64.empty() && request.size() >= binaryBodyBase64.size() &&
        request.compare(request.size() - binaryBodyBase64.size(), std::string::npos, binaryBodyBase64) == 0) {
      request = request.substr(0, request.size() - binaryBodyBase64.size()) + binaryBody;
    }
    if (sent.find(connection) == sent.end()) order.push_back(connection);
    sent[connection] += request;
  }
  std::vector<std::string> joined;
  for (const std::string& c : order) joined.push_back(sent[c]);
  return joined;
}

// The suite's own client and server, of this suite's ABI: the HAR of a 32-bit program's exchanges
// is made as a 64-bit one's is.
TEST(HarOfEitherAbi, TheProbesExchangesAreEntries) {
  TALVEX_REQUIRE_NODE_TOOLS();
  TempDir dir;
  BackgroundProcess server({kRecordingProbePath, "http-serve", dir.file("port"), "2"}, cleanEnvironment());
  const std::string port = std::to_string(waitForPortFile(dir.file("port")));
  const std::string har = dir.file("out.har");
  const ProcessResult r = recordCommand({"--har", har, "-q"}, {kRecordingProbePath, "http-get", port, "/hello", "/status"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(jq(".log.entries[] | [.request.method, .request.url, .response.status, .response.content.text] | @tsv", har),
            "GET\thttp://demo/hello\t200\tHello, world!\\n\nGET\thttp://demo/status\t200\tHello, world!\\n\n");
  expectValidHar(har);
  EXPECT_EQ(importedCommands(har).size(), 2u);
}

class HarOutput : public ::testing::Test {
 protected:
  void SetUp() override {
    TALVEX_RECORDED_ONCE_FOR_BOTH_ABIS();
    TALVEX_REQUIRE_NODE_TOOLS();
  }
  TempDir dir_;
};

TEST_F(HarOutput, CurlsHttp1ExchangesAreEntriesByteForByteAsTheServerReceivedThem) {
  HttpServer server;
  std::string binary;
  for (int i = 0; i < 100 * 1024; ++i) binary += static_cast<char>((i * 7919) >> 3);
  ASSERT_TRUE(writeFile(dir_.file("binary"), binary));
  ASSERT_TRUE(writeFile(dir_.file("note.txt"), "a note sent after 100 Continue\n"));
  const std::string u = "http://127.0.0.1:" + server.port();
  const std::string script =
      "cd " + dir_.path() + " && curl -s " + u + "/text -o /dev/null && " +
      "curl -s '" + u + "/text?n=1&x=a%20b' " + u + "/text?n=2 " + u + "/text?n=3 -o /dev/null -o /dev/null -o /dev/null && " +
      "curl -s -H 'Expect:' -H 'Content-Type: application/octet-stream' --data-binary @binary " + u + "/upload -o /dev/null && " +
      "curl -s --compressed " + u + "/gzip-chunked -o /dev/null && " +
      "curl -s " + u + "/close -o /dev/null && " +
      "curl -s -I " + u + "/text -o /dev/null && " +
      "curl -s -H 'Expect: 100-continue' -H 'Content-Type: text/plain' --data-binary @note.txt " + u + "/upload -o /dev/null";
  const std::string har = dir_.file("out.har");
  const ProcessResult r = recordCommand({"--har", har, "--transcript", dir_.file("transcript")}, {"/bin/sh", "-c", script});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err, "talvex-record: the HAR holds 9 HTTP exchanges\n");
  EXPECT_EQ(jq(".log.entries[] | [.request.method, .request.url, .request.httpVersion, .response.status, "
               ".response.statusText, .response.httpVersion, (._talvex.incomplete // \"whole\")] | @tsv",
               har),
            "GET\t" + u + "/text\tHTTP/1.1\t200\tOK\tHTTP/1.1\twhole\n" +
            "GET\t" + u + "/text?n=1&x=a%20b\tHTTP/1.1\t200\tOK\tHTTP/1.1\twhole\n" +
            "GET\t" + u + "/text?n=2\tHTTP/1.1\t200\tOK\tHTTP/1.1\twhole\n" +
            "GET\t" + u + "/text?n=3\tHTTP/1.1\t200\tOK\tHTTP/1.1\twhole\n" +
            "POST\t" + u + "/upload\tHTTP/1.1\t201\tCreated\tHTTP/1.1\twhole\n" +
            "GET\t" + u + "/gzip-chunked\tHTTP/1.1\t200\tOK\tHTTP/1.1\twhole\n" +
            "GET\t" + u + "/close\tHTTP/1.1\t200\tOK\tHTTP/1.1\twhole\n" +
            "HEAD\t" + u + "/text\tHTTP/1.1\t200\tOK\tHTTP/1.1\twhole\n" +
            "POST\t" + u + "/upload\tHTTP/1.1\t201\tCreated\tHTTP/1.1\twhole\n");
  // The three kept-alive requests share one connection; every other curl has its own.
  const std::vector<std::string> connections = split(jq(".log.entries[] | .connection", har), '\n');
  ASSERT_EQ(connections.size(), 9u);
  EXPECT_EQ(connections[1], connections[2]);
  EXPECT_EQ(connections[2], connections[3]);
  EXPECT_EQ(std::set<std::string>(connections.begin(), connections.end()).size(), 7u);

  // Every request, rebuilt from the HAR, is byte for byte what the server received.
  const std::vector<std::string> sent = sentPerConnection(har, binary, talvex::base64Encode(binary));
  ASSERT_EQ(sent.size(), 7u);
  for (int n = 0; n < 7; ++n) EXPECT_EQ(sent[n], server.received(n)) << "connection " << n;

  // The bodies as the program read them, and what HAR says of them.
  EXPECT_EQ(jq(".log.entries[0].response.content | [.size, .mimeType, .text] | @tsv", har),
            "17\ttext/plain; charset=utf-8\thello from /text\\n\n");
  EXPECT_EQ(jq(".log.entries[0].response.cookies", har),
            "[\n  {\n    \"name\": \"session\",\n    \"value\": \"abc123\",\n    \"path\": \"/\",\n    \"httpOnly\": true\n  }\n]\n");
  EXPECT_EQ(jq(".log.entries[1].request.queryString | map(.name + \"=\" + .value) | join(\"&\")", har), "n=1&x=a b\n");
  EXPECT_EQ(jq(".log.entries[4].request.postData | [.mimeType, .encoding] | @tsv", har),
            "application/octet-stream\tbase64\n");
  EXPECT_EQ(jq(".log.entries[4].request.bodySize", har), "102400\n");
  EXPECT_EQ(jq(".log.entries[5].response.content.text", har), longText() + "\n");
  EXPECT_EQ(jq(".log.entries[5].response.content.size", har), std::to_string(longText().size()) + "\n");
  EXPECT_EQ(jq(".log.entries[5].response | [(.headers | map(.name) | join(\",\")), .content.compression > 0] | @tsv", har),
            "Content-Type,Content-Encoding,Transfer-Encoding\ttrue\n");
  EXPECT_EQ(jq(".log.entries[6].response.content.text", har), closeText() + "\n");
  EXPECT_EQ(jq(".log.entries[7].response.content.size", har), "0\n");
  EXPECT_EQ(jq(".log.entries[7].response.headers | map(select(.name == \"Content-Length\")) | .[0].value", har), "17\n");
  EXPECT_EQ(jq(".log.entries[8].request.postData.text", har), "a note sent after 100 Continue\n\n");
  // Times: the first entry pays for its connection; a kept-alive one does not.
  EXPECT_EQ(jq(".log.entries | map(.timings.connect >= 0) | map(tostring) | join(\",\")", har),
            "true,true,false,false,true,true,true,true,true\n");
  EXPECT_EQ(jq(".log.entries | map(.timings.send >= 0 and .timings.wait >= 0 and .timings.receive >= 0 and "
               ".time >= .timings.send + .timings.wait + .timings.receive - 0.002) | all",
               har),
            "true\n");

  expectValidHar(har);
  // The importer takes every entry, the binary and the bodiless ones too.
  const std::vector<std::string> commands = importedCommands(har);
  ASSERT_EQ(commands.size(), 9u);
  EXPECT_EQ(commands[7], "curl --request HEAD --url " + u + "/text --header 'Accept: */*' --header 'Host: 127.0.0.1:" +
                             server.port() + "' --header 'User-Agent: curl/7.88.1'");
}

TEST_F(HarOutput, TheImporterTurnsTheEntriesIntoRequestsWithTheRecordedBodies) {
  HttpServer server;
  // A form whose values need no encoding: the importer writes params back decoded, so that an
  // encoded one would be replayed as a different body.
  ASSERT_TRUE(writeFile(dir_.file("form"), "name=Ada&lang=en"));
  ASSERT_TRUE(writeFile(dir_.file("note.txt"), "a plain text body\nof two lines\n"));
  const std::string u = "http://127.0.0.1:" + server.port();
  const std::string script =
      "cd " + dir_.path() + " && curl -s '" + u + "/text?q=1&r=two' -o /dev/null && " +
      "curl -s -H 'Content-Type: text/plain' --data-binary @note.txt " + u + "/upload -o /dev/null && " +
      "curl -s --data-binary @form " + u + "/upload -o /dev/null";
  const std::string har = dir_.file("out.har");
  const ProcessResult r = recordCommand({"--har", har, "-q"}, {"/bin/sh", "-c", script});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  expectValidHar(har);

  const std::vector<std::string> commands = importedCommands(har);
  ASSERT_EQ(commands.size(), 3u);
  EXPECT_EQ(commands[0], "curl --request GET --url '" + u + "/text?q=1&r=two' --header 'Accept: */*' --header 'Host: 127.0.0.1:" +
                             server.port() + "' --header 'User-Agent: curl/7.88.1'");
  // Replayed, each command's request reaches the server as the recorded one did: the same
  // request line and body (the /upload answers with the length and hash of the body it read,
  // which the recorded response holds too).
  for (size_t i = 0; i < commands.size(); ++i) {
    const ProcessResult replay = runProcess({"/bin/sh", "-c", commands[i] + " --silent"}, cleanEnvironment());
    ASSERT_EQ(replay.exitCode, 0) << commands[i] << "\n" << replay.err;
    const std::string recorded = jq(".log.entries[" + std::to_string(i) + "].response.content.text", har);
    EXPECT_EQ(replay.out + "\n", recorded) << commands[i];
  }
  const std::string original = server.receivedOn(3), replayed = server.received(3) + server.received(4) + server.received(5);
  for (const std::string& body : {std::string("a plain text body\nof two lines\n"), std::string("name=Ada&lang=en")}) {
    EXPECT_NE(replayed.find(body), std::string::npos) << body << " not in\n" << replayed;
    EXPECT_NE(original.find(body), std::string::npos);
  }
  EXPECT_NE(replayed.find("GET /text?q=1&r=two HTTP/1.1\r\n"), std::string::npos) << replayed;
}

TEST_F(HarOutput, InterleavedConnectionsArePairedAndWhatIsNotHttpIsCounted) {
  HttpServer server;
  // Two connections whose requests alternate, and one beside them that is not HTTP.
  const std::string client =
      "import socket, sys\n"
      "port = int(sys.argv[1])\n"
      "a, b, c = (socket.create_connection(('127.0.0.1', port)) for _ in range(3))\n"
      "def ask(s, path):\n"
      "    s.sendall(b'GET ' + path + b' HTTP/1.1\\r\\nHost: h.test\\r\\n\\r\\n')\n"
      "def answer(s):\n"
      "    data = b''\n"
      "    while not data.endswith(b'hello from /text\\n'):\n"
      "        data += s.recv(4096)\n"
      "ask(a, b'/text?a=1'); ask(b, b'/text?b=1'); answer(b); answer(a)\n"
      "ask(a, b'/text?a=2'); answer(a); ask(b, b'/text?b=2'); answer(b)\n"
      "c.sendall(b'\\x00\\x01binary'); got = b''\n"
      "while len(got) < 8:\n"
      "    got += c.recv(100)\n"
      "for s in (a, b, c):\n"
      "    s.close()\n";
  ASSERT_TRUE(writeFile(dir_.file("client.py"), client));
  const std::string har = dir_.file("out.har");
  const ProcessResult r = recordCommand({"--har", har, "-q"}, {"/usr/bin/python3", dir_.file("client.py"), server.port()});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  // -q keeps standard error quiet; the line is checked without it.
  EXPECT_EQ(r.err, "");
  const ProcessResult again =
      recordCommand({"--har", har, "--transcript", dir_.file("t")}, {"/usr/bin/python3", dir_.file("client.py"), server.port()});
  ASSERT_EQ(again.exitCode, 0) << again.err;
  EXPECT_EQ(again.err, "talvex-record: the HAR holds 4 HTTP exchanges; 1 conversation that is not HTTP is left out\n");
  const std::vector<std::string> lines = split(jq(".log.entries[] | .connection + \" \" + .request.url", har), '\n');
  ASSERT_EQ(lines.size(), 4u);
  // In the order the requests were sent, each on its own connection.
  const std::string first = lines[0].substr(0, lines[0].find(' ')), second = lines[1].substr(0, lines[1].find(' '));
  EXPECT_NE(first, second);
  EXPECT_EQ(lines[0], first + " http://h.test/text?a=1");
  EXPECT_EQ(lines[1], second + " http://h.test/text?b=1");
  EXPECT_EQ(lines[2], first + " http://h.test/text?a=2");
  EXPECT_EQ(lines[3], second + " http://h.test/text?b=2");
  EXPECT_EQ(jq(".log.entries | map(.response.status) | map(tostring) | join(\",\")", har), "200,200,200,200\n");
  expectValidHar(har);
  EXPECT_EQ(importedCommands(har).size(), 4u);
}

TEST_F(HarOutput, MalformedResponsesAreEntriesMarkedIncomplete) {
  HttpServer server;
  const std::string u = "http://127.0.0.1:" + server.port();
  const std::string script = "curl -s " + u + "/truncated; curl -s " + u + "/nocolon -o /dev/null; curl -s " + u +
                             "/short -o /dev/null; curl -s " + u + "/nocontent; exit 0";
  const std::string har = dir_.file("out.har");
  const ProcessResult r = recordCommand({"--har", har, "--transcript", dir_.file("t")}, {"/bin/sh", "-c", script});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err, "talvex-record: the HAR holds 4 HTTP exchanges (3 marked incomplete)\n");
  EXPECT_EQ(jq(".log.entries[] | [.request.url, .response.status, .response.content.size, (._talvex.incomplete // \"whole\")] | @tsv", har),
            u + "/truncated\t200\t0\tthe response's headers are cut off\n" +
            u + "/nocolon\t200\t2\ta header line without a colon: This line has no colon\n" +
            u + "/short\t200\t10\tthe body is shorter than its Content-Length: 10 of 100 bytes\n" +
            u + "/nocontent\t204\t0\twhole\n");
  expectValidHar(har);
  EXPECT_EQ(importedCommands(har).size(), 4u);
}

TEST_F(HarOutput, Http2OverTlsHasAnEntryForEachStream) {
  Http2Server server(true);
  const std::string u = "https://localhost:" + server.port();
  const std::string har = dir_.file("out.har");
  const ProcessResult r = recordCommand(
      {"--har", har, "--transcript", dir_.file("t")},
      {"/usr/bin/curl", "-s", "--http2", "--cacert", server.certificate(), u + "/one", u + "/two", "-o", "/dev/null", "-o", "/dev/null"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err, "talvex-record: the HAR holds 2 HTTP exchanges\n");
  EXPECT_EQ(jq(".log.entries[] | [.request.method, .request.url, .request.httpVersion, .response.status, "
               "._talvex.stream, ._talvex.tls, .response.content.size, (._talvex.incomplete // \"whole\")] | @tsv",
               har),
            "GET\t" + u + "/one\tHTTP/2.0\t200\t1\tOpenSSL\t11\twhole\n" +
            "GET\t" + u + "/two\tHTTP/2.0\t200\t3\tOpenSSL\t3000\twhole\n");
  EXPECT_EQ(jq(".log.entries[0].response.content.text", har), "first body\n\n");
  EXPECT_EQ(jq(".log.entries[1].response.headers | map(.name + \": \" + .value) | join(\"|\")", har).substr(0, 38),
            "content-type: text/plain|x-stream: sec");
  EXPECT_EQ(jq(".log.entries[0].request.headers | map(.name) | join(\",\")", har), "user-agent,accept\n");
  EXPECT_EQ(jq("[.log.entries[].connection] | unique | length", har), "1\n");
  const std::vector<std::string> seen = server.requests(2);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0], "{\"method\":\"GET\",\"path\":\"/one\",\"authority\":\"localhost:" + server.port() +
                         "\",\"version\":\"2.0\",\"body_b64\":\"\"}");
  expectValidHar(har);

  // The importer's requests reach the same paths.
  const std::vector<std::string> commands = importedCommands(har);
  ASSERT_EQ(commands.size(), 2u);
  for (const std::string& command : commands) {
    const ProcessResult replay = runProcess({"/bin/sh", "-c", command + " --silent"},
                                            cleanEnvironment({{"CURL_CA_BUNDLE", server.certificate()}}));
    EXPECT_EQ(replay.exitCode, 0) << command << "\n" << replay.err;
  }
  const std::vector<std::string> all = server.requests(4);
  ASSERT_EQ(all.size(), 4u);
  EXPECT_EQ(all[2], "{\"method\":\"GET\",\"path\":\"/one\",\"authority\":\"localhost:" + server.port() +
                        "\",\"version\":\"2.0\",\"body_b64\":\"\"}");
}

TEST_F(HarOutput, Http2WithPriorKnowledgeInClearText) {
  Http2Server server(false);
  const std::string u = "http://127.0.0.1:" + server.port();
  ASSERT_TRUE(writeFile(dir_.file("body"), std::string(70000, 'x') + "end"));
  const std::string har = dir_.file("out.har");
  // Two curls: Debian's curl 7.88 ends a second request on a clear-text connection with an error
  // of its own (status 16, seen without the agent too).
  const ProcessResult r = recordCommand(
      {"--har", har, "-q"},
      {"/bin/sh", "-c", "curl -s --http2-prior-knowledge " + u + "/one -o /dev/null && curl -s --http2-prior-knowledge "
                        "--data-binary @" + dir_.file("body") + " " + u + "/echo -o /dev/null && curl -s --compressed "
                        "--http2-prior-knowledge " + u + "/br -o /dev/null"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(jq(".log.entries[] | [.request.method, .request.url, .request.httpVersion, .response.status, "
               "._talvex.stream, .request.bodySize, .response.content.size, (._talvex.incomplete // \"whole\")] | @tsv",
               har),
            "GET\t" + u + "/one\tHTTP/2.0\t200\t1\t0\t11\twhole\n" +
            "POST\t" + u + "/echo\tHTTP/2.0\t200\t1\t70003\t70003\twhole\n" +
            "GET\t" + u + "/br\tHTTP/2.0\t200\t1\t0\t8000\twhole\n");
  // The Brotli body as the program read it.
  EXPECT_EQ(jq(".log.entries[2].response.content | [.text == (\"brotli, \" * 1000), .compression > 7000] | @tsv", har),
            "true\ttrue\n");
  EXPECT_EQ(jq(".log.entries[1].request.postData.text | length", har), "70003\n");
  EXPECT_EQ(jq(".log.entries[1].response.content.text | endswith(\"xxend\")", har), "true\n");
  expectValidHar(har);
  const std::vector<std::string> commands = importedCommands(har);
  ASSERT_EQ(commands.size(), 3u);
  EXPECT_EQ(commands[0], "curl --request GET --url " + u + "/one --header 'accept: */*' --header 'user-agent: curl/7.88.1'");
}

TEST_F(HarOutput, TheValidatorRejectsAHarThatIsNotOne) {
  // The schema check can fail: a log without entries and with a date that is not one.
  ASSERT_TRUE(writeFile(dir_.file("bad.har"),
                        "{\"log\":{\"version\":\"1.2\",\"creator\":{\"name\":\"x\",\"version\":\"1\"},"
                        "\"pages\":[{\"startedDateTime\":\"yesterday\",\"id\":\"p\",\"title\":\"t\",\"pageTimings\":{}}]}}"));
  const ProcessResult r = nodeTool("validate-har", {dir_.file("bad.har")});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_NE(r.out.find("/log must have required property 'entries'"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace talvex_test
