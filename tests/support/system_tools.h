// A test that needs a program of the system, or a privilege, that a machine may not have skips
// with the reason instead of failing: the suite says what it could not check, and why.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "process_runner.h"

namespace talvex_test {

// Whether this user may make a network namespace of its own (unshare --net).
inline bool canMakeNetworkNamespaces() {
  static const int answer = [] {
    if (access("/usr/bin/unshare", X_OK) != 0) return 0;
    return runProcess({"/usr/bin/unshare", "--net", "/bin/true"}, cleanEnvironment(), std::chrono::seconds(10))
                       .exitCode == 0
               ? 1
               : 0;
  }();
  return answer == 1;
}

}  // namespace talvex_test

// In a test body or SetUp: skips the test when the program at `path` is not installed.
#define TALVEX_REQUIRE_PROGRAM(path)                                                              \
  do {                                                                                            \
    if (access(path, X_OK) != 0) GTEST_SKIP() << "needs " << (path) << ", which is not installed"; \
  } while (0)

// Skips the test when this user may not make network namespaces.
#define TALVEX_REQUIRE_NETWORK_NAMESPACES()                                                              \
  do {                                                                                                   \
    if (!talvex_test::canMakeNetworkNamespaces())                                                        \
      GTEST_SKIP() << "needs a network namespace of its own (unshare --net), which this user may not make"; \
  } while (0)
