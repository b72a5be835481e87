// A recorder endpoint that agents reach on a local socket as well as on a TCP port of loopback.
#pragma once

#include <unistd.h>

#include <string>

#include "recorder_endpoint.h"

namespace talvex_test {

// A name in the abstract namespace, after the test and this process: two runs of the suite at
// once, or two tests, never take each other's socket, and none leaves a file behind.
inline std::string localSocketName(const std::string& test) {
  return "@talvex-" + test + "-" + std::to_string(getpid());
}

class LocalRecorder {
 public:
  explicit LocalRecorder(const std::string& name)
      : name_(name), listening_(endpoint_.listenLocally(name_, nullptr) && endpoint_.start("127.0.0.1", 0, nullptr)) {}

  // Whether it listens on both: a test asserts this first.
  bool listening() const { return listening_; }
  const std::string& name() const { return name_; }
  talvex::RecorderEndpoint& endpoint() { return endpoint_; }

 private:
  const std::string name_;
  talvex::RecorderEndpoint endpoint_;
  const bool listening_;
};

}  // namespace talvex_test
