// The TLS tests' own server (tests/support/tls_server.py), run without the agent, with a
// certificate the test makes: what its TLS layer received and sent is the reference.
#pragma once

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "process_runner.h"
#include "test_certificate.h"
#include "test_paths.h"

namespace talvex_test {

class TlsServer {
 public:
  // `answerDelay`: how long the server waits before it answers each request.
  TlsServer(int connections, int responseBodyBytes, const std::string& answerDelay = "0") {
    makeTestCertificate(dir_);
    server_.reset(new BackgroundProcess({"/usr/bin/python3", kTlsServerPath, dir_.path(), std::to_string(connections),
                                         std::to_string(responseBodyBytes), answerDelay},
                                        cleanEnvironment()));
    port_ = waitForPortFile(dir_.file("port"), std::chrono::seconds(30));
  }

  std::string port() const { return std::to_string(port_); }
  std::string certificate() const { return dir_.file("cert.pem"); }
  std::string key() const { return dir_.file("key.pem"); }
  // Waits for the server to have served all its connections, and says what it printed.
  std::string finish() {
    const ProcessResult r = server_->wait(std::chrono::seconds(60));
    EXPECT_EQ(r.exitCode, 0) << r.err;
    return r.err;
  }
  // What its TLS layer received and sent on connection `n`.
  std::string received(int n) const { return readFile(dir_.file("in-" + std::to_string(n))); }
  std::string sent(int n) const { return readFile(dir_.file("out-" + std::to_string(n))); }

 private:
  TempDir dir_;
  std::unique_ptr<BackgroundProcess> server_;
  int port_ = -1;
};

}  // namespace talvex_test
