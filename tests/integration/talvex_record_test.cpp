// talvex-record end to end, through the built binaries.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <regex>
#include <string>

#include "capture_check.h"
#include "json_lines_check.h"
#include "process_runner.h"
#include "record_command.h"
#include "recorder_message_parser.h"
#include "scripted_socks_server.h"
#include "system_tools.h"
#include "test_paths.h"

using namespace talvex_test;

namespace {

ProcessResult record(const std::vector<std::string>& options, const std::vector<std::string>& command,
                     const Environment& extra = {}) {
  return recordCommand(options, command, extra);
}

std::string masked(std::string transcript) {
  transcript = std::regex_replace(transcript, std::regex(R"(\d\d:\d\d:\d\d\.\d{6})"), "HH:MM:SS.uuuuuu");
  transcript = std::regex_replace(transcript, std::regex(R"(; times are local \([^)]*\))"), "; times are local (ZONE)");
  transcript = std::regex_replace(transcript, std::regex(R"(process \d+: [^\n]* in [^;\s]+;)"), "process PID: PROGRAM in DIR;");
  transcript = std::regex_replace(transcript, std::regex(R"(127\.0\.0\.1:\d+)"), "127.0.0.1:PORT");
  transcript = std::regex_replace(transcript, std::regex(R"(\(\d+ ms\))"), "(N ms)");
  // Descriptor numbers depend on what the launching environment left open.
  transcript = std::regex_replace(transcript, std::regex(R"(-- socket \d+:)"), "-- socket N:");
  return transcript;
}


}  // namespace

TEST(TalvexRecord, OneConversationInAllFourOutputs) {
  TALVEX_REQUIRE_PROGRAM("/usr/bin/tshark");
  EchoServer echo;
  TempDir tmp;
  const ProcessResult r = record({"--raw", tmp.file("r.raw"), "--jsonl", tmp.file("r.jsonl"), "--transcript",
                                  tmp.file("r.txt"), "--pcap", tmp.file("r.pcap")},
                                 {kRecordingProbePath, "vectors", std::to_string(echo.port())});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err, "");
  const auto raw = splitLines(readFile(tmp.file("r.raw")));
  std::vector<std::string> kinds;
  for (const auto& line : raw) {
    talvex::ParsedMessage m;
    ASSERT_TRUE(talvex::parseRecorderMessage(line, &m, nullptr)) << line;
    kinds.push_back(m.kind);
    // The shipped clock library gives every message nanoseconds.
    if (m.kind != "close") EXPECT_NE(m.find("timestamp_ns"), nullptr) << line;
    if (m.kind == "send" || m.kind == "receive") EXPECT_EQ(m.find("data")->bytes, "abcdefg");
  }
  EXPECT_EQ(kinds, (std::vector<std::string>{"process", "connect", "send", "receive", "close"}));
  const auto json = splitLines(readFile(tmp.file("r.jsonl")));
  EXPECT_EQ(json.size(), raw.size());
  expectValidJsonLines(tmp.file("r.jsonl"));
  EXPECT_EQ(linesContaining(readFile(tmp.file("r.jsonl")), "\"data_b64\":\"YWJjZGVmZw==\"").size(), 2u);
  const std::string transcript = readFile(tmp.file("r.txt"));
  EXPECT_NE(transcript.find("> sent 7 bytes\n      abcdefg\n"), std::string::npos) << transcript;
  EXPECT_NE(transcript.find("< received 7 bytes\n      abcdefg\n"), std::string::npos);
  EXPECT_NE(transcript.find("summary: 1 socket, 5 messages, 7 bytes sent, 7 bytes received, 0 failures\n"),
            std::string::npos);
  std::string client, server;
  followStream(tmp.file("r.pcap"), &client, &server);
  EXPECT_EQ(client, "abcdefg");
  EXPECT_EQ(server, "abcdefg");
}

TEST(TalvexRecord, CaptureStreamEqualsTheBytesExchanged) {
  TALVEX_REQUIRE_PROGRAM("/usr/bin/tshark");
  EchoServer echo;
  TempDir tmp;
  const long size = 200000;
  const ProcessResult r = record({"--pcap", tmp.file("b.pcap"), "--transcript", tmp.file("b.txt")},
                                 {kRecordingProbePath, "bytes", std::to_string(echo.port()), std::to_string(size)});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  std::string expected(static_cast<size_t>(size), '\0');
  for (long i = 0; i < size; ++i) expected[static_cast<size_t>(i)] = static_cast<char>(i % 256);
  std::string client, server;
  followStream(tmp.file("b.pcap"), &client, &server);
  EXPECT_TRUE(client == expected) << client.size();
  EXPECT_TRUE(server == expected) << server.size();
  // Long binary payloads are abbreviated in the transcript unless --full.
  EXPECT_NE(readFile(tmp.file("b.txt")).find("more bytes (--full shows them)"), std::string::npos);
}

TEST(TalvexRecord, TranscriptOfAFixedScenario) {
  TempDir tmp;
  BackgroundProcess server({kRecordingProbePath, "http-serve", tmp.file("port"), "2"}, cleanEnvironment());
  const int port = waitForPortFile(tmp.file("port"));
  ASSERT_GT(port, 0);
  const ProcessResult r = record({"--transcript", tmp.file("t.txt")},
                                 {kRecordingProbePath, "http-get", std::to_string(port), "/hello", "/status"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "/hello -> HTTP/1.0 200 OK\n/status -> HTTP/1.0 200 OK\n");
  EXPECT_EQ(masked(readFile(tmp.file("t.txt"))), readFile(kExpectedTranscriptPath));
}

TEST(TalvexRecord, ExitStatusIsTheCommands) {
  const ProcessResult r = record({}, {kProbePath, "no-such-scenario"});
  EXPECT_EQ(r.exitCode, 2);
}

TEST(TalvexRecord, CrashedCommandIsReported) {
  const ProcessResult r = record({}, {kCrashProbePath});
  EXPECT_EQ(r.exitCode, 128 + SIGSEGV);
  EXPECT_NE(r.err.find("was killed by signal 11 (Segmentation fault)"), std::string::npos) << r.err;
  const ProcessResult traced = record({"--traceback"}, {kCrashProbePath});
  // The crash handler's exit status hides the crash; talvex-record's status does not.
  EXPECT_EQ(traced.exitCode, 128 + SIGSEGV);
  EXPECT_NE(traced.out.find("SigSEV @ 0x10 "), std::string::npos);
  EXPECT_NE(traced.err.find("crashed (SIGSEGV); the agent's crash handler printed a backtrace and ended it with status 0"),
            std::string::npos)
      << traced.err;
}

TEST(TalvexRecord, RecordsA64BitSystemProgramBehindA64BitShell) {
  // sh, then the system's own python3: 64-bit programs, each with the agent of its own ABI.
  EchoServer echo;
  TempDir tmp;
  const std::string client = "import socket; s = socket.create_connection(('127.0.0.1', " + std::to_string(echo.port()) +
                             ")); s.sendall(b'from python'); print(s.recv(64).decode()); s.close()";
  const ProcessResult r =
      record({"--raw", tmp.file("r.raw")}, {"/bin/sh", "-c", "exec /usr/bin/python3 -c \"" + client + "\""});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "from python\n");
  EXPECT_EQ(r.err.find("wrong ELF class"), std::string::npos) << r.err;
  const std::string raw = readFile(tmp.file("r.raw"));
  EXPECT_EQ(linesContaining(raw, "<send ").size(), 1u) << raw;
  EXPECT_EQ(linesContaining(raw, "data_AS=\"from python\"").size(), 2u) << raw;
}

TEST(TalvexRecord, RefusesWhatItCannotRecord) {
  // A file that is no program at all.
  TempDir tmp;
  ASSERT_TRUE(writeFile(tmp.file("notes"), "not a program\n"));
  ProcessResult r = record({}, {tmp.file("notes")});
  EXPECT_EQ(r.exitCode, 126);
  EXPECT_EQ(r.err, "talvex-record: " + tmp.file("notes") + " is not a program the agent can be preloaded into\n");
  r = record({}, {"talvex-no-such-command"});
  EXPECT_EQ(r.exitCode, 127);
  EXPECT_EQ(r.err, "talvex-record: command not found: talvex-no-such-command\n");
  r = runProcess({kRecordPath}, cleanEnvironment());
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_EQ(r.err.rfind("talvex-record: no command to record\n", 0), 0u);
  r = runProcess({kRecordPath, "--bogus", "--", "x"}, cleanEnvironment());
  EXPECT_EQ(r.exitCode, 2);
  r = runProcess({kRecordPath, "--help"}, cleanEnvironment());
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.out.rfind("usage: talvex-record [options] [--] COMMAND [ARGS...]\n", 0), 0u);
}

TEST(TalvexRecord, PutsTheAgentBehindTheUsersPreload) {
  // The user's wrapper of connect hands the call on with dlsym(RTLD_NEXT): with the agent in
  // front of it, the two would call each other until the stack ran out.
  EchoServer echo;
  TempDir tmp;
  const ProcessResult r = record({"--raw", tmp.file("r.raw")},
                                 {kRecordingProbePath, "nonblock-connect", std::to_string(echo.port())},
                                 {{"LD_PRELOAD", kConnectShimPath}});
  ASSERT_EQ(r.signal, 0) << r.err;
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.out.find("connect result=-1 errno=115"), std::string::npos) << r.out;
  EXPECT_EQ(linesContaining(readFile(tmp.file("r.raw")), "<connect ").size(), 1u);
}

TEST(TalvexRecord, AgentOptions) {
  EchoServer echo;
  TempDir tmp;
  ProcessResult r = record({"--unplug", "--raw", tmp.file("u.raw")}, {kRecordingProbePath, "vectors", std::to_string(echo.port())});
  ASSERT_EQ(r.exitCode, 0);
  EXPECT_EQ(readFile(tmp.file("u.raw")), "");
  EXPECT_NE(r.err.find("summary: 0 sockets, 0 messages"), std::string::npos);

  r = record({"--log-dir", tmp.file("logs"), "--log-level", "error,info"},
             {kRecordingProbePath, "vectors", std::to_string(echo.port())});
  ASSERT_EQ(r.exitCode, 0);
  const auto files = listDirectory(tmp.file("logs"));
  ASSERT_EQ(files.size(), 1u);
  EXPECT_NE(readFile(tmp.file("logs/" + files[0])).find("debug level : 3\t"), std::string::npos);

  r = record({"--log-level", "loud"}, {kRecordingProbePath, "vectors", "1"});
  EXPECT_EQ(r.exitCode, 2);
}

TEST(TalvexRecord, SocksOption) {
  const int port = closedLoopbackPort();
  TALVEX_REQUIRE_PROGRAM("/usr/bin/microsocks");
  BackgroundProcess socks({"/usr/bin/microsocks", "-i", "127.0.0.1", "-p", std::to_string(port)}, cleanEnvironment());
  ASSERT_TRUE(waitForListener(port));
  EchoServer echo;
  TempDir tmp;
  const ProcessResult r = record({"--socks", "127.0.0.1:" + std::to_string(port), "--double-log-socks", "--transcript",
                                  tmp.file("s.txt")},
                                 {kRecordingProbePath, "socks-echo", std::to_string(echo.port())});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const std::string transcript = readFile(tmp.file("s.txt"));
  EXPECT_NE(transcript.find("[via SOCKS]"), std::string::npos) << transcript;
  EXPECT_NE(transcript.find("> sent 4 bytes\n      ping\n"), std::string::npos);
}

// What went wrong with the SOCKS server reads by name: an exchange that failed, and a server that
// could not be reached, after which the connect went direct.
TEST(TalvexRecord, SocksFailuresReadByName) {
  SocksScript garbage;
  garbage.methodReply = std::string("\x05\x02", 2);
  ScriptedSocksServer failing("127.0.0.1", garbage);
  EchoServer echo;
  TempDir tmp;
  ProcessResult r = record({"--socks", "127.0.0.1:" + std::to_string(failing.port()), "--transcript", tmp.file("f.txt")},
                           {kRecordingProbePath, "socks-echo", std::to_string(echo.port())});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  std::string transcript = readFile(tmp.file("f.txt"));
  EXPECT_NE(transcript.find(" FAILED (ECONNREFUSED: Connection refused) [the SOCKS exchange failed: " +
                            std::string("EPROTONOSUPPORT: Protocol not supported]")),
            std::string::npos)
      << transcript;
  r = record({"--socks", "127.0.0.1:" + std::to_string(closedLoopbackPort()), "--transcript", tmp.file("d.txt")},
             {kRecordingProbePath, "socks-echo", std::to_string(echo.port())});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  transcript = readFile(tmp.file("d.txt"));
  EXPECT_NE(transcript.find(" [the SOCKS server was not used: it failed (ECONNREFUSED: Connection refused), the "
                            "connect went direct]"),
            std::string::npos)
      << transcript;
}

TEST(TalvexRecord, MixedTreesAreRecordedInEveryProcess) {
  // A 32-bit program that execs a 64-bit one, and a 64-bit program that execs a 32-bit one.
  EchoServer echo;
  TempDir tmp;
  const std::string port = std::to_string(echo.port());
  const std::string python = "import socket; s = socket.create_connection(('127.0.0.1', " + port +
                             ")); s.sendall(b'after exec'); s.recv(64); s.close()";
  const ProcessResult r = record(
      {"--raw", tmp.file("r.raw")},
      {"/bin/sh", "-c",
       std::string("'") + kHostileProbePath + "' run-after-recording " + port + " /usr/bin/python3 -c \"" + python + "\""});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err.find("wrong ELF class"), std::string::npos) << r.err;
  const std::string raw = readFile(tmp.file("r.raw"));
  EXPECT_EQ(linesContaining(raw, "<send ").size(), 2u) << raw;
  EXPECT_EQ(linesContaining(raw, "data_AS=\"before exec\"").size(), 2u) << raw;
  EXPECT_EQ(linesContaining(raw, "data_AS=\"after exec\"").size(), 2u) << raw;

  // The reverse: the system's python3 talks, then becomes the probe, which talks too.
  const std::string becomeProbe = "import os, socket; s = socket.create_connection(('127.0.0.1', " + port +
                                  ")); s.sendall(b'python first'); s.recv(64); s.close(); os.execv('" +
                                  kHostileProbePath + "', ['probe', 'run-after-recording', '" + port + "', '/bin/true'])";
  const ProcessResult back = record({"--raw", tmp.file("back.raw")}, {"/usr/bin/python3", "-c", becomeProbe});
  ASSERT_EQ(back.exitCode, 0) << back.err;
  const std::string backRaw = readFile(tmp.file("back.raw"));
  EXPECT_EQ(linesContaining(backRaw, "data_AS=\"python first\"").size(), 2u) << backRaw;
  EXPECT_EQ(linesContaining(backRaw, "data_AS=\"before exec\"").size(), 2u) << backRaw;
}

TEST(TalvexRecord, SaysWhenNothingWasRecorded) {
  const ProcessResult r = record({}, {"/bin/true"});
  ASSERT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.err,
            "summary: 0 sockets, 0 messages, 0 bytes sent, 0 bytes received, 0 failures\n"
            "talvex-record: nothing was recorded: no process of /bin/true made a socket call through the C library, "
            "so no agent reported (programs that make their own system calls, as Go programs do, make none)\n");
}

TEST(TalvexRecord, ForkedChildrenAreProcessesOfTheirOwn) {
  EchoServer echo;
  TempDir tmp;
  const ProcessResult r =
      record({"--raw", tmp.file("r.raw"), "--transcript", tmp.file("t.txt")},
             {kHostileProbePath, "fork-children", std::to_string(echo.port())});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const std::string raw = readFile(tmp.file("r.raw"));
  EXPECT_EQ(linesContaining(raw, "<process ").size(), 4u) << raw;
  // One block per process in the transcript.
  EXPECT_EQ(linesContaining(readFile(tmp.file("t.txt")), "== process ").size(), 4u);
}

TEST(TalvexRecord, InstalledLayoutRecordsBothAbis) {
  TempDir prefix;
  const ProcessResult install =
      runProcess({"/usr/bin/cmake", "--install", kBuildDir, "--prefix", prefix.path()}, cleanEnvironment());
  ASSERT_EQ(install.exitCode, 0) << install.out << install.err;
  for (const char* file : {"bin/talvex-record", "bin/talvex-recorder", "lib/i386-linux-gnu/libtalvex_socket_agent.so",
                           "lib/x86_64-linux-gnu/libtalvex_socket_agent.so", "lib/i386-linux-gnu/libRecorderCore.so",
                           "lib/x86_64-linux-gnu/libRecorderCore.so", "lib32/libtalvex_socket_agent.so"}) {
    EXPECT_EQ(access(prefix.file(file).c_str(), R_OK), 0) << file;
  }
  EchoServer echo;
  const std::string port = std::to_string(echo.port());
  const ProcessResult r = runProcess(
      {prefix.file("bin/talvex-record"), "--raw", prefix.file("r.raw"), "--", kHostileProbePath, "run-after-recording",
       port, "/usr/bin/python3", "-c",
       "import socket; s = socket.create_connection(('127.0.0.1', " + port + ")); s.sendall(b'installed'); s.recv(64)"},
      cleanEnvironment());
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const std::string raw = readFile(prefix.file("r.raw"));
  EXPECT_EQ(linesContaining(raw, "data_AS=\"before exec\"").size(), 2u) << raw;
  EXPECT_EQ(linesContaining(raw, "data_AS=\"installed\"").size(), 2u) << raw;
  // With the clock beside each agent, every message carries nanoseconds.
  EXPECT_EQ(linesContaining(raw, "timestamp_ns_I8=").size(), splitLines(raw).size()) << raw;
}

TEST(TalvexRecord, RecordsTheSystemsCurlUnderAShellByteForByte) {
  TempDir tmp;
  BackgroundProcess server({kRecordingProbePath, "http-serve", tmp.file("port"), "1"}, cleanEnvironment());
  const int port = waitForPortFile(tmp.file("port"));
  ASSERT_GT(port, 0);
  const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/hello";
  const ProcessResult r = record({"--raw", tmp.file("r.raw")}, {"/bin/sh", "-c", "curl -s " + url});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "Hello, world!\n");
  const std::string raw = readFile(tmp.file("r.raw"));
  const auto sends = linesContaining(raw, "<send ");
  ASSERT_EQ(sends.size(), 1u) << raw;
  EXPECT_NE(sends[0].find("data_AS=\"GET /hello HTTP/1.1\\x0d&#x0a;Host: 127.0.0.1:" + std::to_string(port) +
                          "\\x0d&#x0a;User-Agent: curl/"),
            std::string::npos)
      << sends[0];
  const auto receives = linesContaining(raw, "<receive ");
  std::string received;
  for (const auto& line : receives) {
    const size_t at = line.find("data_AS=\"");
    if (at != std::string::npos) received += line.substr(at + 9, line.find('"', at + 9) - at - 9);
  }
  EXPECT_EQ(received,
            "HTTP/1.0 200 OK\\x0d&#x0a;Content-Type: text/plain\\x0d&#x0a;Content-Length: 14\\x0d&#x0a;\\x0d&#x0a;"
            "Hello, world!&#x0a;")
      << raw;
}

namespace {

// An HTTP server as Python's standard library makes one: http.server reads the request body and
// answers with the file through socket.sendfile.
const char* const kSendfileServer = R"(import http.server, os, sys
class Handler(http.server.BaseHTTPRequestHandler):
    def do_POST(self):
        self.rfile.read(int(self.headers['Content-Length']))
        self.send_response(200)
        self.send_header('Content-Length', str(os.path.getsize(sys.argv[1])))
        self.end_headers()
        self.wfile.flush()
        with open(sys.argv[1], 'rb') as f:
            self.connection.sendfile(f)
    def log_message(self, *arguments):
        pass
server = http.server.HTTPServer(('127.0.0.1', 8080), Handler)
open(sys.argv[2], 'w').write('ready')
server.handle_request()
)";

// Its client, through http.client: a POST of binary bytes, the answer read to its end.
const char* const kPostClient = R"(import http.client
body = bytes((i * 7 + i // 300) % 256 for i in range(150000))
c = http.client.HTTPConnection('127.0.0.1', 8080)
c.request('POST', '/upload', body=body, headers={'Content-Type': 'application/octet-stream'})
print(len(c.getresponse().read()))
)";

struct Direction {
  std::string sent, received;
};

// What each process of a raw recording sent and received on its TCP connections, by pid.
std::map<std::string, Direction> bytesByProcess(const std::string& raw) {
  std::map<std::string, Direction> out;
  for (const auto& line : splitLines(raw)) {
    talvex::ParsedMessage m;
    if (!talvex::parseRecorderMessage(line, &m, nullptr)) continue;
    const talvex::MessageAttribute* pid = m.find("pid");
    const talvex::MessageAttribute* data = m.find("data");
    if (pid == nullptr || data == nullptr) continue;
    if (m.kind == "send") out[pid->raw].sent += data->bytes;
    if (m.kind == "receive") out[pid->raw].received += data->bytes;
  }
  return out;
}

}  // namespace

TEST(TalvexRecord, PythonHttpServerAndClientAreRecordedAsTheWireCarriedThem) {
  TALVEX_REQUIRE_PROGRAM("/usr/bin/dumpcap");
  TALVEX_REQUIRE_PROGRAM("/usr/bin/tshark");
  TALVEX_REQUIRE_NETWORK_NAMESPACES();
  TempDir tmp;
  std::string file(200000, '\0');
  for (size_t i = 0; i < file.size(); ++i) file[i] = static_cast<char>((i * 13 + i / 977) & 0xff);
  ASSERT_TRUE(writeFile(tmp.file("payload"), file));
  ASSERT_TRUE(writeFile(tmp.file("server.py"), kSendfileServer));
  ASSERT_TRUE(writeFile(tmp.file("client.py"), kPostClient));
  // In a network namespace of its own, so that the capture holds this conversation only; the
  // capture has started once dumpcap says so and its filter is in place a moment later.
  const std::string script =
      "ip link set lo up || exit 3\n"
      "dumpcap -q -i lo -f 'tcp port 8080' -w " + tmp.file("wire.pcapng") + " 2>" + tmp.file("dumpcap.err") +
      " & D=$!\n"
      "i=0; while ! grep -q 'Capturing on' " + tmp.file("dumpcap.err") + " && [ $i -lt 100 ]; do sleep 0.1; i=$((i+1)); done\n"
      "sleep 1\n" +
      std::string(kRecordPath) + " --raw " + tmp.file("r.raw") + " -- /bin/sh -c '"
      "python3 " + tmp.file("server.py") + " " + tmp.file("payload") + " " + tmp.file("ready") + " & "
      "i=0; while [ ! -s " + tmp.file("ready") + " ] && [ $i -lt 100 ]; do sleep 0.1; i=$((i+1)); done; "
      "python3 " + tmp.file("client.py") + "; wait'\n"
      "R=$?\n"
      "sleep 0.5; kill -INT $D; wait $D\n"
      "exit $R\n";
  const ProcessResult r = runProcess({"/usr/bin/unshare", "--net", "/bin/sh", "-c", script},
                                     cleanEnvironment({{"HOME", "/tmp"}}), std::chrono::seconds(120));
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_EQ(r.out, "200000\n");
  std::string fromClient, fromServer;
  followStream(tmp.file("wire.pcapng"), &fromClient, &fromServer);
  ASSERT_GT(fromClient.size(), 150000u);
  ASSERT_EQ(fromServer.substr(fromServer.size() - file.size()), file);
  const auto processes = bytesByProcess(readFile(tmp.file("r.raw")));
  int client = 0, server = 0;
  for (const auto& entry : processes) {
    if (entry.second.sent == fromClient && entry.second.received == fromServer) ++client;
    if (entry.second.sent == fromServer && entry.second.received == fromClient) ++server;
  }
  EXPECT_EQ(client, 1);
  EXPECT_EQ(server, 1);
}

namespace {

// A python3 client that sends `text` to 127.0.0.1:`port`, waits for the echo, says its pid in
// `pidFile`, and then sleeps far longer than any test waits: only a signal ends it in time.
std::string sleepingClient(int port, const std::string& text, const std::string& pidFile) {
  return "import os, socket, time\n"
         "s = socket.create_connection(('127.0.0.1', " + std::to_string(port) + "))\n"
         "s.sendall(b'" + text + "')\n"
         "s.recv(64)\n"
         "open('" + pidFile + "', 'w').write(str(os.getpid()))\n"
         "time.sleep(600)\n";
}

// Waits, a bounded time, until `path` holds something.
std::string waitForContent(const std::string& path) {
  for (int i = 0; i < 200; ++i) {
    const std::string content = readFile(path);
    if (!content.empty()) return content;
    usleep(50000);
  }
  return "";
}

}  // namespace

TEST(TalvexRecord, SigtermReachesTheCommandAndEveryOutputIsComplete) {
  TALVEX_REQUIRE_PROGRAM("/usr/bin/tshark");
  EchoServer echo;
  TempDir tmp;
  // No "--": the command starts at the first argument that is not an option.
  BackgroundProcess recording({kRecordPath, "--raw", tmp.file("r.raw"), "--jsonl", tmp.file("r.jsonl"), "--pcap",
                               tmp.file("r.pcap"), "--transcript", tmp.file("r.txt"), "/usr/bin/python3", "-c",
                               sleepingClient(echo.port(), "before the signal", tmp.file("pid"))},
                              cleanEnvironment());
  const std::string pid = waitForContent(tmp.file("pid"));
  ASSERT_FALSE(pid.empty());
  // Written as they arrived, before anything ended (within a moment: the recorder is another
  // process).
  size_t written = 0;
  for (int i = 0; i < 200 && written < 2; ++i, usleep(50000)) {
    written = linesContaining(readFile(tmp.file("r.raw")), "data_AS=\"before the signal\"").size();
  }
  EXPECT_EQ(written, 2u);
  recording.signal(SIGTERM);
  const ProcessResult r = recording.wait(std::chrono::seconds(30));
  ASSERT_FALSE(r.timedOut);
  EXPECT_EQ(r.exitCode, 128 + SIGTERM) << r.err;
  EXPECT_EQ(r.err, "talvex-record: signal: /usr/bin/python3 was killed by signal 15 (Terminated)\n");
  EXPECT_EQ(kill(atoi(pid.c_str()), 0), -1);
  EXPECT_EQ(errno, ESRCH);
  const auto raw = splitLines(readFile(tmp.file("r.raw")));
  EXPECT_EQ(splitLines(readFile(tmp.file("r.jsonl"))).size(), raw.size());
  expectValidJsonLines(tmp.file("r.jsonl"));
  const std::string transcript = readFile(tmp.file("r.txt"));
  EXPECT_NE(transcript.find("> sent 17 bytes\n      before the signal\n"), std::string::npos) << transcript;
  EXPECT_NE(transcript.find("signal: /usr/bin/python3 was killed by signal 15 (Terminated)\nsummary: 1 socket,"),
            std::string::npos)
      << transcript;
  std::string client, server;
  followStream(tmp.file("r.pcap"), &client, &server);
  EXPECT_EQ(client, "before the signal");
  EXPECT_EQ(server, "before the signal");
}

TEST(TalvexRecord, ATimeoutLeavesTheRecordingOnDisk) {
  EchoServer echo;
  TempDir tmp;
  const ProcessResult r = runProcess({"/usr/bin/timeout", "3", kRecordPath, "--raw", tmp.file("r.raw"), "--jsonl",
                                      tmp.file("r.jsonl"), "--", "/usr/bin/python3", "-c",
                                      sleepingClient(echo.port(), "cut short", tmp.file("pid"))},
                                     cleanEnvironment(), std::chrono::seconds(60));
  EXPECT_EQ(r.exitCode, 124) << r.err;
  EXPECT_EQ(linesContaining(readFile(tmp.file("r.raw")), "data_AS=\"cut short\"").size(), 2u);
  EXPECT_EQ(linesContaining(readFile(tmp.file("r.jsonl")), "\"data\":\"cut short\"").size(), 2u);
  expectValidJsonLines(tmp.file("r.jsonl"));
}

// An output left by an earlier run is replaced by a new file, not truncated; a file with other
// names and a link's target are written where they are, as any program writes them.
TEST(TalvexRecord, OutputsReplaceAnEarlierRunsAndWriteThroughLinks) {
  EchoServer echo;
  TempDir tmp;
  const std::string earlier = "an earlier run\n";
  ASSERT_TRUE(writeFile(tmp.file("own.raw"), earlier));
  ASSERT_TRUE(writeFile(tmp.file("shared.raw"), earlier));
  ASSERT_EQ(link(tmp.file("shared.raw").c_str(), tmp.file("other-name").c_str()), 0);
  ASSERT_TRUE(writeFile(tmp.file("target.raw"), earlier));
  ASSERT_EQ(symlink(tmp.file("target.raw").c_str(), tmp.file("link.raw").c_str()), 0);
  // Held open, the earlier files show what became of them.
  const int own = open(tmp.file("own.raw").c_str(), O_RDONLY | O_CLOEXEC);
  const int shared = open(tmp.file("shared.raw").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(own, 0);
  ASSERT_GE(shared, 0);
  auto contentOf = [](int fd) {
    std::string content(4096, '\0');
    const ssize_t n = pread(fd, &content[0], content.size(), 0);
    content.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return content;
  };
  for (const char* name : {"own.raw", "shared.raw", "link.raw"}) {
    const ProcessResult r = record({"--quiet", "--raw", tmp.file(name)}, {kRecordingProbePath, "vectors", std::to_string(echo.port())});
    ASSERT_EQ(r.exitCode, 0) << r.err;
  }
  auto kindsIn = [&](const std::string& path) {
    std::vector<std::string> kinds;
    for (const auto& line : splitLines(readFile(path))) {
      talvex::ParsedMessage m;
      EXPECT_TRUE(talvex::parseRecorderMessage(line, &m, nullptr)) << path << ": " << line;
      kinds.push_back(m.kind);
    }
    return kinds;
  };
  const std::vector<std::string> recording = {"process", "connect", "send", "receive", "close"};
  // The earlier file itself untouched, a new one in its place.
  EXPECT_EQ(contentOf(own), earlier);
  EXPECT_EQ(kindsIn(tmp.file("own.raw")), recording);
  // Written in place, seen under both names.
  EXPECT_EQ(contentOf(shared), readFile(tmp.file("shared.raw")));
  EXPECT_EQ(kindsIn(tmp.file("shared.raw")), recording);
  EXPECT_EQ(readFile(tmp.file("other-name")), readFile(tmp.file("shared.raw")));
  close(own);
  close(shared);
  struct stat after;
  ASSERT_EQ(lstat(tmp.file("link.raw").c_str(), &after), 0);
  EXPECT_TRUE(S_ISLNK(after.st_mode));
  EXPECT_EQ(kindsIn(tmp.file("target.raw")), recording);
  // The earlier file went without leaving a name behind.
  std::vector<std::string> names = listDirectory(tmp.path());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"link.raw", "other-name", "own.raw", "shared.raw", "target.raw"}));
}

// A recording of many megabytes, its messages across the blocks the raw output is written in,
// is every byte that went each way.
TEST(TalvexRecord, ARecordingOfManyMegabytesIsWrittenWhole) {
  EchoServer echo;
  TempDir tmp;
  const size_t kSize = 3u << 20;
  const std::string client = "import socket\n"
                             "payload = bytes(range(256)) * (" + std::to_string(kSize / 256) + ")\n"
                             "s = socket.create_connection(('127.0.0.1', " + std::to_string(echo.port()) + "))\n"
                             "s.sendall(payload)\n"
                             "got = 0\n"
                             "while got < len(payload):\n"
                             "    got += len(s.recv(1 << 20))\n"
                             "s.close()\n";
  const ProcessResult r = record({"--quiet", "--raw", tmp.file("r.raw")}, {"/usr/bin/python3", "-c", client});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const std::string raw = readFile(tmp.file("r.raw"));
  EXPECT_GT(raw.size(), 3 * kSize);
  std::string sent, received;
  for (const auto& line : splitLines(raw)) {
    talvex::ParsedMessage m;
    ASSERT_TRUE(talvex::parseRecorderMessage(line, &m, nullptr)) << line.substr(0, 200);
    const auto* data = m.find("data");
    if (data == nullptr || m.find("error") != nullptr) continue;
    if (m.kind == "send") sent += data->bytes;
    if (m.kind == "receive") received += data->bytes;
  }
  std::string payload;
  for (size_t i = 0; i < kSize; ++i) payload.push_back(static_cast<char>(i % 256));
  EXPECT_TRUE(sent == payload) << sent.size();
  EXPECT_TRUE(received == payload) << received.size();
  // Blocks allocated ahead of the writes and not written were given back.
  struct stat file;
  ASSERT_EQ(stat(tmp.file("r.raw").c_str(), &file), 0);
  EXPECT_EQ(static_cast<size_t>(file.st_size), raw.size());
  EXPECT_LT(static_cast<size_t>(file.st_blocks) * 512, raw.size() + (1u << 20));
}

TEST(TalvexRecord, UnwritableOutputsStopTheRunBeforeItBegins) {
  TempDir tmp;
  const std::string marker = tmp.file("ran");
  for (const char* option : {"--raw", "--jsonl", "--transcript", "--pcap", "--har", "--html"}) {
    const ProcessResult r = record({option, "/nonexistent/dir/out"}, {"/bin/sh", "-c", "touch " + marker});
    EXPECT_EQ(r.exitCode, 1) << option;
    EXPECT_EQ(r.err.rfind("talvex-record: cannot write /nonexistent/dir/out: ", 0), 0u) << r.err;
    EXPECT_EQ(access(marker.c_str(), F_OK), -1) << option;
  }
}

// An output the system refuses to take in full is named in the end, and the run fails.
TEST(TalvexRecord, AnOutputThatCannotBeWrittenInFullIsNamed) {
  EchoServer echo;
  for (const char* option : {"--raw", "--jsonl", "--pcap", "--har", "--html"}) {
    const ProcessResult r =
        record({"--quiet", option, "/dev/full"}, {kRecordingProbePath, "vectors", std::to_string(echo.port())});
    EXPECT_EQ(r.exitCode, 1) << option;
    EXPECT_EQ(r.err, "talvex-record: could not write all of /dev/full\n") << option;
  }
}

// "-" is standard output, as for other tools, not a file of that name; "--" is no option's value.
// A stop signal sent to talvex-record reaches every process of the command, background children
// included, and talvex-record exits as the command did.
TEST(TalvexRecord, AStopSignalEndsEveryProcessOfTheCommand) {
  const std::string first = "sleep " + std::to_string(200000 + getpid());
  const std::string second = "sleep " + std::to_string(300000 + getpid());
  BackgroundProcess run({kRecordPath, "-q", "--", "/bin/sh", "-c", first + " & " + second + "; wait"},
                        cleanEnvironment());
  ASSERT_TRUE(waitUntil([&] { return processesRunning(first) == 1 && processesRunning(second) == 1; }));
  run.signal(SIGTERM);
  const ProcessResult r = run.wait(std::chrono::seconds(10));
  EXPECT_FALSE(r.timedOut);
  EXPECT_EQ(r.exitCode, 128 + SIGTERM) << r.err;
  EXPECT_TRUE(waitUntil([&] { return processesRunning(first) == 0 && processesRunning(second) == 0; },
                        std::chrono::seconds(3)));
}

// What ignores the signal is killed when the grace period is over.
TEST(TalvexRecord, WhatIgnoresAStopSignalIsKilledAfterTheGracePeriod) {
  const std::string sleeper = "sleep " + std::to_string(400000 + getpid());
  BackgroundProcess run({kRecordPath, "-q", "--grace", "1", "--", "/bin/sh", "-c", "trap '' TERM; " + sleeper},
                        cleanEnvironment());
  ASSERT_TRUE(waitUntil([&] { return processesRunning(sleeper) == 1; }));
  run.signal(SIGTERM);
  const ProcessResult r = run.wait(std::chrono::seconds(10));
  EXPECT_FALSE(r.timedOut);
  EXPECT_EQ(r.exitCode, 128 + SIGKILL) << r.err;
  EXPECT_TRUE(waitUntil([&] { return processesRunning(sleeper) == 0; }, std::chrono::seconds(3)));
  const ProcessResult bad = record({"--grace", "soon"}, {"/bin/true"});
  EXPECT_EQ(bad.exitCode, 2);
  EXPECT_EQ(bad.err, "talvex-record: --grace needs a number of seconds from 0 to 86400\n"
                     "Try 'talvex-record --help' for more information.\n");
}

TEST(TalvexRecord, TranscriptDashIsStandardOutputAndDashDashIsNoValue) {
  EchoServer echo;
  TempDir tmp;
  const std::string dash = tmp.file("-");
  const ProcessResult r = runProcess({"/bin/sh", "-c",
                                      "cd '" + tmp.path() + "' && exec '" + kRecordPath + "' --transcript - -- '" +
                                          kRecordingProbePath + "' vectors " + std::to_string(echo.port())},
                                     cleanEnvironment());
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(linesContaining(r.out, "summary: 1 socket, ").size(), 1u) << r.out;
  EXPECT_EQ(linesContaining(r.err, "summary: ").size(), 0u) << r.err;
  EXPECT_NE(access(dash.c_str(), F_OK), 0) << "a file named - was written";
  for (const char* option : {"--only", "--exclude", "--raw", "--transcript"}) {
    const ProcessResult e = record({option}, {kRecordingProbePath, "vectors", std::to_string(echo.port())});
    EXPECT_EQ(e.exitCode, 2) << option;
    EXPECT_EQ(e.err, std::string("talvex-record: option ") + option +
                         " needs a value\nTry 'talvex-record --help' for more information.\n")
        << option;
  }
}

TEST(TalvexRecord, VersionShortErrorsAndOptionsThatWorkTogether) {
  ProcessResult r = runProcess({kRecordPath, "--version"}, cleanEnvironment());
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_TRUE(std::regex_match(r.out, std::regex("talvex-record [0-9]+\\.[0-9]+\\.[0-9]+\n"))) << r.out;
  r = runProcess({kRecorderPath, "-V"}, cleanEnvironment());
  EXPECT_TRUE(std::regex_match(r.out, std::regex("talvex-recorder [0-9]+\\.[0-9]+\\.[0-9]+\n"))) << r.out;
  r = runProcess({kRecordPath, "--bogus", "true"}, cleanEnvironment());
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_EQ(r.err, "talvex-record: unknown option --bogus\nTry 'talvex-record --help' for more information.\n");
  r = runProcess({kRecordPath, "--raw"}, cleanEnvironment());
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_EQ(r.err, "talvex-record: option --raw needs a value\nTry 'talvex-record --help' for more information.\n");
  r = runProcess({kRecordPath, "--log-level", "all", "true"}, cleanEnvironment());
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_EQ(r.err.rfind("talvex-record: --log-level needs --log-dir", 0), 0u) << r.err;
  // A listening address by name, and --name=value.
  EchoServer echo;
  TempDir tmp;
  r = record({"--listen", "localhost:0", "--raw=" + tmp.file("r.raw")},
             {kRecordingProbePath, "vectors", std::to_string(echo.port())});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(linesContaining(readFile(tmp.file("r.raw")), "data_AS=\"abcdefg\"").size(), 2u);
}

TEST(TalvexRecord, ManPagesAreInstalledAndDescribeEveryOption) {
  TempDir prefix;
  const ProcessResult install =
      runProcess({"/usr/bin/cmake", "--install", kBuildDir, "--prefix", prefix.path()}, cleanEnvironment());
  ASSERT_EQ(install.exitCode, 0) << install.err;
  for (const std::string tool : {"talvex-record", "talvex-recorder"}) {
    const ProcessResult page = runProcess({"/usr/bin/man", "-l", prefix.file("share/man/man1/" + tool + ".1")},
                                          cleanEnvironment({{"LANG", "C"}, {"MANPAGER", "cat"}, {"PAGER", "cat"}}));
    ASSERT_EQ(page.exitCode, 0) << page.err;
    EXPECT_NE(page.out.find("NAME"), std::string::npos);
    const ProcessResult help = runProcess({prefix.file("bin/" + tool), "--help"}, cleanEnvironment());
    const std::regex option("--[a-z][a-z-]+");
    int options = 0;
    for (std::sregex_iterator it(help.out.begin(), help.out.end(), option), end; it != end; ++it, ++options) {
      EXPECT_NE(page.out.find(it->str()), std::string::npos) << tool << " man page lacks " << it->str();
    }
    EXPECT_GT(options, 5) << help.out;
  }
}

TEST(TalvexRecord, OnlyAndExcludeChooseTheConnectionsShown) {
  EchoServer wanted, other;
  TempDir tmp;
  const std::string script = "import socket\n"
                             "for port, text in ((" + std::to_string(wanted.port()) + ", b'wanted'), (" +
                             std::to_string(other.port()) + ", b'other')):\n"
                             "    s = socket.create_connection(('127.0.0.1', port)); s.sendall(text); print(s.recv(64).decode()); s.close()\n";
  ProcessResult r = record({"--only", "localhost:" + std::to_string(wanted.port()), "--raw", tmp.file("only.raw")},
                           {"/usr/bin/python3", "-c", script});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "wanted\nother\n");  // the program is not affected
  std::string raw = readFile(tmp.file("only.raw"));
  EXPECT_EQ(linesContaining(raw, "\"wanted\"").size(), 2u) << raw;
  EXPECT_EQ(linesContaining(raw, "\"other\"").size(), 0u) << raw;
  EXPECT_EQ(linesContaining(raw, "<connect ").size(), 1u) << raw;
  EXPECT_EQ(linesContaining(raw, "<close ").size(), 1u) << raw;
  r = record({"--exclude", ":" + std::to_string(wanted.port()), "--raw", tmp.file("exclude.raw")},
             {"/usr/bin/python3", "-c", script});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  raw = readFile(tmp.file("exclude.raw"));
  EXPECT_EQ(linesContaining(raw, "\"wanted\"").size(), 0u) << raw;
  EXPECT_EQ(linesContaining(raw, "\"other\"").size(), 2u) << raw;
  EXPECT_EQ(record({"--only", "no.such.host.invalid"}, {"/bin/true"}).exitCode, 2);
}

TEST(TalvexRecord, FlatJsonLinesAnswerJqDirectly) {
  EchoServer echo;
  TempDir tmp;
  const ProcessResult r = record({"--jsonl", tmp.file("r.jsonl")},
                                 {kRecordingProbePath, "vectors", std::to_string(echo.port())});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const auto jq = [&](const std::string& filter) {
    const ProcessResult q = runProcess({"/usr/bin/jq", "-r", filter, tmp.file("r.jsonl")}, cleanEnvironment());
    EXPECT_EQ(q.exitCode, 0) << q.err;
    return q.out;
  };
  EXPECT_EQ(jq("select(.kind==\"send\") | .data"), "abcdefg\n");
  EXPECT_EQ(jq("select(.kind==\"receive\") | \"\\(.remote_ip) \\(.remote_port) \\(.data_b64)\""),
            "127.0.0.1 " + std::to_string(echo.port()) + " YWJjZGVmZw==\n");
  // Nanoseconds do not fit a double: they are strings, exact.
  EXPECT_EQ(jq("select(.kind==\"process\") | .timestamp_ns | type"), "string\n");
  EXPECT_EQ(jq("select(.kind==\"connect\") | .pid | type"), "number\n");
  // One name per fact: the connect's far end is spelt as every other message's.
  EXPECT_EQ(jq("select(.kind==\"connect\") | \"\\(.remote_ip) \\(.remote_port) \\(.local_ip) \\(.local_port|type)\""),
            "127.0.0.1 " + std::to_string(echo.port()) + " 127.0.0.1 number\n");
  EXPECT_EQ(jq("select(.kind==\"process\") | .timestamp > 1700000000000"), "true\n");
  EXPECT_EQ(jq("select(.kind==\"process\") | .command_line[1]"), "vectors\n");
  EXPECT_EQ(jq("select(.ip or .port or .localport or .workingdir) | .kind"), "");
  expectValidJsonLines(tmp.file("r.jsonl"));
}

TEST(TalvexRecord, TranscriptNamesErrorsWritesIpv6AsPeopleDoAndSaysItsTimeZone) {
  const int closed = closedLoopbackPort();
  TempDir tmp;
  const std::string script = "import socket\n"
                             "server = socket.create_server(('::1', 0), family=socket.AF_INET6)\n"
                             "c = socket.create_connection(('::1', server.getsockname()[1])); c.sendall(b'six'); c.close()\n"
                             "try:\n"
                             "    socket.create_connection(('127.0.0.1', " + std::to_string(closed) + "))\n"
                             "except OSError:\n"
                             "    print('refused')\n";
  const ProcessResult r = record({"--transcript", tmp.file("t.txt")}, {"/usr/bin/python3", "-c", script},
                                 {{"TZ", "Europe/Paris"}});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const std::string transcript = readFile(tmp.file("t.txt"));
  EXPECT_TRUE(std::regex_search(transcript, std::regex(R"(; times are local \(UTC\+0[12]:00, CES?T\)\n)"))) << transcript;
  EXPECT_TRUE(std::regex_search(transcript, std::regex(R"(connect \[::1\]:\d+ -> \[::1\]:\d+ )"))) << transcript;
  EXPECT_NE(transcript.find("-> 127.0.0.1:" + std::to_string(closed) + " FAILED (ECONNREFUSED: Connection refused)"),
            std::string::npos)
      << transcript;
  EXPECT_NE(transcript.find("> sent 3 bytes\n      six\n"), std::string::npos) << transcript;
  EXPECT_EQ(transcript.find("0:0:0:0"), std::string::npos);
  EXPECT_EQ(transcript.find("AF_CCITT"), std::string::npos);
}

// Calls one after another in one direction read as one block with their count; a call that is
// not recorded, made again and again, as one name with its count.
TEST(TalvexRecord, RepeatedCallsReadAsOneBlock) {
  EchoServer echo;
  TempDir tmp;
  const ProcessResult r = record(
      {"--transcript", tmp.file("t.txt")},
      {"/usr/bin/python3", "-c",
       "import socket, select\n"
       "s = socket.create_connection(('127.0.0.1', " + std::to_string(echo.port()) + "))\n"
       "for b in (b'a', b'b', b'c', b'd'): s.send(b)\n"
       "for i in range(5): select.select([s], [], [], 5)\n"
       "got = b''\n"
       "while len(got) < 4: got += s.recv(1)\n"
       "s.close()\n"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const std::string transcript = readFile(tmp.file("t.txt"));
  EXPECT_EQ(linesContaining(transcript, " > sent 4 bytes in 4 calls").size(), 1u) << transcript;
  EXPECT_NE(transcript.find(" > sent 4 bytes in 4 calls\n      abcd\n"), std::string::npos) << transcript;
  EXPECT_EQ(linesContaining(transcript, " < received 4 bytes in 4 calls").size(), 1u) << transcript;
  EXPECT_EQ(linesContaining(transcript, "calls seen but not recorded: select (5 times)").size(), 1u) << transcript;
}

TEST(TalvexRecord, LiveViewPrintsEachEventAsItHappens) {
  EchoServer echo;
  const ProcessResult r = record({"--live"}, {kRecordingProbePath, "vectors", std::to_string(echo.port())});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_TRUE(std::regex_search(
      r.err, std::regex(R"(\d\d:\d\d:\d\d\.\d{6} \[\d+\] socket \d+ connect 127\.0\.0\.1:[1-9]\d* -> 127\.0\.0\.1:)" +
                        std::to_string(echo.port()) + "\n")))
      << r.err;
  EXPECT_NE(r.err.find("> 7 bytes  abcdefg\n"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("< 7 bytes  abcdefg\n"), std::string::npos) << r.err;
  // It ends with the transcript's summary line, counted as the messages came.
  const auto lines = splitLines(r.err);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back().rfind("summary: 1 socket, ", 0), 0u) << r.err;
  EXPECT_EQ(linesContaining(r.err, "summary: ").size(), 1u) << r.err;
  // Resolutions and calls that are not recorded read as sentences.
  const ProcessResult p = record(
      {"--live"}, {"/usr/bin/python3", "-c",
                   "import socket, select\n"
                   "socket.getaddrinfo('127.0.0.1', 80, socket.AF_INET, socket.SOCK_STREAM)\n"
                   "select.select([], [], [], 0)\n"});
  ASSERT_EQ(p.exitCode, 0) << p.err;
  EXPECT_EQ(linesContaining(p.err, " resolved 127.0.0.1 -> 127.0.0.1 (AF_INET)").size(), 1u) << p.err;
  EXPECT_EQ(linesContaining(p.err, " select was called (not recorded)").size(), 1u) << p.err;
  EXPECT_EQ(splitLines(p.err).back(), "summary: 0 sockets, 3 messages, 0 bytes sent, 0 bytes received, 0 failures")
      << p.err;
}
