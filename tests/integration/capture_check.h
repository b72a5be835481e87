// Reading back the capture files talvex-record writes, through tshark, as a user would.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "process_runner.h"

namespace talvex_test {

// The bytes of each direction of the first TCP stream, as tshark follows it.
inline void followStream(const std::string& capture, std::string* client, std::string* server) {
  const ProcessResult r = runProcess({"/usr/bin/tshark", "-r", capture, "-q", "-z", "follow,tcp,raw,0"},
                                     cleanEnvironment({{"HOME", "/tmp"}}));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  bool inData = false;
  for (const auto& line : splitLines(r.out)) {
    if (line.rfind("Node 1:", 0) == 0) {
      inData = true;
      continue;
    }
    if (!inData || line.rfind("=====", 0) == 0) continue;
    const bool fromServer = !line.empty() && line[0] == '\t';
    const std::string hex = fromServer ? line.substr(1) : line;
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    (fromServer ? *server : *client) += bytes;
  }
}

}  // namespace talvex_test
