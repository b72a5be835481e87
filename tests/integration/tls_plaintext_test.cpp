// With TLS plaintext on, a TLS conversation is recorded as the program wrote and read it: the
// sends joined are what the server's TLS layer received, the receives joined what it sent, each
// message says which library, and no record of the wire is among them. Real clients against a
// real TLS server on loopback, with a certificate the test makes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "json_lines_check.h"
#include "process_runner.h"
#include "record_command.h"
#include "recorder_message_parser.h"
#include "recording_support.h"
#include "system_tools.h"
#include "test_paths.h"
#include "tls_server.h"

using namespace talvex_test;

namespace {

// Where each ABI's TLS libraries are. Debian's i386 libssl3 cannot always be installed beside the
// amd64 one (the two must be the same version, and the mirror may lag): the install script
// unpacks it here instead, and the client opens it by path.
const char* const kI386OpenSslDirectory = "/var/lib/talvex-test/libssl3-i386/usr/lib/i386-linux-gnu";
std::string openSslPath() {
  return kAbiBits == 64 ? "/usr/lib/x86_64-linux-gnu/libssl.so.3" : std::string(kI386OpenSslDirectory) + "/libssl.so.3";
}
std::string gnuTlsPath() {
  return kAbiBits == 64 ? "/usr/lib/x86_64-linux-gnu/libgnutls.so.30" : "/usr/lib/i386-linux-gnu/libgnutls.so.30";
}

// Debian's clients are 64-bit programs: the 32-bit suite's agent cannot enter them.
#define TALVEX_REQUIRE_64_BIT_AGENT()                                                     \
  do {                                                                                    \
    if (kAbiBits != 64) GTEST_SKIP() << "Debian's clients are 64-bit; the 64-bit suite runs this"; \
  } while (0)

size_t count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// The plaintext of one kind ("send", "receive") joined, over every message that carries some.
std::string joined(const Recording& recording, const std::string& kind) {
  std::string bytes;
  for (const auto* m : recording.ofKind(kind)) bytes += m->text("data");
  return bytes;
}

// Every send and receive with data says it came from `library`, and none holds a TLS record.
void expectOnlyPlaintextOf(const Recording& recording, const std::string& library) {
  size_t checked = 0;
  for (const auto& m : recording.messages) {
    if (m.kind != "send" && m.kind != "receive") continue;
    EXPECT_EQ(valueOf(m, "tls"), library) << m.kind << " ticket " << m.integer("ticket");
    const std::string data = m.text("data");
    if (data.size() >= 2) {
      const unsigned char type = static_cast<unsigned char>(data[0]);
      EXPECT_FALSE(type >= 0x14 && type <= 0x17 && data[1] == 3) << "a TLS record in a " << m.kind;
    }
    ++checked;
  }
  EXPECT_GT(checked, 0u);
}

// The recording holds connection 0 of the server as its TLS layer saw it, and only plaintext.
void expectServersConversation(const Recording& recording, const TlsServer& server, const std::string& library) {
  EXPECT_EQ(joined(recording, "send"), server.received(0));
  EXPECT_EQ(joined(recording, "receive"), server.sent(0));
  expectOnlyPlaintextOf(recording, library);
}

Recording recordWithPlaintext(const std::vector<std::string>& argv, Environment extra = {}) {
  extra[TALVEX_VAR_TLS_PLAINTEXT] = "1";
  extra["HOME"] = "/tmp";
  return recordRun(argv, extra, "", std::chrono::seconds(90));
}

// The test's own client, for this suite's ABI: a 300 kB request (many records) on a
// non-blocking socket, the answer peeked at before it is read.
void expectOwnClientRecorded(const std::string& library, const std::string& path, const std::string& name) {
  if (access(path.c_str(), R_OK) != 0) GTEST_SKIP() << "needs " << path << ", which the install script provides";
  // The server takes a moment to answer: the client's peek meets WANT_READ (GNUTLS_E_AGAIN).
  TlsServer server(1, 100000, "0.3");
  Environment extra;
  if (kAbiBits == 32 && library == "openssl") extra["LD_LIBRARY_PATH"] = kI386OpenSslDirectory;
  const Recording r = recordWithPlaintext({kTlsClientProbePath, library, path, server.port(), "300000"}, extra);
  server.finish();
  EXPECT_EQ(r.run.exitCode, 0) << r.run.err;
  ASSERT_EQ(server.sent(0).size(), 100062u);
  EXPECT_EQ(r.run.out, server.sent(0));
  EXPECT_EQ(joined(r, "send"), server.received(0));
  EXPECT_EQ(joined(r, "receive"), server.sent(0));
  expectOnlyPlaintextOf(r, name);
  // The client waited for the library at least once, and the agent changed none of its answers.
  EXPECT_EQ(r.run.err.find("retries 0\n"), std::string::npos) << r.run.err;
  // One connection: every plaintext message is the connected socket's.
  const auto connects = r.ofKind("connect");
  ASSERT_EQ(connects.size(), 1u);
  for (const auto* m : r.ofKind("send")) EXPECT_EQ(m->integer("socket"), connects[0]->integer("socket"));
}

}  // namespace

TEST(TlsPlaintext, OwnNonBlockingOpenSslClientWithPeekAndManyRecords) {
  expectOwnClientRecorded("openssl", openSslPath(), "OpenSSL");
}

TEST(TlsPlaintext, OwnNonBlockingGnuTlsClientWithManyRecords) {
  expectOwnClientRecorded("gnutls", gnuTlsPath(), "GnuTLS");
}

// With the wire asked for as well, the records come beside the plaintext, in kinds of their own.
TEST(TlsPlaintext, TheWireCanBeHadBesideThePlaintext) {
  TlsServer server(1, 5000);
  const Recording r = recordWithPlaintext({kTlsClientProbePath, "gnutls", gnuTlsPath(), server.port(), "3000"},
                                          {{TALVEX_VAR_TLS_WIRE, "1"}});
  server.finish();
  EXPECT_EQ(r.run.exitCode, 0) << r.run.err;
  expectServersConversation(r, server, "GnuTLS");
  const auto wireSends = r.ofKind("wiresend");
  const auto wireReceives = r.ofKind("wirereceive");
  ASSERT_FALSE(wireSends.empty());
  ASSERT_FALSE(wireReceives.empty());
  // The client's hello and the server's, then encrypted records, each larger than its plaintext.
  EXPECT_EQ(wireSends[0]->text("data").substr(0, 2), std::string("\x16\x03"));
  EXPECT_EQ(wireReceives[0]->text("data").substr(0, 2), std::string("\x16\x03"));
  EXPECT_GT(joined(r, "wiresend").size(), server.received(0).size());
  EXPECT_GT(joined(r, "wirereceive").size(), server.sent(0).size());
  for (const auto* m : wireSends) EXPECT_EQ(valueOf(*m, "tls"), "<absent>");
}

// Key updates change the keys in both directions in the middle of the conversation; the
// plaintext does not notice.
TEST(TlsPlaintext, KeyUpdatesLeaveThePlaintextWhole) {
  if (access(openSslPath().c_str(), R_OK) != 0) GTEST_SKIP() << "needs " << openSslPath();
  TlsServer server(1, 50000);
  Environment extra = {{"TALVEX_PROBE_KEY_UPDATE", "1"}};
  if (kAbiBits == 32) extra["LD_LIBRARY_PATH"] = kI386OpenSslDirectory;
  const Recording r =
      recordWithPlaintext({kTlsClientProbePath, "openssl", openSslPath(), server.port(), "200000", "16384"}, extra);
  server.finish();
  EXPECT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_EQ(r.run.out, server.sent(0));
  expectServersConversation(r, server, "OpenSSL");
}

TEST(TlsPlaintext, UnsetTheRecordsAreRecordedAsBefore) {
  TlsServer server(1, 1000);
  const Recording r = recordRun({kTlsClientProbePath, "gnutls", gnuTlsPath(), server.port(), "1000"});
  server.finish();
  EXPECT_EQ(r.run.exitCode, 0) << r.run.err;
  const auto sends = r.ofKind("send");
  ASSERT_FALSE(sends.empty());
  // The first send is the client's hello: a handshake record.
  EXPECT_EQ(sends[0]->text("data").substr(0, 2), std::string("\x16\x03"));
  for (const auto& m : r.messages) EXPECT_EQ(valueOf(m, "tls"), "<absent>") << m.kind;
  EXPECT_EQ(joined(r, "send").find("POST /probe"), std::string::npos);
}

TEST(TlsPlaintext, LookingUpATlsFunctionFindsWhatItWouldWithoutTheAgent) {
  for (const char* name : {"SSL_write", "gnutls_record_recv", "SSL_connect"}) {
    const ProcessResult plain = runProcess({kTlsClientProbePath, "lookup", name}, cleanEnvironment());
    const ProcessResult preloaded = runProcess({kTlsClientProbePath, "lookup", name},
                                               agentEnvironment({{TALVEX_VAR_TLS_PLAINTEXT, "1"}}));
    EXPECT_EQ(plain.out, "absent\n") << name;
    EXPECT_EQ(preloaded.out, "absent\n") << name << preloaded.err;
  }
}

// Two copies of a library of the same names, each in the scope of an object of its own: each
// object's call reaches its own copy, as it would without the agent, not the one found first.
TEST(TlsPlaintext, EachObjectReachesItsOwnCopyOfTheLibrary) {
  const ProcessResult r = runProcess({kTlsClientProbePath, "callers", kTlsCallerAPath, kTlsCallerBPath, kTlsCallerAPath},
                                     agentEnvironment({{TALVEX_VAR_TLS_PLAINTEXT, "1"}, {TALVEX_VAR_UNPLUG_AGENT, ""}}));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "1001\n2002\n1001\n");
}

TEST(TlsPlaintext, CurlOverOpenSsl) {
  TALVEX_REQUIRE_64_BIT_AGENT();
  TALVEX_REQUIRE_PROGRAM("/usr/bin/curl");
  TlsServer server(1, 20000);
  const Recording r = recordWithPlaintext({"/usr/bin/curl", "-s", "-o", "/dev/null", "--cacert", server.certificate(),
                                           "-d", "name=value", "https://127.0.0.1:" + server.port() + "/form"});
  server.finish();
  EXPECT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_EQ(server.received(0).substr(0, 22), "POST /form HTTP/1.1\r\nH");
  expectServersConversation(r, server, "OpenSSL");
}

TEST(TlsPlaintext, WgetOverGnuTls) {
  TALVEX_REQUIRE_64_BIT_AGENT();
  TALVEX_REQUIRE_PROGRAM("/usr/bin/wget");
  TlsServer server(1, 5000);
  const Recording r = recordWithPlaintext({"/usr/bin/wget", "-q", "-O", "/dev/null", "--ca-certificate=" + server.certificate(),
                                           "https://127.0.0.1:" + server.port() + "/file"});
  server.finish();
  EXPECT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_EQ(server.received(0).substr(0, 20), "GET /file HTTP/1.1\r\n");
  expectServersConversation(r, server, "GnuTLS");
}

// Python's _ssl module is opened in a local scope and brings libssl with it.
TEST(TlsPlaintext, PythonHttpClientWithOpenSslOpenedInALocalScope) {
  TALVEX_REQUIRE_64_BIT_AGENT();
  TlsServer server(1, 3000);
  const Recording r = recordWithPlaintext(
      {"/usr/bin/python3", "-c",
       "import http.client, ssl, sys\n"
       "c = http.client.HTTPSConnection('127.0.0.1', " + server.port() +
           ", context=ssl.create_default_context(cafile=sys.argv[1]))\n"
           "c.request('PUT', '/python', body=b'x' * 70000)\n"
           "print(len(c.getresponse().read()))\n",
       server.certificate()});
  server.finish();
  EXPECT_EQ(r.run.out, "3000\n") << r.run.err;
  EXPECT_EQ(server.received(0).substr(0, 24), "PUT /python HTTP/1.1\r\nHo");
  expectServersConversation(r, server, "OpenSSL");
}

// asyncio runs TLS over memory buffers and moves the records through the socket itself.
TEST(TlsPlaintext, PythonAsyncioOverMemoryBuffers) {
  TALVEX_REQUIRE_64_BIT_AGENT();
  TlsServer server(1, 4000);
  const Recording r = recordWithPlaintext(
      {"/usr/bin/python3", "-c",
       "import asyncio, ssl, sys\n"
       "async def main():\n"
       "    r, w = await asyncio.open_connection('127.0.0.1', " + server.port() +
           ", ssl=ssl.create_default_context(cafile=sys.argv[1]))\n"
           "    w.write(b'GET /asyncio HTTP/1.1\\r\\nHost: localhost\\r\\n\\r\\n')\n"
           "    await w.drain()\n"
           "    print(len(await r.read()))\n"
           "asyncio.run(main())\n",
       server.certificate()});
  server.finish();
  EXPECT_EQ(r.run.out, "4060\n") << r.run.err;
  EXPECT_EQ(joined(r, "send"), "GET /asyncio HTTP/1.1\r\nHost: localhost\r\n\r\n");
  expectServersConversation(r, server, "OpenSSL");
  // Tied to the socket that carried the records, not to a connection of its own.
  const auto connects = r.ofKind("connect");
  ASSERT_EQ(connects.size(), 1u);
  for (const auto* m : r.ofKind("receive")) EXPECT_EQ(m->integer("socket"), connects[0]->integer("socket"));
}

// A second connection resumes the first one's session: its plaintext is its own, whole.
TEST(TlsPlaintext, AResumedSessionIsAConversationOfItsOwn) {
  TALVEX_REQUIRE_64_BIT_AGENT();
  TlsServer server(2, 100);
  const Recording r = recordWithPlaintext(
      {"/usr/bin/python3", "-c",
       "import socket, ssl, sys\n"
       "context = ssl.create_default_context(cafile=sys.argv[1])\n"
       "session = None\n"
       "for n in range(2):\n"
       "    tls = context.wrap_socket(socket.create_connection(('127.0.0.1', int(sys.argv[2]))),\n"
       "                              server_hostname='127.0.0.1', session=session)\n"
       "    tls.sendall(b'GET /%d HTTP/1.1\\r\\nHost: localhost\\r\\n\\r\\n' % n)\n"
       "    while tls.recv(65536): pass\n"
       "    print(tls.session_reused)\n"
       "    session = tls.session\n"
       "    tls.close()\n",
       server.certificate(), server.port()});
  server.finish();
  EXPECT_EQ(r.run.out, "False\nTrue\n") << r.run.err;
  // The messages of each connection, from its connect to the next.
  std::vector<std::string> sent(1), received(1);
  bool first = true;
  for (const auto& m : r.messages) {
    if (m.kind == "connect" && !first) {
      sent.emplace_back();
      received.emplace_back();
    }
    if (m.kind == "connect") first = false;
    if (m.kind == "send") sent.back() += m.text("data");
    if (m.kind == "receive") received.back() += m.text("data");
  }
  ASSERT_EQ(sent.size(), 2u);
  for (int n = 0; n < 2; ++n) {
    EXPECT_EQ(sent[n], server.received(n)) << n;
    EXPECT_EQ(received[n], server.sent(n)) << n;
  }
  expectOnlyPlaintextOf(r, "OpenSSL");
}

// Two sessions over memory buffers that hand their records to each other, with no socket at all:
// their plaintext is still recorded, each as a connection of its own (socket -1), never dropped.
TEST(TlsPlaintext, PlaintextTiedToNoSocketIsStillRecorded) {
  TALVEX_REQUIRE_64_BIT_AGENT();
  TlsServer certificates(0, 0);
  const Recording r = recordWithPlaintext(
      {"/usr/bin/python3", "-c",
       "import ssl, sys\n"
       "server_context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)\n"
       "server_context.load_cert_chain(sys.argv[1], sys.argv[2])\n"
       "client_context = ssl.create_default_context(cafile=sys.argv[1])\n"
       "wires = [ssl.MemoryBIO() for _ in range(4)]\n"
       "client = client_context.wrap_bio(wires[0], wires[1], server_hostname='localhost')\n"
       "server = server_context.wrap_bio(wires[2], wires[3], server_side=True)\n"
       "def pump():\n"
       "    wires[2].write(wires[1].read())\n"
       "    wires[0].write(wires[3].read())\n"
       "for _ in range(10):\n"
       "    for end in (client, server):\n"
       "        try:\n"
       "            end.do_handshake()\n"
       "        except ssl.SSLWantReadError:\n"
       "            pass\n"
       "    pump()\n"
       "client.write(b'hello')\n"
       "pump()\n"
       "print(server.read(100))\n",
       certificates.certificate(), certificates.key()});
  EXPECT_EQ(r.run.out, "b'hello'\n") << r.run.err;
  const auto sends = r.ofKind("send");
  const auto receives = r.ofKind("receive");
  ASSERT_EQ(sends.size(), 1u);
  ASSERT_EQ(receives.size(), 1u);
  EXPECT_EQ(sends[0]->text("data"), "hello");
  EXPECT_EQ(receives[0]->text("data"), "hello");
  EXPECT_EQ(sends[0]->integer("socket"), -1);
  EXPECT_EQ(receives[0]->integer("socket"), -1);
  expectOnlyPlaintextOf(r, "OpenSSL");
}

TEST(TlsPlaintext, OpenSslSClient) {
  TALVEX_REQUIRE_64_BIT_AGENT();
  TlsServer server(1, 2000);
  TempDir tmp;
  const std::string request = "GET /s_client HTTP/1.1\r\nHost: localhost\r\n\r\n";
  writeFile(tmp.file("request"), request);
  const Recording r = recordWithPlaintext(
      {"/bin/sh", "-c", "exec /usr/bin/openssl s_client -quiet -CAfile \"$1\" -connect 127.0.0.1:\"$2\" < \"$3\"", "sh",
       server.certificate(), server.port(), tmp.file("request")});
  server.finish();
  EXPECT_EQ(server.received(0), request);
  EXPECT_EQ(joined(r, "send"), request);
  EXPECT_EQ(joined(r, "receive"), server.sent(0));
  expectOnlyPlaintextOf(r, "OpenSSL");
}

// git runs git-remote-https, whose libcurl speaks TLS through GnuTLS. The server is no git
// server: git takes its answer for an empty repository served the old way, after one request.
TEST(TlsPlaintext, GitOverHttpsInAChildProcess) {
  TALVEX_REQUIRE_64_BIT_AGENT();
  TALVEX_REQUIRE_PROGRAM("/usr/bin/git");
  TlsServer server(1, 10);
  const Recording r = recordWithPlaintext({"/usr/bin/git", "ls-remote", "https://127.0.0.1:" + server.port() + "/repo.git"},
                                          {{"GIT_SSL_CAINFO", server.certificate()}});
  server.finish();
  EXPECT_EQ(r.run.exitCode, 0) << r.run.err;
  EXPECT_EQ(server.received(0).substr(0, 60), "GET /repo.git/info/refs?service=git-upload-pack HTTP/1.1\r\nHo");
  expectServersConversation(r, server, "GnuTLS");
}


// talvex-record turns the extension on: the transcript and the capture read an HTTPS conversation
// as they read an HTTP one, the transcript says it was TLS, and the JSON Lines name the library.
TEST(TlsRecord, HttpsIsShownAsPlaintext) {
  TALVEX_REQUIRE_PROGRAM("/usr/bin/curl");
  TALVEX_REQUIRE_PROGRAM("/usr/bin/tshark");
  TALVEX_REQUIRE_PROGRAM("/usr/bin/jq");
  TlsServer server(1, 15);
  TempDir tmp;
  const ProcessResult r =
      recordCommand({"--transcript", tmp.file("t.txt"), "--jsonl", tmp.file("r.jsonl"), "--pcap", tmp.file("r.pcap")},
                    {"/usr/bin/curl", "-s", "--cacert", server.certificate(), "https://127.0.0.1:" + server.port() + "/x"},
                    {{"HOME", "/tmp"}});
  server.finish();
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "0123456789abcde");
  const std::string transcript = readFile(tmp.file("t.txt"));
  EXPECT_NE(transcript.find(") [TLS: plaintext from OpenSSL]  at "), std::string::npos) << transcript;
  EXPECT_NE(transcript.find(" > sent " + std::to_string(server.received(0).size()) + " bytes\n      GET /x HTTP/1.1\\r\\n\n"),
            std::string::npos)
      << transcript;
  EXPECT_NE(transcript.find(" < received " + std::to_string(server.sent(0).size()) + " bytes\n      HTTP/1.1 200 OK\\r\\n\n"),
            std::string::npos)
      << transcript;
  EXPECT_EQ(r.err.find("could not be read as plaintext"), std::string::npos) << r.err;
  const ProcessResult jq = runProcess(
      {"/usr/bin/jq", "-r", "select(.kind==\"send\" or .kind==\"receive\") | \"\\(.kind) \\(.tls)\"", tmp.file("r.jsonl")},
      cleanEnvironment());
  EXPECT_EQ(jq.out, "send OpenSSL\nreceive OpenSSL\nreceive OpenSSL\n") << jq.err;
  expectValidJsonLines(tmp.file("r.jsonl"));
  // The capture's streams are the plaintext: Wireshark dissects the HTTP directly.
  const ProcessResult shark =
      runProcess({"/usr/bin/tshark", "-r", tmp.file("r.pcap"), "-Y", "http.request", "-T", "fields", "-e",
                  "http.request.uri"},
                 cleanEnvironment({{"HOME", tmp.path()}}));
  EXPECT_EQ(shark.out, "/x\n") << shark.err;
}

// The wire, asked for beside the plaintext, is counted in the live view and kept in JSON Lines,
// never shown as the conversation.
TEST(TlsRecord, TheWireIsCountedNotShown) {
  TALVEX_REQUIRE_PROGRAM("/usr/bin/curl");
  TlsServer server(1, 15);
  TempDir tmp;
  const ProcessResult r = recordCommand(
      {"--live", "--transcript", tmp.file("t.txt"), "--jsonl", tmp.file("r.jsonl")},
      {"/usr/bin/curl", "-s", "--cacert", server.certificate(), "https://127.0.0.1:" + server.port() + "/"},
      {{"HOME", "/tmp"}, {TALVEX_VAR_TLS_WIRE, "1"}});
  server.finish();
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.err.find(" bytes of TLS records\n"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find(" bytes  GET / HTTP/1.1\\r\\n"), std::string::npos) << r.err;
  const std::string transcript = readFile(tmp.file("t.txt"));
  EXPECT_NE(transcript.find("      GET / HTTP/1.1\\r\\n\n"), std::string::npos) << transcript;
  EXPECT_EQ(transcript.find("encrypted"), std::string::npos) << transcript;
  const ProcessResult jq =
      runProcess({"/usr/bin/jq", "-r", "select(.kind==\"wiresend\") | .data_b64", tmp.file("r.jsonl")}, cleanEnvironment());
  EXPECT_EQ(jq.out.substr(0, 3), "FgM") << jq.out;  // base64 of 0x16 0x03: a handshake record
  expectValidJsonLines(tmp.file("r.jsonl"));
}

// Node's OpenSSL is linked into node itself: its records stay records, said to be encrypted, and
// the end of the run names the program.
TEST(TlsRecord, TlsLinkedIntoTheProgramIsMarkedEncrypted) {
  TALVEX_REQUIRE_PROGRAM("/usr/bin/node");
  TlsServer server(1, 15);
  TempDir tmp;
  const ProcessResult r = recordCommand(
      {"--transcript", tmp.file("t.txt")},
      {"/usr/bin/node", "-e",
       "const https = require('https');\n"
       "https.get({host: '127.0.0.1', port: process.argv[1], path: '/node', ca: require('fs').readFileSync(process.argv[2])},\n"
       "          r => { r.resume(); });\n",
       server.port(), server.certificate()},
      {{"HOME", "/tmp"}});
  server.finish();
  EXPECT_EQ(r.exitCode, 0) << r.err;
  const std::string transcript = readFile(tmp.file("t.txt"));
  EXPECT_NE(transcript.find(" [TLS, encrypted: the program's TLS code is out of the agent's reach]  at "), std::string::npos)
      << transcript;
  EXPECT_NE(transcript.find(" bytes (encrypted)\n   "), std::string::npos) << transcript;
  EXPECT_EQ(transcript.find("GET /node"), std::string::npos);
  EXPECT_NE(r.err.find("talvex-record: 1 connection of node carried TLS that could not be read as plaintext: its TLS "
                       "code is linked into the program (as Go's crypto/tls and node's bundled OpenSSL are), out of "
                       "the agent's reach; the transcript shows those connections as encrypted (--keylog FILE asks "
                       "node for its secrets, and decrypts with them)\n"),
            std::string::npos)
      << r.err;
}

// With a key log, node writes its secrets and the transcript reads node's TLS with them: each of
// TLS 1.3's ciphers, and TLS 1.2's AES-GCM and ChaCha20-Poly1305; a TLS 1.2 connection with a
// cipher of another kind (AES-CBC) stays encrypted.
TEST(TlsRecord, NodeIsDecryptedWithTheKeyLog) {
  TALVEX_REQUIRE_PROGRAM("/usr/bin/node");
  TlsServer server(7, 15);
  TempDir tmp;
  const ProcessResult r = recordCommand(
      {"--keylog", tmp.file("keys"), "--transcript", tmp.file("t.txt"), "--har", tmp.file("out.har")},
      {"/usr/bin/node", "-e",
       "const https = require('https');\n"
       "const ca = require('fs').readFileSync(process.argv[2]);\n"
       "const connections = [['TLS_AES_128_GCM_SHA256', 'TLSv1.3'], ['TLS_AES_256_GCM_SHA384', 'TLSv1.3'],\n"
       "                     ['TLS_CHACHA20_POLY1305_SHA256', 'TLSv1.3'], ['ECDHE-RSA-AES128-GCM-SHA256', 'TLSv1.2'],\n"
       "                     ['ECDHE-RSA-AES256-GCM-SHA384', 'TLSv1.2'], ['ECDHE-RSA-CHACHA20-POLY1305', 'TLSv1.2'],\n"
       "                     ['ECDHE-RSA-AES128-SHA256', 'TLSv1.2']];\n"
       "const next = n => {\n"
       "  if (n == connections.length) return;\n"
       "  const [cipher, version] = connections[n];\n"
       "  https.get({host: '127.0.0.1', port: process.argv[1], path: '/' + cipher, ca, ciphers: cipher,\n"
       "             minVersion: version, maxVersion: version, agent: false},\n"
       "            r => { r.resume(); r.on('end', () => next(n + 1)); });\n"
       "};\n"
       "next(0);\n",
       server.port(), server.certificate()},
      {{"HOME", "/tmp"}});
  server.finish();
  EXPECT_EQ(r.exitCode, 0) << r.err;
  const std::string transcript = readFile(tmp.file("t.txt"));
  EXPECT_EQ(count(transcript, " [TLS: decrypted with the key log]  at "), 6u) << transcript;
  for (const char* cipher : {"TLS_AES_128_GCM_SHA256", "TLS_AES_256_GCM_SHA384", "TLS_CHACHA20_POLY1305_SHA256",
                             "ECDHE-RSA-AES128-GCM-SHA256", "ECDHE-RSA-AES256-GCM-SHA384", "ECDHE-RSA-CHACHA20-POLY1305"}) {
    EXPECT_NE(transcript.find(std::string("      GET /") + cipher + " HTTP/1.1\\r\\n\n"), std::string::npos) << cipher;
  }
  EXPECT_EQ(count(transcript, "      HTTP/1.1 200 OK\\r\\n\n"), 6u) << transcript;
  EXPECT_EQ(count(transcript, "      0123456789abcde\n"), 6u) << transcript;
  EXPECT_EQ(count(transcript, " [TLS, encrypted: the program's TLS code is out of the agent's reach]  at "), 1u);
  EXPECT_EQ(transcript.find("GET /ECDHE-RSA-AES128-SHA256"), std::string::npos);
  EXPECT_NE(r.err.find("talvex-record: 7 connections of node carried TLS that could not be read as plaintext: its TLS "
                       "code is linked into the program (as Go's crypto/tls and node's bundled OpenSSL are), out of "
                       "the agent's reach; the transcript shows them decrypted where the key log holds their secrets "
                       "(TLS 1.3, and TLS 1.2 with AES-GCM or ChaCha20-Poly1305), as encrypted otherwise\n"),
            std::string::npos)
      << r.err;
  // The HAR reads the same decrypted conversations.
  EXPECT_NE(r.err.find("talvex-record: the HAR holds 6 HTTP exchanges; 1 conversation that is not HTTP is left out (1 of "
                       "them TLS that the key log could not decrypt)\n"),
            std::string::npos)
      << r.err;
  const ProcessResult entries = runProcess(
      {"/usr/bin/jq", "-r", ".log.entries[] | [.request.url, .response.status, ._talvex.tls] | @tsv", tmp.file("out.har")},
      cleanEnvironment());
  std::string expected;
  for (const char* cipher : {"TLS_AES_128_GCM_SHA256", "TLS_AES_256_GCM_SHA384", "TLS_CHACHA20_POLY1305_SHA256",
                             "ECDHE-RSA-AES128-GCM-SHA256", "ECDHE-RSA-AES256-GCM-SHA384", "ECDHE-RSA-CHACHA20-POLY1305"}) {
    expected += "https://127.0.0.1:" + server.port() + "/" + cipher + "\t200\tdecrypted with the key log\n";
  }
  EXPECT_EQ(entries.out, expected);
}
