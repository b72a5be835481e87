// With a key log asked for, the session secrets of every OpenSSL and GnuTLS connection are
// written in the format Wireshark reads, and a program's own key-log callback still gets them.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <regex>
#include <string>

#include "process_runner.h"
#include "record_command.h"
#include "system_tools.h"
#include "test_paths.h"
#include "tls_server.h"

using namespace talvex_test;

namespace {

// The labels of a key log's lines, each checked for the format: LABEL, the client's random
// (32 bytes) and a secret, in hexadecimal.
std::vector<std::string> labelsOf(const std::string& keylog) {
  const std::regex line("([A-Z_0-9]+) [0-9a-f]{64} (?:[0-9a-f]{2}){32,64}");
  std::vector<std::string> labels;
  for (const std::string& text : splitLines(keylog)) {
    std::smatch m;
    EXPECT_TRUE(std::regex_match(text, m, line)) << text;
    labels.push_back(m[1]);
  }
  return labels;
}

// What a TLS 1.3 handshake gives a client's key log.
const std::vector<std::string> kTls13Labels = {"SERVER_HANDSHAKE_TRAFFIC_SECRET", "EXPORTER_SECRET",
                                               "SERVER_TRAFFIC_SECRET_0", "CLIENT_HANDSHAKE_TRAFFIC_SECRET",
                                               "CLIENT_TRAFFIC_SECRET_0"};

std::vector<std::string> sorted(std::vector<std::string> labels) {
  std::sort(labels.begin(), labels.end());
  return labels;
}

}  // namespace

// The agent's own variable, in a client of this suite's ABI that opens each library itself.
TEST(TlsKeylog, TheAgentWritesTheSecretsOfBothLibraries) {
  TempDir tmp;
  for (const std::string library : {"openssl", "gnutls"}) {
    const std::string path = library == "openssl"
                                 ? (kAbiBits == 64 ? "/usr/lib/x86_64-linux-gnu/libssl.so.3"
                                                   : "/var/lib/talvex-test/libssl3-i386/usr/lib/i386-linux-gnu/libssl.so.3")
                                 : (kAbiBits == 64 ? "/usr/lib/x86_64-linux-gnu/libgnutls.so.30"
                                                   : "/usr/lib/i386-linux-gnu/libgnutls.so.30");
    if (access(path.c_str(), R_OK) != 0) GTEST_SKIP() << "needs " << path << ", which the install script provides";
    TlsServer server(1, 100);
    Environment extra = {{TALVEX_VAR_TLS_KEYLOG, tmp.file(library + ".keys")}, {TALVEX_VAR_UNPLUG_AGENT, ""}};
    if (kAbiBits == 32) extra["LD_LIBRARY_PATH"] = "/var/lib/talvex-test/libssl3-i386/usr/lib/i386-linux-gnu";
    const ProcessResult r =
        runProcess({kTlsClientProbePath, library, path, server.port(), "10"}, agentEnvironment(extra));
    server.finish();
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(sorted(labelsOf(readFile(tmp.file(library + ".keys")))), sorted(kTls13Labels)) << library;
  }
}

// curl sets a key-log callback of its own when SSLKEYLOGFILE is set: both logs get every line.
TEST(TlsRecord, AProgramsOwnKeyLogCallbackIsChainedNotReplaced) {
  TALVEX_REQUIRE_PROGRAM("/usr/bin/curl");
  TlsServer server(1, 100);
  TempDir tmp;
  const ProcessResult r = recordCommand(
      {"-q", "--keylog", tmp.file("agent.keys")},
      {"/usr/bin/curl", "-s", "-o", "/dev/null", "--cacert", server.certificate(), "https://127.0.0.1:" + server.port() + "/"},
      {{"SSLKEYLOGFILE", tmp.file("curl.keys")}, {"HOME", "/tmp"}});
  server.finish();
  EXPECT_EQ(r.exitCode, 0) << r.err;
  const std::string agentKeys = readFile(tmp.file("agent.keys"));
  EXPECT_EQ(sorted(labelsOf(agentKeys)), sorted(kTls13Labels));
  EXPECT_EQ(agentKeys, readFile(tmp.file("curl.keys")));
}

// The wire, captured by dumpcap in a network namespace of the test's own, decrypted by tshark with
// the key log that talvex-record wrote for wget (GnuTLS), curl (OpenSSL) and node (its own).
TEST(TlsRecord, TsharkDecryptsACaptureOfTheWireWithTheKeyLog) {
  TALVEX_REQUIRE_NETWORK_NAMESPACES();
  TALVEX_REQUIRE_PROGRAM("/usr/bin/dumpcap");
  TALVEX_REQUIRE_PROGRAM("/usr/bin/tshark");
  TALVEX_REQUIRE_PROGRAM("/usr/bin/wget");
  TALVEX_REQUIRE_PROGRAM("/usr/bin/node");
  TempDir tmp;
  // The server and both clients run inside the namespace; every wait is bounded.
  const std::string script =
      "set -e\n"
      "ip link set lo up\n"
      "dumpcap -q -P -i lo -w \"$1/wire.pcap\" 2> \"$1/dumpcap.err\" &\n"
      "capture=$!\n"
      "for i in $(seq 200); do grep -q Capturing \"$1/dumpcap.err\" && break; sleep 0.05; done\n"
      "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost -addext subjectAltName=IP:127.0.0.1 "
      "-keyout \"$1/key.pem\" -out \"$1/cert.pem\" 2> /dev/null\n"
      "/usr/bin/python3 \"$2\" \"$1\" 3 100 &\n"
      "for i in $(seq 200); do [ -e \"$1/port\" ] && break; sleep 0.05; done\n"
      "port=$(cat \"$1/port\")\n"
      "\"$3\" -q --keylog \"$1/keys\" -- wget -q -O /dev/null --ca-certificate=\"$1/cert.pem\" "
      "https://127.0.0.1:$port/by-wget\n"
      "\"$3\" -q --keylog \"$1/keys\" -- curl -s -o /dev/null --cacert \"$1/cert.pem\" https://127.0.0.1:$port/by-curl\n"
      // Node's OpenSSL is its own: talvex-record asks node for its keys.
      "\"$3\" -q --keylog \"$1/keys\" -- node -e \"require('https').get({host: '127.0.0.1', port: $port, path: "
      "'/by-node', ca: require('fs').readFileSync('$1/cert.pem')}, r => r.resume())\" 2> /dev/null\n"
      "wait %2\n"
      // The kernel hands dumpcap its packets a block at a time, after a timeout: every packet is
      // in the file once it has held more than its header, unchanged, for a second and a half.
      "last=0; same=0\n"
      "for i in $(seq 100); do\n"
      "  size=$(stat -c %s \"$1/wire.pcap\")\n"
      "  if [ \"$size\" -gt 24 ] && [ \"$size\" = \"$last\" ]; then same=$((same + 1)); else same=0; fi\n"
      "  [ $same -ge 3 ] && break\n"
      "  last=$size; sleep 0.5\n"
      "done\n"
      "kill -INT $capture\n"
      "wait $capture || true\n";
  const ProcessResult r = runProcess({"/usr/bin/unshare", "--net", "/bin/sh", "-c", script, "sh", tmp.path(),
                                      kTlsServerPath, kRecordPath},
                                     cleanEnvironment({{"HOME", "/tmp"}}), std::chrono::seconds(120));
  ASSERT_EQ(r.exitCode, 0) << r.err << readFile(tmp.file("dumpcap.err"));
  const auto requests = [&](const std::vector<std::string>& options) {
    std::vector<std::string> argv = {"/usr/bin/tshark", "-r", tmp.file("wire.pcap")};
    argv.insert(argv.end(), options.begin(), options.end());
    for (const char* o : {"-Y", "http.request", "-T", "fields", "-e", "http.request.uri"}) argv.push_back(o);
    const ProcessResult shark = runProcess(argv, cleanEnvironment({{"HOME", tmp.path()}}));
    EXPECT_EQ(shark.exitCode, 0) << shark.err;
    return shark.out;
  };
  EXPECT_EQ(requests({}), "");
  EXPECT_EQ(requests({"-o", "tls.keylog_file:" + tmp.file("keys")}), "/by-wget\n/by-curl\n/by-node\n");
}
