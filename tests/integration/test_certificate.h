// A certificate for localhost and 127.0.0.1 that a test's own TLS server presents and its clients
// trust (--cacert): made by Debian's openssl, valid two days.
#pragma once

#include <gtest/gtest.h>

#include "process_runner.h"

namespace talvex_test {

// Writes cert.pem and key.pem into `dir`.
inline void makeTestCertificate(const TempDir& dir) {
  const ProcessResult made = runProcess(
      {"/usr/bin/openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=localhost",
       "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1", "-keyout", dir.file("key.pem"), "-out", dir.file("cert.pem")},
      cleanEnvironment());
  EXPECT_EQ(made.exitCode, 0) << made.err;
}

}  // namespace talvex_test
