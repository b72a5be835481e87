// talvex-record --html: the report of real conversations, opened in Debian's Chromium (headless,
// driven by playwright-core) as a person would use it: what it shows, its filters, a
// conversation unfolded. A screenshot of each is kept in the build folder (test-artefacts/).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include "http_servers.h"
#include "process_runner.h"
#include "record_command.h"
#include "test_paths.h"

namespace talvex_test {
namespace {

std::string artefact(const std::string& name) {
  const std::string dir = std::string(kBuildDir) + "/test-artefacts";
  mkdir(dir.c_str(), 0755);
  return dir + "/" + name;
}

class HtmlReport : public ::testing::Test {
 protected:
  void SetUp() override {
    TALVEX_RECORDED_ONCE_FOR_BOTH_ABIS();
    TALVEX_REQUIRE_NODE_TOOLS();
    ASSERT_EQ(access("/usr/bin/chromium", X_OK), 0) << "the install script installs chromium";
  }
  // What report-check.js printed, the lines that begin with `prefix`.
  static std::vector<std::string> seen(const std::string& out, const std::string& prefix) {
    std::vector<std::string> lines;
    for (const std::string& line : splitLines(out)) {
      if (line.rfind(prefix, 0) == 0) lines.push_back(line);
    }
    return lines;
  }
  TempDir dir_;
};

TEST_F(HtmlReport, ABrowserShowsTheConversationsAndItsFiltersWork) {
  HttpServer server;
  const std::string u = "http://127.0.0.1:" + server.port();
  // Three conversations: an HTTP exchange, a malformed one, and one that is not HTTP whose text
  // would be markup if the page wrote it as such.
  const std::string script = "curl -s " + u + "/text -o /dev/null; curl -s " + u + "/nocolon -o /dev/null; " +
                             "printf '</script><script>document.title=1</script>' | "
                             "python3 -c 'import socket,sys; s=socket.create_connection((\"127.0.0.1\"," +
                             server.port() + ")); s.sendall(sys.stdin.buffer.read()); print(s.recv(100))' >/dev/null";
  const std::string report = dir_.file("report.html");
  const ProcessResult r = recordCommand({"--html", report, "-q"}, {"/bin/sh", "-c", script});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err, "");
  const ProcessResult shown = nodeTool("report-check", {report, artefact("html-report.png"), "127.0.0.1", server.port()},
                                       std::chrono::seconds(120));
  ASSERT_EQ(shown.exitCode, 0) << shown.out << shown.err;
  // The page is named after the first program that talked (the shell made no socket call); the
  // recorded markup is text on it, not a script that renamed it.
  EXPECT_EQ(seen(shown.out, "title: "), std::vector<std::string>{"title: talvex-record: curl -s " + u + "/text -o /dev/null"});
  const std::vector<std::string> summary = seen(shown.out, "summary: ");
  ASSERT_EQ(summary.size(), 1u);
  EXPECT_EQ(summary[0].substr(0, 62), "summary: 3 processes, 3 connections, 2 HTTP exchanges, 211 B s");
  EXPECT_NE(summary[0].find(", 1 connection with errors"), std::string::npos) << summary[0];
  EXPECT_EQ(seen(shown.out, "shown: "), std::vector<std::string>{"shown: showing 3 of 3 connections"});
  const std::vector<std::string> rows = seen(shown.out, "row: ");
  ASSERT_EQ(rows.size(), 3u);
  for (const std::string& row : rows) {
    EXPECT_NE(row.find(" -> 127.0.0.1:" + server.port() + " ("), std::string::npos) << row;
  }
  EXPECT_EQ(seen(shown.out, "host 127.0.0.1: "), std::vector<std::string>{"host 127.0.0.1: showing 3 of 3 connections"});
  EXPECT_EQ(seen(shown.out, "port " + server.port() + ": "),
            std::vector<std::string>{"port " + server.port() + ": showing 3 of 3 connections"});
  EXPECT_EQ(seen(shown.out, "errors only: "), std::vector<std::string>{"errors only: showing 1 of 1 connection (3 in all)"});
  // The first conversation unfolded: its exchange, then its events as the transcript shows them.
  const std::vector<std::string> opened = seen(shown.out, "opened: ");
  const std::vector<std::string> expectedStart = {
      "opened: 1 HTTP exchange",
      "opened: GET " + u + "/text \u2192 200 OK",
      "opened: Request: GET " + u + "/text HTTP/1.1",
      "opened: Response: HTTP/1.1 200 OK",
      "opened: hello from /text",
      "opened: ",
      "opened: Conversation",
  };
  ASSERT_GE(opened.size(), expectedStart.size()) << shown.out;
  EXPECT_EQ(std::vector<std::string>(opened.begin(), opened.begin() + expectedStart.size()), expectedStart) << shown.out;
  EXPECT_NE(shown.out.find("opened: GET /text HTTP/1.1\r"), std::string::npos) << shown.out;
  EXPECT_EQ(seen(shown.out, "requests: "), std::vector<std::string>{"requests: 0"});
  EXPECT_EQ(seen(shown.out, "page error: "), std::vector<std::string>{});
  std::vector<std::string> last = seen(shown.out, "last: ");
  for (std::string& line : last) line = std::regex_replace(line, std::regex("^last: \\+[0-9.]+ ms  "), "last: +T  ");
  EXPECT_EQ(last, (std::vector<std::string>{"last: Conversation", "last: +T  > sent 42 B",
                                            "last: </script><script>document.title=1</script>", "last: +T  < received 42 B",
                                            "last: </script><script>document.title=1</script>", "last: +T  close"}));
  const std::string png = readFile(artefact("html-report.png"));
  ASSERT_GT(png.size(), 8u);
  EXPECT_EQ(png.substr(1, 3), "PNG");
}

TEST_F(HtmlReport, TenThousandConnectionsAndAHundredMegabytesStayAPageABrowserOpens) {
  EchoServer echo;
  // Ten thousand connections, each 5,000 bytes each way: 100 MB of payloads.
  const std::string client =
      "import socket, sys\n"
      "port = int(sys.argv[1])\n"
      "block = bytes(range(97, 123)) * 192 + b'12345678'\n"
      "for i in range(10000):\n"
      "    s = socket.create_connection(('127.0.0.1', port))\n"
      "    s.sendall(block)\n"
      "    got = 0\n"
      "    while got < len(block):\n"
      "        got += len(s.recv(65536))\n"
      "    s.close()\n";
  ASSERT_TRUE(writeFile(dir_.file("client.py"), client));
  const std::string report = dir_.file("report.html");
  const ProcessResult r = recordCommand({"--html", report, "-q"},
                                        {"/usr/bin/python3", dir_.file("client.py"), std::to_string(echo.port())}, {},
                                        std::chrono::seconds(240));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  // The page holds what it shows: about sixteen megabytes of payload, and each connection's facts.
  struct stat size;
  ASSERT_EQ(stat(report.c_str(), &size), 0);
  EXPECT_LT(size.st_size, 24 << 20);
  EXPECT_GT(size.st_size, 16 << 20);
  const ProcessResult shown = nodeTool("report-check", {report, artefact("html-report-10000.png"), "127.0.0.9",
                                                        std::to_string(echo.port())},
                                       std::chrono::seconds(120));
  ASSERT_EQ(shown.exitCode, 0) << shown.out << shown.err;
  EXPECT_EQ(seen(shown.out, "summary: "),
            std::vector<std::string>{"summary: 1 process, 10000 connections, 0 HTTP exchanges, 47.7 MB sent, 47.7 MB received"});
  EXPECT_EQ(seen(shown.out, "shown: "), std::vector<std::string>{"shown: showing 200 of 10000 connections"});
  EXPECT_EQ(seen(shown.out, "row: ").size(), 20u);
  EXPECT_EQ(seen(shown.out, "host 127.0.0.9: "), std::vector<std::string>{"host 127.0.0.9: showing 0 of 0 connections (10000 in all)"});
  EXPECT_EQ(seen(shown.out, "port " + std::to_string(echo.port()) + ": "),
            std::vector<std::string>{"port " + std::to_string(echo.port()) + ": showing 200 of 10000 connections"});
  EXPECT_EQ(seen(shown.out, "more: "), std::vector<std::string>{"more: showing 400 of 10000 connections"});
  // The first conversation is shown to its limits: 2,048 bytes of each 5,000, with what is left out.
  const std::vector<std::string> opened = seen(shown.out, "opened: ");
  ASSERT_GE(opened.size(), 4u) << shown.out;
  EXPECT_EQ(opened[2].substr(0, 34), "opened: abcdefghijklmnopqrstuvwxyz");
  EXPECT_NE(shown.out.find("opened: \u2026 2.9 kB more, not in the report"), std::string::npos) << shown.out;
  EXPECT_EQ(seen(shown.out, "page error: "), std::vector<std::string>{});
}

}  // namespace
}  // namespace talvex_test
