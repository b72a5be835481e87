// Programs no preloaded library can enter, recorded by talvex-record's kernel tracer: static
// clients (glibc 64- and 32-bit, musl), a Go client and server built by the suite from Go's standard library,
// Debian's hey (Go). Each recording is checked byte for byte against what the suite's server
// received and sent; then a tracer that is refused, a stop signal, and talvex-record killed.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "http_servers.h"
#include "process_runner.h"
#include "record_command.h"
#include "system_tools.h"
#include "test_paths.h"

namespace talvex_test {
namespace {

// What the recording holds of one direction, every send (or receive) of it joined, through jq.
std::string recordedBytes(const std::string& jsonl, const char* kind) {
  return jq(std::string("[.[] | select(.kind == \"") + kind + "\") | .data_b64 | @base64d] | join(\"\")", jsonl);
}

// A process's state as /proc/PID/stat gives it ("S" sleeping, "T" stopped, "t" stopped while
// traced), "?" once it is gone.
std::string processState(int pid) {
  const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t close = stat.rfind(')');
  return close == std::string::npos || close + 2 >= stat.size() ? std::string("?") : stat.substr(close + 2, 1);
}

class TracedPrograms : public ::testing::Test {
 protected:
  void SetUp() override {
    if (kAbiBits != 64) GTEST_SKIP() << "the tracer records 64-bit programs; the 64-bit suite runs this";
  }
  // The run's JSON Lines as one array, for jq.
  std::string slurped(const std::string& jsonl) {
    const ProcessResult r = runProcess({"/usr/bin/jq", "-s", ".", jsonl}, cleanEnvironment());
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(writeFile(dir_.file("all.json"), r.out));
    return dir_.file("all.json");
  }
  TempDir dir_;
};

TEST_F(TracedPrograms, StaticClientsAreRecordedAsTheServerSawThem) {
  // glibc 64- and 32-bit (whose socket calls go through socketcall), and musl.
  for (const char* client : {kStaticClientPath, kStaticClient32Path, kStaticClientMuslPath}) {
    SCOPED_TRACE(client);
    HttpServer server;
    const std::string jsonl = dir_.file("run.jsonl");
    const ProcessResult get = recordCommand({"--jsonl", jsonl, "-q"}, {client, server.port(), "/text"});
    ASSERT_EQ(get.exitCode, 0) << get.err;
    EXPECT_EQ(get.out, "143\n");
    EXPECT_EQ(get.err, "");
    std::string all = slurped(jsonl);
    EXPECT_EQ(jq("map(.kind) | join(\",\")", all), "process,connect,send,receive,receive,close\n");
    EXPECT_EQ(jq(".[1] | [.remote_ip, .remote_port, .local_ip, .connection_state] | @tsv", all),
              "127.0.0.1\t" + server.port() + "\t127.0.0.1\tconnected\n");
    EXPECT_EQ(recordedBytes(all, "send"), server.received(0) + "\n");
    EXPECT_EQ(recordedBytes(all, "receive"), server.sent(0) + "\n");
    // A POST of 300 kB in two vectors, written as the kernel took them.
    const ProcessResult post = recordCommand({"--jsonl", jsonl, "-q"}, {client, server.port(), "/upload", "300000"});
    ASSERT_EQ(post.exitCode, 0) << post.err;
    all = slurped(jsonl);
    EXPECT_EQ(recordedBytes(all, "send"), server.received(1) + "\n");
    EXPECT_EQ(recordedBytes(all, "receive"), server.sent(1) + "\n");
    EXPECT_EQ(jq(".[0] | [.kind, .command_line[0]] | @tsv", all), "process\t" + std::string(client) + "\n");
  }
}

TEST_F(TracedPrograms, SocketcallOfA32BitProgramIsRecorded) {
  HttpServer server;
  const std::string jsonl = dir_.file("run.jsonl");
  const ProcessResult r =
      recordCommand({"--jsonl", jsonl, "-q"}, {kStaticClient32Path, server.port(), "/text"}, {{"SOCKETCALL", "1"}});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "143\n");
  const std::string all = slurped(jsonl);
  EXPECT_EQ(jq("map(.kind) | join(\",\")", all), "process,connect,send,receive,receive,close\n");
  EXPECT_EQ(recordedBytes(all, "send"), server.received(0) + "\n");
  EXPECT_EQ(recordedBytes(all, "receive"), server.sent(0) + "\n");
}

TEST_F(TracedPrograms, AGoClientsKeptAliveExchangesAndALargePostAreEntries) {
  HttpServer server;
  const std::string u = "http://127.0.0.1:" + server.port();
  const std::string jsonl = dir_.file("run.jsonl"), har = dir_.file("run.har");
  const ProcessResult get = recordCommand({"--jsonl", jsonl, "--har", har, "--transcript", dir_.file("t")},
                                          {kGoClientPath, "get", u + "/text", u + "/text?again=1"});
  ASSERT_EQ(get.exitCode, 0) << get.err;
  EXPECT_EQ(get.out, "17\n17\n");
  EXPECT_EQ(get.err, "talvex-record: the HAR holds 2 HTTP exchanges\n");
  EXPECT_EQ(jq(".log.entries[] | [.request.url, .response.status, .connection] | @tsv", har),
            u + "/text\t200\t1\n" + u + "/text?again=1\t200\t1\n");
  const std::string all = slurped(jsonl);
  // Go's connect does not block: it is in progress, then the first send says it connected.
  EXPECT_EQ(jq(".[1] | [.kind, .error_name, .connection_state] | @tsv", all), "connect\tEINPROGRESS\tconnecting\n");
  EXPECT_EQ(recordedBytes(all, "send"), server.received(0) + "\n");
  EXPECT_EQ(jq("[.[] | select(.kind == \"receive\")] | length > 0", all), "true\n");
  const ProcessResult post = recordCommand({"--har", har, "-q"}, {kGoClientPath, "post", u + "/upload", "400000"});
  ASSERT_EQ(post.exitCode, 0) << post.err;
  EXPECT_EQ(jq(".log.entries[] | [.request.method, .request.bodySize, (.request.postData.text | length), "
               ".response.content.text] | @tsv",
               har),
            "POST\t400000\t400000\t" + post.out);
  const std::string received = server.received(1);
  EXPECT_EQ(received.size() - received.find("\r\n\r\n") - 4, 400000u);
}

TEST_F(TracedPrograms, AGoServerAcceptsAndIsRecorded) {
  const std::string jsonl = dir_.file("run.jsonl");
  BackgroundProcess run({kRecordPath, "--jsonl", jsonl, "-q", "--", kGoClientPath, "serve", dir_.file("port")},
                        cleanEnvironment());
  const int port = waitForPortFile(dir_.file("port"), std::chrono::seconds(30));
  const std::string request = "POST /x HTTP/1.1\r\nHost: go.test\r\nContent-Length: 5\r\nConnection: close\r\n\r\nhello";
  ASSERT_TRUE(writeFile(dir_.file("request"), request));
  const ProcessResult client = runProcess(
      {"/usr/bin/python3", "-c",
       "import socket,sys; s=socket.create_connection(('127.0.0.1', int(sys.argv[1]))); "
       "s.sendall(open(sys.argv[2],'rb').read()); d=b''\n"
       "while True:\n  c=s.recv(4096)\n  if not c: break\n  d+=c\nsys.stdout.buffer.write(d)",
       std::to_string(port), dir_.file("request")},
      cleanEnvironment());
  ASSERT_EQ(client.exitCode, 0) << client.err;
  const ProcessResult r = run.wait(std::chrono::seconds(30));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const std::string all = slurped(jsonl);
  EXPECT_EQ(jq("[.[] | select(.kind == \"accept\")] | length", all), "1\n");
  EXPECT_EQ(recordedBytes(all, "receive"), request + "\n");
  EXPECT_EQ(recordedBytes(all, "send"), client.out + "\n");
  EXPECT_NE(client.out.find("read 5 bytes\n"), std::string::npos) << client.out;
}

TEST_F(TracedPrograms, HeyOfDebianIsRecorded) {
  TALVEX_REQUIRE_PROGRAM("/usr/bin/hey");
  HttpServer server;
  const std::string har = dir_.file("run.har");
  const ProcessResult r = recordCommand({"--har", har, "--transcript", dir_.file("t")},
                                        {"/usr/bin/hey", "-n", "4", "-c", "2", "http://127.0.0.1:" + server.port() + "/text"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err, "talvex-record: the HAR holds 4 HTTP exchanges\n");
  EXPECT_EQ(jq("[.log.entries[] | .response.status] | map(tostring) | join(\",\")", har), "200,200,200,200\n");
  EXPECT_EQ(jq("[.log.entries[] | .connection] | unique | length", har), "2\n");
  EXPECT_EQ(jq("[.log.entries[] | .request.headers[] | select(.name == \"User-Agent\") | .value] | unique | join(\",\")", har),
            "hey/0.0.1\n");
}

TEST_F(TracedPrograms, ATracerThatIsRefusedIsSaidAndTheProgramStillRuns) {
  TALVEX_REQUIRE_PROGRAM("/usr/bin/strace");
  HttpServer server;
  // strace -f traces talvex-record's children: the command's process is already traced.
  const ProcessResult r =
      runProcess({"/usr/bin/strace", "-f", "-o", "/dev/null", kRecordPath, "-q", "--", kStaticClientPath, server.port(), "/text"},
                 cleanEnvironment());
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "143\n");
  EXPECT_EQ(r.err, std::string("talvex-record: cannot trace ") + kStaticClientPath +
                       ": another tracer (a debugger, strace) already traces it, or the system forbids ptrace; it runs "
                       "unrecorded\n");
}

TEST_F(TracedPrograms, AProgramWithoutSocketsIsSaidToHaveNone) {
  const ProcessResult r = recordCommand({}, {kStaticClientPath});
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_EQ(r.err, "usage: static_client PORT PATH [BODY_BYTES]\n"
                   "summary: 0 sockets, 0 messages, 0 bytes sent, 0 bytes received, 0 failures\n"
                   "talvex-record: nothing was recorded: the tracer saw no process of " + std::string(kStaticClientPath) +
                       " use a TCP socket\n");
}

// What the program sees is what it sees untraced: the same lines, the same exit status.
TEST_F(TracedPrograms, ItsChildrensStatusIsWhatWaitpidSees) {
  const ProcessResult alone = runProcess({kTracedHostProbePath, "child-status"}, cleanEnvironment());
  const ProcessResult traced = recordCommand({"-q"}, {kTracedHostProbePath, "child-status"});
  EXPECT_EQ(alone.out, "child exited 7\n");
  EXPECT_EQ(traced.out, alone.out);
  EXPECT_EQ(traced.exitCode, 0) << traced.err;
}

TEST_F(TracedPrograms, ASignalInterruptsABlockedReadAsItWouldUntraced) {
  EchoServer silent;  // answers only what it is sent, and the probe sends nothing
  BackgroundProcess run({kRecordPath, "-q", "--", kTracedHostProbePath, "interrupted-read", std::to_string(silent.port()),
                         dir_.file("pid")},
                        cleanEnvironment());
  const int pid = waitForPortFile(dir_.file("pid"), std::chrono::seconds(30));
  ASSERT_GT(pid, 0);
  // Once it waits in its read (state S), the signal interrupts it.
  ASSERT_TRUE(waitUntil([&] { return processState(pid) == "S"; }));
  ASSERT_EQ(kill(pid, SIGUSR1), 0);
  const ProcessResult r = run.wait(std::chrono::seconds(20));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "read -1 Interrupted system call\n");
}

TEST_F(TracedPrograms, AJobControlStopStaysAStopUntilItIsContinued) {
  BackgroundProcess run({kRecordPath, "-q", "--", kTracedHostProbePath, "until-file", dir_.file("go"), dir_.file("pid")},
                        cleanEnvironment());
  const int pid = waitForPortFile(dir_.file("pid"), std::chrono::seconds(30));
  ASSERT_GT(pid, 0);
  const auto state = [&] { return processState(pid); };
  ASSERT_EQ(kill(pid, SIGSTOP), 0);
  // Stopped ("T", or "t" as a traced process shows a stop), and it stays so while the file it
  // waits for appears.
  ASSERT_TRUE(waitUntil([&] { return state() == "T" || state() == "t"; })) << state();
  ASSERT_TRUE(writeFile(dir_.file("go"), ""));
  EXPECT_FALSE(waitUntil([&] { return state() != "T" && state() != "t"; }, std::chrono::milliseconds(300))) << state();
  ASSERT_EQ(kill(pid, SIGCONT), 0);
  const ProcessResult r = run.wait(std::chrono::seconds(20));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "done\n");
}

// fcntl's result is a descriptor only when it duplicates one: F_SETFL's 0 leaves the socket on
// descriptor 0 known, and its close is recorded.
TEST_F(TracedPrograms, FcntlOnASocketKeepsItKnown) {
  EchoServer echo;
  const std::string jsonl = dir_.file("run.jsonl");
  const ProcessResult r =
      recordCommand({"--jsonl", jsonl, "-q"}, {kTracedHostProbePath, "socket-on-zero", std::to_string(echo.port())});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(jq("map(.kind + \" \" + (.socket | tostring)) | join(\",\")", slurped(jsonl)),
            "process null,connect 0,send 0,close 0\n");
}

TEST_F(TracedPrograms, KillingTalvexRecordLeavesNoProgramStopped) {
  BackgroundProcess run({kRecordPath, "-q", "--", kGoClientPath, "serve", dir_.file("port")}, cleanEnvironment());
  ASSERT_GT(waitForPortFile(dir_.file("port"), std::chrono::seconds(30)), 0);
  run.signal(SIGKILL);
  run.wait(std::chrono::seconds(10));
  // The traced server dies with its tracer rather than staying stopped for ever.
  EXPECT_TRUE(waitUntil([&] { return processesRunning(std::string(kGoClientPath) + " serve") == 0; },
                        std::chrono::seconds(10)));
}

TEST_F(TracedPrograms, AStopSignalEndsTheTracedCommandWithItsStatus) {
  BackgroundProcess run({kRecordPath, "-q", "--", kGoClientPath, "serve", dir_.file("port")}, cleanEnvironment());
  ASSERT_GT(waitForPortFile(dir_.file("port"), std::chrono::seconds(30)), 0);
  run.signal(SIGTERM);
  const ProcessResult r = run.wait(std::chrono::seconds(20));
  EXPECT_FALSE(r.timedOut);
  EXPECT_EQ(r.exitCode, 128 + SIGTERM) << r.err;
}

}  // namespace
}  // namespace talvex_test
