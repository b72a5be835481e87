#include "recording_support.h"

#include <stdio.h>

#include "base/variable_names.h"
#include "test_paths.h"

namespace talvex_test {

using namespace std::chrono_literals;

std::vector<std::string> Recording::kinds() const {
  std::vector<std::string> out;
  for (const auto& m : messages) out.push_back(m.kind);
  return out;
}

std::vector<const talvex::ParsedMessage*> Recording::ofKind(const std::string& kind) const {
  std::vector<const talvex::ParsedMessage*> out;
  for (const auto& m : messages) {
    if (m.kind == kind) out.push_back(&m);
  }
  return out;
}

std::vector<std::string> attributeNames(const talvex::ParsedMessage& message) {
  std::vector<std::string> names;
  for (const auto& a : message.attributes) names.push_back(a.name);
  return names;
}

std::string valueOf(const talvex::ParsedMessage& message, const std::string& name) {
  const talvex::MessageAttribute* a = message.find(name);
  return a != nullptr ? a->raw : "<absent>";
}

std::string hexOf(long value) {
  char text[32];
  snprintf(text, sizeof text, "%lx", static_cast<unsigned long>(value));
  return text;
}

Recording recordRun(const std::vector<std::string>& argv, const Environment& extra, const std::string& preloadAfter,
                    std::chrono::seconds timeout) {
  talvex::RecorderEndpoint endpoint;
  endpoint.start("127.0.0.1", 0, nullptr);
  TempDir logs;
  Environment environment = agentEnvironment({{TALVEX_VAR_PORT_NUMBER, std::to_string(endpoint.port())},
                                              {TALVEX_VAR_DEBUG_LVL, "127"},
                                              {TALVEX_VAR_DEBUG_DIR, logs.path()}});
  for (const auto& entry : extra) environment[entry.first] = entry.second;
  if (!preloadAfter.empty()) environment["LD_PRELOAD"] = preloadWithAgent(preloadAfter);
  Recording recording;
  recording.run = runProcess(argv, environment, timeout);
  endpoint.waitForQuiet(300ms, 10s);
  endpoint.stop(1000ms);
  recording.raw = endpoint.messages();
  for (const auto& text : recording.raw) {
    talvex::ParsedMessage m;
    std::string error;
    if (!talvex::parseRecorderMessage(text, &m, &error)) {
      m.kind = "MALFORMED: " + error;
    }
    if (m.kind != "process") recording.messages.push_back(m);
  }
  const auto files = listDirectory(logs.path());
  if (files.size() == 1) recording.log = readFile(logs.file(files[0]));
  return recording;
}

}  // namespace talvex_test
