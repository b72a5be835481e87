// TALVEX_SOCKET_AGENT_COMPLETE_CAPTURE: every byte a program moves on its TCP connections is in
// the recording, whichever call moved it, and nothing else is; without the variable the agent
// records as it always has.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <string>
#include <thread>
#include <vector>

#include "base/variable_names.h"
#include "process_runner.h"
#include "recording_support.h"
#include "test_paths.h"

using namespace talvex_test;
using namespace std::chrono_literals;

namespace {

const Environment kCapture = {{TALVEX_VAR_COMPLETE_CAPTURE, "1"}};

std::string pattern(size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 31 + seed + i / 251) & 0xff);
  return bytes;
}

// One listening peer on loopback: takes one connection, reads it to its end with a small receive
// buffer (so that the other side's large sends are taken in parts), then answers `reply`.
class AnsweringPeer {
 public:
  static const int kPatienceMs = 30000;

  explicit AnsweringPeer(std::string reply) : reply_(std::move(reply)) {
    listener_ = listenOnLoopback(&port_, 4096);
    thread_ = std::thread([this] { serve(); });
  }
  ~AnsweringPeer() {
    shutdown(listener_, SHUT_RDWR);
    if (thread_.joinable()) thread_.join();
    close(listener_);
  }
  int port() const { return port_; }
  // What the other side sent, once it has closed.
  std::string received() {
    if (thread_.joinable()) thread_.join();
    return received_;
  }

 private:
  // Bounded: a client that never comes, or never closes, must fail the test, not hang it.
  void serve() {
    pollfd waiting = {listener_, POLLIN, 0};
    if (poll(&waiting, 1, kPatienceMs) != 1) return;
    const int s = accept(listener_, nullptr, nullptr);
    if (s < 0) return;
    const timeval patience = {kPatienceMs / 1000, 0};
    setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    char buffer[65536];
    for (int round = 0; round < 1000000; ++round) {
      const ssize_t n = recv(s, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      received_.append(buffer, static_cast<size_t>(n));
    }
    size_t sent = 0;
    while (sent < reply_.size()) {
      const ssize_t n = send(s, reply_.data() + sent, reply_.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += static_cast<size_t>(n);
    }
    close(s);
  }

  std::string reply_;
  int listener_ = -1;
  int port_ = 0;
  std::string received_;
  std::thread thread_;
};

struct ProbeCall {
  std::string name;
  long result;
};

std::vector<ProbeCall> callsOf(const std::string& out) {
  std::vector<ProbeCall> calls;
  for (const auto& line : splitLines(out)) {
    const size_t at = line.find(" result=");
    if (at != std::string::npos) calls.push_back({line.substr(0, at), atol(line.c_str() + at + 8)});
  }
  return calls;
}

std::vector<const talvex::ParsedMessage*> on(const Recording& r, const std::string& kind, const std::string& socket) {
  std::vector<const talvex::ParsedMessage*> out;
  for (const auto* m : r.ofKind(kind)) {
    if (valueOf(*m, "socket") == socket) out.push_back(m);
  }
  return out;
}

// The messages of one connection: those on its socket from `opening` on, up to its close (a
// descriptor number is reused by the next connection).
std::vector<const talvex::ParsedMessage*> conversation(const Recording& r, const talvex::ParsedMessage* opening,
                                                       const std::string& kind) {
  std::vector<const talvex::ParsedMessage*> out;
  const std::string socket = valueOf(*opening, "socket");
  bool inside = false;
  for (const auto& m : r.messages) {
    if (&m == opening) inside = true;
    if (!inside || valueOf(m, "socket") != socket) continue;
    if (m.kind == kind) out.push_back(&m);
    if (m.kind == "close") break;
  }
  return out;
}

std::string dataOf(const talvex::ParsedMessage& m) {
  const talvex::MessageAttribute* a = m.find("data");
  return a != nullptr ? a->bytes : std::string();
}

std::string joined(const std::vector<const talvex::ParsedMessage*>& messages) {
  std::string bytes;
  for (const auto* m : messages) bytes += dataOf(*m);
  return bytes;
}

// The client scenario against an answering peer: what the peer saw, and what was recorded.
struct ClientRun {
  std::string file;       // the bytes sendfile read from
  std::string reply;      // what the peer sent
  std::string received;   // what the peer received
  Recording recording;
  std::vector<ProbeCall> calls;
  std::string socket;     // the connection's socket, as the messages write it
};

ClientRun runClient(const Environment& extra) {
  ClientRun run;
  TempDir files;
  run.file = pattern(12000, 3);
  EXPECT_TRUE(writeFile(files.file("payload"), run.file));
  run.reply = pattern(5000, 11);
  AnsweringPeer peer(run.reply);
  run.recording = recordRun({kCaptureProbePath, "client", std::to_string(peer.port()), files.file("payload")}, extra);
  run.received = peer.received();
  run.calls = callsOf(run.recording.run.out);
  const auto connects = run.recording.ofKind("connect");
  if (!connects.empty()) run.socket = valueOf(*connects[0], "socket");
  return run;
}

long resultOf(const ClientRun& run, const std::string& name) {
  for (const auto& call : run.calls) {
    if (call.name == name) return call.result;
  }
  return -999;
}

// The probe's adopted scenario with complete capture: a socket made by a raw system call talks to
// a peer that answers `answer` (on `peerPort`), then its number is reused for a file.
Recording recordAdopted(const std::string& answer, int* peerPort = nullptr) {
  TempDir files;
  EXPECT_TRUE(writeFile(files.file("plain"), "file bytes, not network bytes"));
  AnsweringPeer peer(answer);
  if (peerPort != nullptr) *peerPort = peer.port();
  return recordRun({kCaptureProbePath, "adopted", std::to_string(peer.port()), files.file("plain")}, kCapture);
}

}  // namespace

TEST(CompleteCapture, ClientRecordingEqualsTheWireInBothDirections) {
  const ClientRun run = runClient(kCapture);
  ASSERT_EQ(run.recording.run.exitCode, 0) << run.recording.run.err;
  ASSERT_EQ(run.received.size(), 28u + 10000u + 3000u + 10u + (256u << 10));
  EXPECT_TRUE(joined(on(run.recording, "send", run.socket)) == run.received);
  EXPECT_TRUE(joined(on(run.recording, "receive", run.socket)) == run.reply);
}

TEST(CompleteCapture, WritevIsOneSendOfItsVectorsGathered) {
  const ClientRun run = runClient(kCapture);
  const auto sends = on(run.recording, "send", run.socket);
  ASSERT_GE(sends.size(), 1u);
  EXPECT_EQ(dataOf(*sends[0]), "GET /every-byte HTTP/1.0\r\n\r\n");
  EXPECT_EQ(valueOf(*sends[0], "length"), "1c");
  EXPECT_EQ(resultOf(run, "writev"), 28);
}

TEST(CompleteCapture, SendfileIsASendOfTheFilesBytesAsTheyWent) {
  const ClientRun run = runClient(kCapture);
  const auto sends = on(run.recording, "send", run.socket);
  ASSERT_GE(sends.size(), 3u);
  ASSERT_EQ(resultOf(run, "sendfile"), 10000);
  ASSERT_EQ(resultOf(run, "sendfile64"), 3000);
  EXPECT_TRUE(dataOf(*sends[1]) == run.file.substr(0, 10000));
  EXPECT_EQ(valueOf(*sends[1], "length"), "2710");
  // From the offset the caller gave, not from the file's position.
  EXPECT_TRUE(dataOf(*sends[2]) == run.file.substr(2000, 3000));
  EXPECT_EQ(valueOf(*sends[2], "length"), "bb8");
}

TEST(CompleteCapture, PartialSendsRecordTheBytesTheSystemTook) {
  const ClientRun run = runClient(kCapture);
  std::vector<long> parts;
  for (const auto& call : run.calls) {
    if (call.name == "send-part") parts.push_back(call.result);
  }
  // The peer reads slowly through a small buffer: the 256 KiB cannot go in one call.
  ASSERT_GE(parts.size(), 2u);
  // Sends that found no room (EAGAIN) took nothing; they are recorded, without data.
  std::vector<const talvex::ParsedMessage*> sends;
  for (const auto* m : on(run.recording, "send", run.socket)) {
    if (m->find("error") == nullptr) {
      sends.push_back(m);
    } else {
      EXPECT_EQ(valueOf(*m, "error"), hexOf(EAGAIN));
      EXPECT_EQ(m->find("data"), nullptr);
    }
  }
  ASSERT_EQ(sends.size(), 4u + parts.size());
  for (size_t i = 0; i < parts.size(); ++i) {
    const auto& m = *sends[4 + i];
    EXPECT_EQ(static_cast<long>(dataOf(m).size()), parts[i]);
    EXPECT_EQ(valueOf(m, "length"), hexOf(static_cast<long>((256 << 10)) - [&] {
                long before = 0;
                for (size_t k = 0; k < i; ++k) before += parts[k];
                return before;
              }()));
  }
}

TEST(CompleteCapture, FailedSendRecordsItsLengthAndErrorWithoutData) {
  const ClientRun run = runClient(kCapture);
  ASSERT_EQ(resultOf(run, "failed-send"), -1);
  const talvex::ParsedMessage* failed = nullptr;
  for (const auto* m : run.recording.ofKind("send")) {
    if (valueOf(*m, "socket") != run.socket) failed = m;
  }
  ASSERT_NE(failed, nullptr);
  EXPECT_EQ(attributeNames(*failed),
            (std::vector<std::string>{"timestamp", "ticket", "socket", "pid", "length", "error"}));
  EXPECT_EQ(valueOf(*failed, "length"), "5");
  EXPECT_EQ(valueOf(*failed, "error"), hexOf(EPIPE));
}

TEST(CompleteCapture, PeekIsNotRecordedAsConsumed) {
  const ClientRun run = runClient(kCapture);
  ASSERT_EQ(resultOf(run, "peek"), 100);
  const auto receives = on(run.recording, "receive", run.socket);
  ASSERT_GE(receives.size(), 1u);
  // The first receive recorded is readv's, from the first byte: the peek left it out.
  EXPECT_EQ(resultOf(run, "readv"), 120);
  EXPECT_TRUE(dataOf(*receives[0]) == run.reply.substr(0, 120));
}

TEST(CompleteCapture, FortifiedReceivesAreRecordedAsTheirPlainCalls) {
  const ClientRun run = runClient(kCapture);
  const auto receives = on(run.recording, "receive", run.socket);
  ASSERT_GE(receives.size(), 5u);
  ASSERT_EQ(resultOf(run, "__recv_chk"), 200);
  ASSERT_EQ(resultOf(run, "__recvfrom_chk"), 300);
  ASSERT_EQ(resultOf(run, "__read_chk"), 400);
  EXPECT_TRUE(dataOf(*receives[1]) == run.reply.substr(120, 200));
  EXPECT_TRUE(dataOf(*receives[2]) == run.reply.substr(320, 300));
  EXPECT_TRUE(dataOf(*receives[3]) == run.reply.substr(620, 400));
}

TEST(CompleteCapture, EndOfStreamReceiveCarriesNoData) {
  const ClientRun run = runClient(kCapture);
  const auto receives = on(run.recording, "receive", run.socket);
  ASSERT_FALSE(receives.empty());
  const auto& last = *receives.back();
  EXPECT_EQ(valueOf(last, "return"), "<absent>");
  EXPECT_EQ(valueOf(last, "length"), "0");
  EXPECT_EQ(last.find("data"), nullptr);
}

TEST(CompleteCapture, WithoutTheVariableTheAgentRecordsAsItAlwaysHas) {
  const ClientRun run = runClient({});
  ASSERT_EQ(run.recording.run.exitCode, 0) << run.recording.run.err;
  // writev, sendfile and the fortified receives pass through unseen; the peek is recorded; the
  // end of stream carries what the buffer held.
  const auto sends = on(run.recording, "send", run.socket);
  ASSERT_FALSE(sends.empty());
  EXPECT_EQ(dataOf(*sends[0]), std::string("plain\0send", 10));
  const auto receives = on(run.recording, "receive", run.socket);
  ASSERT_GE(receives.size(), 3u);
  EXPECT_TRUE(dataOf(*receives[0]) == run.reply.substr(0, 100));
  EXPECT_NE(receives.back()->find("data"), nullptr);
  EXPECT_NE(joined(sends), run.received);
}

TEST(CompleteCapture, EveryAcceptedConnectionIsRecordedWithItsTrafficAndClose) {
  TempDir dir;
  auto running = std::async(std::launch::async, [&] {
    return recordRun({kCaptureProbePath, "server", dir.file("port")}, kCapture);
  });
  const int port = waitForPortFile(dir.file("port"));
  ASSERT_GT(port, 0);
  const std::string requests[2] = {pattern(70000, 5), "second request"};
  std::string replies[2];
  for (int n = 0; n < 2; ++n) {
    const int s = connectToLoopback(port);
    ASSERT_GE(s, 0);
    size_t sent = 0;
    while (sent < requests[n].size()) {
      const ssize_t k = send(s, requests[n].data() + sent, requests[n].size() - sent, MSG_NOSIGNAL);
      ASSERT_GT(k, 0);
      sent += static_cast<size_t>(k);
    }
    shutdown(s, SHUT_WR);
    char buffer[256];
    for (ssize_t k; (k = recv(s, buffer, sizeof buffer, 0)) > 0;) replies[n].append(buffer, static_cast<size_t>(k));
    close(s);
  }
  const Recording r = running.get();
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  const auto accepts = r.ofKind("accept");
  ASSERT_EQ(accepts.size(), 2u);
  for (int n = 0; n < 2; ++n) {
    EXPECT_TRUE(joined(conversation(r, accepts[n], "receive")) == requests[n]) << n;
    EXPECT_EQ(joined(conversation(r, accepts[n], "send")), replies[n]);
    EXPECT_EQ(replies[n], "reply-" + std::to_string(n + 1) + " " + std::to_string(requests[n].size()));
    EXPECT_EQ(conversation(r, accepts[n], "close").size(), 1u);
  }
}

TEST(CompleteCapture, WithoutTheVariableOnlyTheFirstAcceptIsRecordedAndNoTraffic) {
  TempDir dir;
  auto running = std::async(std::launch::async, [&] { return recordRun({kCaptureProbePath, "server", dir.file("port")}); });
  const int port = waitForPortFile(dir.file("port"));
  ASSERT_GT(port, 0);
  for (int n = 0; n < 2; ++n) {
    const int s = connectToLoopback(port);
    ASSERT_GE(s, 0);
    send(s, "hello", 5, MSG_NOSIGNAL);
    shutdown(s, SHUT_WR);
    char buffer[64];
    while (recv(s, buffer, sizeof buffer, 0) > 0) {
    }
    close(s);
  }
  const Recording r = running.get();
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_EQ(r.ofKind("accept").size(), 1u);
  EXPECT_EQ(r.ofKind("send").size(), 0u);
  EXPECT_EQ(r.ofKind("receive").size(), 0u);
}

TEST(CompleteCapture, SocketsMadeBehindTheCLibrarysBackAreRecordedOnFirstUse) {
  int peerPort = 0;
  const Recording r = recordAdopted("answer to the adopted socket", &peerPort);
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  const auto accepts = r.ofKind("accept");
  ASSERT_EQ(accepts.size(), 1u);
  const auto& adopted = *accepts[0];
  EXPECT_EQ(attributeNames(adopted), (std::vector<std::string>{"pid", "timestamp", "ticket", "socket", "info", "family",
                                                                "ip", "port"}));
  EXPECT_EQ(valueOf(adopted, "info"), "ADOPTED");
  EXPECT_EQ(valueOf(adopted, "ip"), "127.0.0.1");
  EXPECT_EQ(valueOf(adopted, "port"), hexOf(peerPort));
  EXPECT_EQ(joined(conversation(r, &adopted, "send")), "adopted-bytes");
  EXPECT_EQ(joined(conversation(r, &adopted, "receive")), "answer to the adopted socket");
  EXPECT_EQ(conversation(r, &adopted, "close").size(), 1u);
}

TEST(CompleteCapture, ADescriptorReusedForAFileIsNeverRecordedAsTheSocket) {
  const Recording r = recordAdopted("answer");
  ASSERT_EQ(r.run.exitCode, 0) << r.run.err;
  ASSERT_EQ(linesContaining(r.run.out, "same-number 1").size(), 1u) << r.run.out;
  ASSERT_EQ(linesContaining(r.run.out, "file-read result=16").size(), 1u) << r.run.out;
  for (const auto& m : r.messages) EXPECT_EQ(dataOf(m).find("file bytes"), std::string::npos) << m.kind;
}
