// Every JSON Lines file the suite produces is checked against the schema in doc/, with Debian's
// python3-jsonschema: a key spelt two ways, or an object without its process, fails the test.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "process_runner.h"
#include "test_paths.h"

namespace talvex_test {

// `fromRecord`: written by talvex-record, whose every object names its process.
inline void expectValidJsonLines(const std::string& path, bool fromRecord = true) {
  std::vector<std::string> argv = {"/usr/bin/python3", kJsonLinesValidatorPath};
  if (fromRecord) argv.push_back("--talvex-record");
  argv.push_back(path);
  const ProcessResult r = runProcess(argv, cleanEnvironment());
  EXPECT_EQ(r.exitCode, 0) << path << ":\n" << r.out << r.err;
}

}  // namespace talvex_test
