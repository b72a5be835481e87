// Running a command under talvex-record, as a user types it: options, "--", the command.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "process_runner.h"
#include "test_paths.h"

namespace talvex_test {

inline ProcessResult recordCommand(const std::vector<std::string>& options, const std::vector<std::string>& command,
                                   const Environment& extra = {},
                                   std::chrono::seconds timeout = std::chrono::seconds(60)) {
  std::vector<std::string> argv = {kRecordPath};
  argv.insert(argv.end(), options.begin(), options.end());
  argv.push_back("--");
  argv.insert(argv.end(), command.begin(), command.end());
  return runProcess(argv, cleanEnvironment(extra), timeout);
}

}  // namespace talvex_test
