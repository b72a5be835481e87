// What talvex-record reports of ordinary programs is what they did: failed connects read as
// failures, a connection carried by several descriptors is one, accepted connections are in the
// capture, resolutions and unrecorded sockets are named.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <iostream>
#include <string>

#include "capture_check.h"
#include "json_lines_check.h"
#include "process_runner.h"
#include "record_command.h"
#include "recorder_message_parser.h"
#include "system_tools.h"
#include "test_paths.h"

using namespace talvex_test;

namespace {

ProcessResult record(const std::vector<std::string>& options, const std::vector<std::string>& command) {
  return recordCommand(options, command, {{"HOME", "/tmp"}});
}

size_t count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// One field per packet of a capture, as tshark prints it.
std::vector<std::string> captureFields(const std::string& capture, const std::string& field) {
  const ProcessResult r = runProcess({"/usr/bin/tshark", "-r", capture, "-T", "fields", "-e", field},
                                     cleanEnvironment({{"HOME", "/tmp"}}));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  return splitLines(r.out);
}

// What jq prints of a JSON Lines file for `filter`, one result a line.
std::string jq(const std::string& filter, const std::string& file) {
  const ProcessResult r = runProcess({"/usr/bin/jq", "-r", filter, file}, cleanEnvironment());
  EXPECT_EQ(r.exitCode, 0) << r.err;
  return r.out;
}

// The start of a python server under the recording: listens on a loopback port the system
// chooses and writes its number to `portFile` (whole, by a rename), then carries on with `rest`.
std::string pythonServer(const std::string& portFile, const std::string& rest) {
  return "import os, socket\n"
         "l = socket.socket()\n"
         "l.bind(('127.0.0.1', 0))\n"
         "l.listen(1)\n"
         "open('" + portFile + ".part', 'w').write(str(l.getsockname()[1]))\n"
         "os.rename('" + portFile + ".part', '" + portFile + "')\n"
         "c, _ = l.accept()\n" + rest;
}

// A connection from the test to that server, once it has said its port (-1 when it never did).
int connectToServer(const std::string& portFile, int* port) {
  if (!waitUntil([&] { return !readFile(portFile).empty(); }, std::chrono::seconds(20))) return -1;
  *port = std::stoi(readFile(portFile));
  const int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(*port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    close(s);
    return -1;
  }
  return s;
}

}  // namespace

TEST(RecordReports, CurlToARefusedPortIsAFailureEverywhere) {
  TALVEX_REQUIRE_PROGRAM("/usr/bin/curl");
  TALVEX_REQUIRE_PROGRAM("/usr/bin/tshark");
  TempDir tmp;
  const std::string port = std::to_string(closedLoopbackPort());
  const ProcessResult r = record({"--live", "--transcript", tmp.file("t.txt"), "--jsonl", tmp.file("r.jsonl"), "--pcap",
                                  tmp.file("r.pcap")},
                                 {"/usr/bin/curl", "-s", "http://127.0.0.1:" + port + "/"});
  EXPECT_EQ(r.exitCode, 7) << r.err;  // curl's "failed to connect", passed on
  const std::string transcript = readFile(tmp.file("t.txt"));
  EXPECT_EQ(count(transcript, "-> 127.0.0.1:" + port + " FAILED (ECONNREFUSED: Connection refused)  at "), 1u)
      << transcript;
  EXPECT_NE(transcript.find("summary: 1 socket, "), std::string::npos) << transcript;
  EXPECT_NE(transcript.find(" received, 1 failure\n"), std::string::npos) << transcript;
  // The live view says it when curl learns it, and ends with the same count.
  EXPECT_EQ(count(r.err, "-> 127.0.0.1:" + port + " FAILED (ECONNREFUSED: Connection refused)\n"), 1u) << r.err;
  EXPECT_NE(r.err.find(" received, 1 failure\n"), std::string::npos) << r.err;
  // A SYN answered by a reset: no handshake, no close.
  EXPECT_EQ(captureFields(tmp.file("r.pcap"), "tcp.flags"), (std::vector<std::string>{"0x0002", "0x0014"}));
  EXPECT_EQ(jq("select(.kind==\"connectoutcome\") | \"\\(.connection_state) \\(.connection_error_name)\"", tmp.file("r.jsonl")),
            "failed ECONNREFUSED\n");
  expectValidJsonLines(tmp.file("r.jsonl"));
}

TEST(RecordReports, ADuplicatedDescriptorIsOneConversation) {
  TALVEX_REQUIRE_PROGRAM("/usr/bin/tshark");
  EchoServer echo;
  TempDir tmp;
  const std::string script =
      "import os, socket\n"
      "s = socket.create_connection(('127.0.0.1', " + std::to_string(echo.port()) + "))\n"
      "s.sendall(b'one')\n"
      "d = os.dup(s.fileno())\n"
      "os.write(d, b'two')\n"
      "got = b''\n"
      "while len(got) < 6: got += s.recv(64)\n"
      "os.close(d)\n"
      "s.close()\n";
  const ProcessResult r = record({"--transcript", tmp.file("t.txt"), "--pcap", tmp.file("r.pcap"), "--jsonl",
                                  tmp.file("r.jsonl")},
                                 {"/usr/bin/python3", "-c", script});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const std::string transcript = readFile(tmp.file("t.txt"));
  EXPECT_EQ(count(transcript, "\n-- socket "), 1u) << transcript;
  EXPECT_EQ(count(transcript, ": connect 127.0.0.1:"), 1u) << transcript;
  EXPECT_EQ(count(transcript, "accepted from"), 0u) << transcript;
  EXPECT_NE(transcript.find("> sent 6 bytes in 2 calls\n      onetwo\n"), std::string::npos) << transcript;
  EXPECT_NE(transcript.find("summary: 1 socket, "), std::string::npos) << transcript;
  std::string client, server;
  followStream(tmp.file("r.pcap"), &client, &server);
  EXPECT_EQ(client, "onetwo");
  EXPECT_EQ(server, "onetwo");
  expectValidJsonLines(tmp.file("r.jsonl"));
}

TEST(RecordReports, ASocketConnectedAgainToLearnTheOutcomeIsOneSocket) {
  EchoServer echo;
  TempDir tmp;
  const std::string address = "('127.0.0.1', " + std::to_string(echo.port()) + ")";
  const std::string script =
      "import errno, select, socket\n"
      "s = socket.socket()\n"
      "s.setblocking(False)\n"
      "s.connect_ex(" + address + ")\n"
      "for attempt in range(100):\n"
      "    select.select([], [s], [], 5)\n"
      "    if s.connect_ex(" + address + ") in (0, errno.EISCONN): break\n"
      "s.setblocking(True)\n"
      "s.sendall(b'ping')\n"
      "s.recv(4)\n"
      "s.close()\n";
  const ProcessResult r = record({"--transcript", tmp.file("t.txt")}, {"/usr/bin/python3", "-c", script});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const std::string transcript = readFile(tmp.file("t.txt"));
  EXPECT_EQ(count(transcript, "\n-- socket "), 1u) << transcript;
  EXPECT_EQ(count(transcript, " (in progress, then connected)  at "), 1u) << transcript;
  EXPECT_NE(transcript.find("summary: 1 socket, "), std::string::npos) << transcript;
  EXPECT_NE(transcript.find(" received, 0 failures\n"), std::string::npos) << transcript;
}

TEST(RecordReports, AnAcceptedConnectionIsAStreamInTheCapture) {
  TALVEX_REQUIRE_PROGRAM("/usr/bin/tshark");
  TempDir tmp;
  const std::string script = pythonServer(tmp.file("port"),
                                          "c.recv(4)\n"
                                          "c.sendall(b'pong')\n"
                                          "c.close()\n"
                                          "l.close()\n");
  BackgroundProcess server({kRecordPath, "--pcap", tmp.file("r.pcap"), "-q", "--", "/usr/bin/python3", "-c", script},
                           cleanEnvironment());
  int port = 0;
  const int s = connectToServer(tmp.file("port"), &port);
  ASSERT_GE(s, 0);
  ASSERT_EQ(send(s, "ping", 4, 0), 4);
  char back[4];
  EXPECT_EQ(recv(s, back, sizeof back, MSG_WAITALL), 4);
  close(s);
  const ProcessResult r = server.wait(std::chrono::seconds(30));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  std::string client, serverBytes;
  followStream(tmp.file("r.pcap"), &client, &serverBytes);
  EXPECT_EQ(client, "ping");
  EXPECT_EQ(serverBytes, "pong");
  // The server's end is the listening address.
  const auto ports = captureFields(tmp.file("r.pcap"), "tcp.dstport");
  ASSERT_FALSE(ports.empty());
  EXPECT_EQ(ports[0], std::to_string(port));
}

TEST(RecordReports, ResolutionsShowEveryAddressAndNamesThatFailed) {
  TempDir tmp;
  const std::string script =
      "import socket\n"
      "socket.getaddrinfo('::1', 80, type=socket.SOCK_STREAM)\n"
      "try:\n"
      "    socket.getaddrinfo('not-a-number', 80, flags=socket.AI_NUMERICHOST)\n"
      "except socket.gaierror:\n"
      "    pass\n";
  const ProcessResult r = record({"--transcript", tmp.file("t.txt"), "--jsonl", tmp.file("r.jsonl")},
                                 {"/usr/bin/python3", "-c", script});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const std::string transcript = readFile(tmp.file("t.txt"));
  EXPECT_NE(transcript.find("\n   resolved ::1 -> ::1 (AF_INET6)\n"), std::string::npos) << transcript;
  EXPECT_NE(transcript.find("\n   could not resolve not-a-number: EAI_NONAME: Name or service not known\n"),
            std::string::npos)
      << transcript;
  EXPECT_EQ(jq("select(.kind==\"addrinfo\") | \"\\(.name) \\(.address) \\(.resolver_error_name) \\(.pid|type)\"",
               tmp.file("r.jsonl")),
            "::1 ::1 null number\nnot-a-number null EAI_NONAME number\n");
  expectValidJsonLines(tmp.file("r.jsonl"));
}

TEST(RecordReports, SocketsNotRecordedAreCountedByKind) {
  EchoServer echo;
  TempDir tmp;
  const std::string script =
      "import socket\n"
      "u = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
      "u.sendto(b'x', ('127.0.0.1', " + std::to_string(echo.port()) + "))\n"
      "a, b = socket.socketpair()\n"
      "a.send(b'hi')\n"
      "b.recv(2)\n";
  const ProcessResult r = record({}, {"/usr/bin/python3", "-c", script});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  // The transcript goes to standard error: it ends with what it does not hold, and no word of Go.
  EXPECT_NE(r.err.find("\n3 sockets not recorded: 1 UDP, 2 UNIX-domain stream\nsummary: 0 sockets, "),
            std::string::npos)
      << r.err;
  EXPECT_EQ(r.err.find("Go programs"), std::string::npos) << r.err;
}

TEST(RecordReports, QuietWithNothingToRecordPrintsNothing) {
  const ProcessResult r = record({"-q"}, {"/bin/true"});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
}

TEST(RecordReports, EachProcessIsNamedByItsProgram) {
  EchoServer echo;
  TempDir tmp;
  const ProcessResult r = record({"--transcript", tmp.file("t.txt")},
                                 {kRecordingProbePath, "vectors", std::to_string(echo.port())});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(readFile(tmp.file("t.txt")).find(": " + std::string(kRecordingProbePath) + " vectors " +
                                             std::to_string(echo.port()) + " in "),
            std::string::npos)
      << readFile(tmp.file("t.txt"));
}

TEST(RecordReports, SendmsgWithTooManyVectorsAndWithNone) {
  EchoServer echo;
  TempDir tmp;
  ProcessResult r = record({"--transcript", tmp.file("many.txt")},
                           {kRecordingProbePath, "many-vectors", std::to_string(echo.port())});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  // Refused by the kernel: nothing went, the count asked for is shown.
  EXPECT_NE(readFile(tmp.file("many.txt")).find("> sent 1025 bytes FAILED (EMSGSIZE: Message too long)\n"),
            std::string::npos)
      << readFile(tmp.file("many.txt"));
  r = record({"--transcript", tmp.file("none.txt")}, {kRecordingProbePath, "no-vectors", std::to_string(echo.port())});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  // The empty send and the next one are one block; a receive into no vectors is no end of stream.
  EXPECT_NE(readFile(tmp.file("none.txt")).find("> sent 1 byte in 2 calls\n      x\n   "), std::string::npos)
      << readFile(tmp.file("none.txt"));
  EXPECT_EQ(count(readFile(tmp.file("none.txt")), "end of stream"), 0u) << readFile(tmp.file("none.txt"));
}

TEST(RecordReports, GitCloneOverGitProtocolIsOneConnection) {
  TALVEX_REQUIRE_PROGRAM("/usr/bin/git");
  TempDir tmp;
  const Environment git = cleanEnvironment({{"HOME", tmp.path()}, {"GIT_CONFIG_NOSYSTEM", "1"}});
  ASSERT_EQ(runProcess({"/usr/bin/git", "init", "-q", "--bare", tmp.file("repo.git")}, git).exitCode, 0);
  const std::string port = std::to_string(closedLoopbackPort());
  BackgroundProcess daemon({"/usr/bin/git", "daemon", "--export-all", "--reuseaddr", "--listen=127.0.0.1",
                            "--port=" + port, "--base-path=" + tmp.path(), tmp.path()},
                           git);
  ASSERT_TRUE(waitForListener(std::stoi(port)));
  const ProcessResult r = runProcess({kRecordPath, "--transcript", tmp.file("t.txt"), "--", "/usr/bin/git", "clone", "-q",
                                      "git://127.0.0.1:" + port + "/repo.git", tmp.file("copy")},
                                     git, std::chrono::seconds(60));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const std::string transcript = readFile(tmp.file("t.txt"));
  EXPECT_EQ(count(transcript, ": connect 127.0.0.1:"), 1u) << transcript;
  EXPECT_EQ(count(transcript, "accepted from"), 0u) << transcript;
  EXPECT_EQ(count(transcript, "traffic of a socket whose opening was not seen"), 0u) << transcript;
}

TEST(RecordReports, AConnectionInheritedByAChildIsOneConversation) {
  EchoServer echo;
  TempDir tmp;
  const std::string script =
      "import os, socket\n"
      "s = socket.create_connection(('127.0.0.1', " + std::to_string(echo.port()) + "))\n"
      "s.sendall(b'parent')\n"
      "child = os.fork()\n"
      "if child == 0:\n"
      "    s.sendall(b'child')\n"
      "    os._exit(0)\n"
      "os.waitpid(child, 0)\n"
      "got = b''\n"
      "while len(got) < 11: got += s.recv(64)\n"
      "s.close()\n";
  const ProcessResult r = record({"--transcript", tmp.file("t.txt")}, {"/usr/bin/python3", "-c", script});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const std::string transcript = readFile(tmp.file("t.txt"));
  EXPECT_EQ(count(transcript, "\n-- socket "), 1u) << transcript;
  EXPECT_NE(transcript.find(": connect 127.0.0.1:"), std::string::npos) << transcript;
  // The child's copy is named beside the parent's; what both sent is one block.
  EXPECT_EQ(count(transcript, " of process "), 1u) << transcript;
  EXPECT_NE(transcript.find("> sent 11 bytes in 2 calls\n      parentchild\n"), std::string::npos) << transcript;
  // The child never closed its copy: the parent's close leaves the connection open.
  EXPECT_EQ(count(transcript, " (the connection stays open through another descriptor)\n"), 1u) << transcript;
  EXPECT_NE(transcript.find("summary: 1 socket, "), std::string::npos) << transcript;
}

TEST(RecordReports, ProgramsBuiltWithSanitizersAreRecorded) {
  // AddressSanitizer's runtime as a library of its own (gcc's default), 32- or 64-bit as the suite.
  EchoServer echo;
  TempDir tmp;
  const std::vector<std::string> argv = {kDynamicAsanHostProbePath, std::to_string(echo.port())};
  const ProcessResult r = record({"--raw", tmp.file("r.raw"), "-q"}, argv);
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out,
            "getaddrinfo result=0 errno=0\nconnect result=0 errno=0\nsend result=4 errno=0\nrecv result=4 errno=0\n"
            "close result=0 errno=0\n");
  EXPECT_EQ(r.err, "");
  const std::string raw = readFile(tmp.file("r.raw"));
  EXPECT_EQ(count(raw, "<connect "), 1u) << raw;
  EXPECT_EQ(count(raw, "data_AS=\"asan\""), 2u) << raw;
  // Without -q it says what it did.
  const ProcessResult told = record({"--raw", tmp.file("r2.raw")}, argv);
  EXPECT_NE(told.err.find(" uses AddressSanitizer, whose runtime insists on coming first in LD_PRELOAD: it was told "
                          "not to (ASAN_OPTIONS=verify_asan_link_order=0), and the agent runs in front of it\n"),
            std::string::npos)
      << told.err;
  // UndefinedBehaviorSanitizer, and ThreadSanitizer where the ABI has it, need nothing said.
  std::vector<std::string> others = {kUbsanHostProbePath};
  if (std::string(kTsanHostProbePath).empty()) {
    std::cout << "ThreadSanitizer has no 32-bit x86 runtime: its host is tried in the 64-bit suite only\n";
  } else {
    others.push_back(kTsanHostProbePath);
  }
  for (const std::string& program : others) {
    const ProcessResult other = record({"--raw", tmp.file("other.raw"), "-q"}, {program, std::to_string(echo.port())});
    ASSERT_EQ(other.exitCode, 0) << program << other.err;
    EXPECT_EQ(other.out, r.out) << program;
    EXPECT_EQ(other.err, "") << program;
    EXPECT_EQ(count(readFile(tmp.file("other.raw")), "data_AS=\"asan\""), 2u) << program;
  }
}

TEST(RecordReports, ASocketOnStandardInputAndOutputIsFollowed) {
  // As inetd starts a service: the connection on descriptors 0 and 1, then the program.
  TempDir tmp;
  const std::string script = pythonServer(tmp.file("port"),
                                          "os.dup2(c.fileno(), 0)\n"
                                          "os.dup2(c.fileno(), 1)\n"
                                          "os.execv('/bin/cat', ['cat'])\n");
  BackgroundProcess service({kRecordPath, "--raw", tmp.file("r.raw"), "--transcript", tmp.file("t.txt"), "--",
                             "/usr/bin/python3", "-c", script},
                            cleanEnvironment());
  int port = 0;
  const int s = connectToServer(tmp.file("port"), &port);
  ASSERT_GE(s, 0);
  std::string sent(65536, '\0');
  for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 7);
  ASSERT_EQ(send(s, sent.data(), sent.size(), 0), static_cast<ssize_t>(sent.size()));
  shutdown(s, SHUT_WR);
  std::string back;
  char buffer[8192];
  for (ssize_t n; (n = recv(s, buffer, sizeof buffer, 0)) > 0;) back.append(buffer, static_cast<size_t>(n));
  close(s);
  EXPECT_TRUE(back == sent) << back.size();
  const ProcessResult r = service.wait(std::chrono::seconds(30));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  // Every byte cat read from descriptor 0 and wrote to descriptor 1, in one conversation with the
  // accept that made it.
  std::string received, written;
  for (const std::string& line : splitLines(readFile(tmp.file("r.raw")))) {
    talvex::ParsedMessage m;
    ASSERT_TRUE(talvex::parseRecorderMessage(line, &m, nullptr)) << line;
    if (m.kind == "receive" && m.integer("socket") == 0) received += m.text("data");
    if (m.kind == "send" && m.integer("socket") == 1) written += m.text("data");
  }
  EXPECT_TRUE(received == sent) << received.size();
  EXPECT_TRUE(written == sent) << written.size();
  const std::string transcript = readFile(tmp.file("t.txt"));
  EXPECT_EQ(count(transcript, "\n-- socket "), 1u) << transcript.substr(0, 2000);
  // Python accepted it; cat, the same process after the exec, carried it on descriptors 0 and 1.
  EXPECT_NE(transcript.find(", socket 0, socket 1: accepted from 127.0.0.1:"), std::string::npos) << transcript.substr(0, 2000);
  EXPECT_EQ(count(transcript, "== process "), 2u) << transcript.substr(0, 2000);
  EXPECT_NE(transcript.find(": cat in "), std::string::npos) << transcript.substr(0, 2000);
}

TEST(RecordReports, AProcessInANetworkNamespaceOfItsOwnIsRecorded) {
  TALVEX_REQUIRE_NETWORK_NAMESPACES();
  TempDir tmp;
  // A server and its client inside the namespace, on its own loopback.
  const std::string script =
      "import socket, threading\n"
      "l = socket.socket()\n"
      "l.bind(('127.0.0.1', 0))\n"
      "l.listen(1)\n"
      "def serve():\n"
      "    c, _ = l.accept()\n"
      "    c.sendall(c.recv(64))\n"
      "    c.close()\n"
      "t = threading.Thread(target=serve)\n"
      "t.start()\n"
      "s = socket.create_connection(l.getsockname())\n"
      "s.sendall(b'inside')\n"
      "s.recv(64)\n"
      "s.close()\n"
      "t.join()\n";
  TempDir temporary;  // talvex-record's $TMPDIR, where its socket's directory goes
  const ProcessResult r =
      runProcess({kRecordPath, "--raw", tmp.file("r.raw"), "-q", "--", "/usr/bin/unshare", "--net", "/bin/sh", "-c",
                  "/sbin/ip link set lo up && exec /usr/bin/python3 -c \"$0\"", script},
                 cleanEnvironment({{"TMPDIR", temporary.path()}}), std::chrono::seconds(60));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const std::string raw = readFile(tmp.file("r.raw"));
  // Each end sent and received the six bytes.
  EXPECT_EQ(count(raw, "data_AS=\"inside\""), 4u) << raw;
  EXPECT_EQ(count(raw, "<connect "), 1u) << raw;
  EXPECT_EQ(count(raw, "<accept "), 1u) << raw;
  // Nothing is left behind.
  EXPECT_TRUE(listDirectory(temporary.path()).empty());
}
