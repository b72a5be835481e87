// Running a preloaded probe against a real endpoint and reading back what was recorded.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "process_runner.h"
#include "recorder_endpoint.h"
#include "recorder_message_parser.h"

namespace talvex_test {

struct Recording {
  ProcessResult run;
  std::vector<std::string> raw;                   // every message as received, in order
  std::vector<talvex::ParsedMessage> messages;    // the same, parsed; the process message left out
  std::string log;                                // the agent's diagnostic log, level 127

  std::vector<std::string> kinds() const;
  std::vector<const talvex::ParsedMessage*> ofKind(const std::string& kind) const;
};

// Attribute names of a message, in order.
std::vector<std::string> attributeNames(const talvex::ParsedMessage& message);
// The raw value of an attribute, or "<absent>".
std::string valueOf(const talvex::ParsedMessage& message, const std::string& name);
std::string hexOf(long value);

// Runs `argv` with the agent preloaded (and `preloadAfter` behind it), recording into a fresh
// endpoint and logging everything into a fresh directory; `extra` may override any of that.
Recording recordRun(const std::vector<std::string>& argv, const Environment& extra = {},
                    const std::string& preloadAfter = "", std::chrono::seconds timeout = std::chrono::seconds(60));

}  // namespace talvex_test
