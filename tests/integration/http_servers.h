// The HAR and report tests' own servers, run without the agent: the HTTP/1.1 server
// (tests/support/http_server.py) and node's HTTP/2 server (tests/support/http2_server.js). What
// they received is the reference a recording must equal.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "process_runner.h"
#include "test_certificate.h"
#include "test_paths.h"

namespace talvex_test {

class HttpServer {
 public:
  HttpServer() {
    server_.reset(new BackgroundProcess({"/usr/bin/python3", kHttpServerPath, dir_.path()}, cleanEnvironment()));
    port_ = waitForPortFile(dir_.file("port"), std::chrono::seconds(30));
  }
  std::string port() const { return std::to_string(port_); }
  std::string url(const std::string& path) const { return "http://127.0.0.1:" + port() + path; }
  // What it received on its connection `n` (counted from 0 in the order it accepted them), once
  // that connection has ended.
  std::string received(int n) const {
    EXPECT_TRUE(waitUntil([&] { return access(dir_.file("done-" + std::to_string(n)).c_str(), F_OK) == 0; },
                          std::chrono::seconds(30)))
        << "connection " << n << " never ended";
    return readFile(dir_.file("in-" + std::to_string(n)));
  }
  // What it sent on its connection `n`, once that connection has ended.
  std::string sent(int n) const {
    received(n);
    return readFile(dir_.file("out-" + std::to_string(n)));
  }
  // What it received on its first `count` connections, joined.
  std::string receivedOn(int count) const {
    std::string all;
    for (int n = 0; n < count; ++n) all += received(n);
    return all;
  }

 private:
  TempDir dir_;
  std::unique_ptr<BackgroundProcess> server_;
  int port_ = -1;
};

class Http2Server {
 public:
  // `tls`: over TLS with a certificate the test makes; otherwise in clear text.
  explicit Http2Server(bool tls) {
    if (tls) makeTestCertificate(dir_);
    server_.reset(new BackgroundProcess({"/usr/bin/node", kHttp2ServerPath, dir_.path(), tls ? "tls" : "clear"},
                                        cleanEnvironment()));
    port_ = waitForPortFile(dir_.file("port"), std::chrono::seconds(30));
  }
  std::string port() const { return std::to_string(port_); }
  std::string certificate() const { return dir_.file("cert.pem"); }
  // Its JSON lines, one a request, once there are `count` of them.
  std::vector<std::string> requests(size_t count) const {
    EXPECT_TRUE(waitForFileLines(dir_.file("requests"), count, std::chrono::seconds(30)));
    return splitLines(readFile(dir_.file("requests")));
  }

 private:
  TempDir dir_;
  std::unique_ptr<BackgroundProcess> server_;
  int port_ = -1;
};

// Fields of a JSON file, through jq: `filter` with -r, its output as it printed it.
inline std::string jq(const std::string& filter, const std::string& file) {
  const ProcessResult r = runProcess({"/usr/bin/jq", "-r", filter, file}, cleanEnvironment());
  EXPECT_EQ(r.exitCode, 0) << r.err;
  return r.out;
}

// The folder the install script puts the npm tools in, which the HAR and report tests need.
inline const char* nodeToolsModules() { return "/var/lib/talvex-test/node-tools/node_modules"; }

// One of the node tools (tests/support/node-tools/NAME.js) with `arguments`.
inline ProcessResult nodeTool(const std::string& name, const std::vector<std::string>& arguments,
                              std::chrono::seconds timeout = std::chrono::seconds(60)) {
  std::vector<std::string> argv = {"/usr/bin/node", std::string(kNodeToolsPath) + "/" + name + ".js"};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return runProcess(argv, cleanEnvironment({{"NODE_PATH", nodeToolsModules()}}), timeout);
}

// The HAR 1.2 schema's verdict on `file`: "valid\n", or the errors.
inline void expectValidHar(const std::string& file) {
  const ProcessResult r = nodeTool("validate-har", {file});
  EXPECT_EQ(r.out, "valid\n") << r.err;
  EXPECT_EQ(r.exitCode, 0);
}

// What the importer (httpsnippet, which checks each request against its own HAR schema first)
// makes of `file`: a curl command per entry, each ended by a zero byte.
inline std::vector<std::string> importedCommands(const std::string& file) {
  const ProcessResult r = nodeTool("har-to-curl", {file});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  std::vector<std::string> commands;
  size_t start = 0;
  for (size_t end; (end = r.out.find('\0', start)) != std::string::npos; start = end + 1) {
    commands.push_back(r.out.substr(start, end - start));
  }
  EXPECT_EQ(start, r.out.size()) << "output after the last command: " << r.out.substr(start);
  return commands;
}

}  // namespace talvex_test

// In SetUp: the tools the install script provides, which these tests cannot do without.
#define TALVEX_REQUIRE_NODE_TOOLS()                                                                        \
  do {                                                                                                     \
    ASSERT_EQ(access("/usr/bin/node", X_OK), 0) << "the install script installs node";                     \
    ASSERT_EQ(access(talvex_test::nodeToolsModules(), R_OK), 0) << "the install script installs the npm tools"; \
  } while (0)

// talvex-record's documents are made from the messages, the same whichever agent sent them, and
// the programs these tests record are Debian's 64-bit ones: the 64-bit suite runs them once.
#define TALVEX_RECORDED_ONCE_FOR_BOTH_ABIS()                                                               \
  do {                                                                                                     \
    if (kAbiBits != 64) GTEST_SKIP() << "Debian's clients are 64-bit; the 64-bit suite runs this"; \
  } while (0)
