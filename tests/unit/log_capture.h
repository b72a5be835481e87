// Points the agent's diagnostic log at a temporary file for one test and reads it back.
#pragma once

#include <stdlib.h>

#include <string>

#include "base/variable_names.h"
#include "diag/debug_log.h"
#include "process_runner.h"

namespace talvex_test {

// Back to the state of a process in which the log was never configured.
inline void resetDebugLog() {
  if (hLogFile != nullptr) fclose(hLogFile);
  hLogFile = nullptr;
  free(debugFileNameFlush);
  debugFileNameFlush = nullptr;
  defaultDebugDisplayInitialized = false;
  debugLvl = -1;
  unsetenv(TALVEX_VAR_DEBUG_LVL);
  unsetenv(TALVEX_VAR_DEBUG_DIR);
}

class LogCapture {
 public:
  explicit LogCapture(const char* level = "127") {
    resetDebugLog();
    setenv(TALVEX_VAR_DEBUG_LVL, level, 1);
    setenv(TALVEX_VAR_DEBUG_DIR, dir_.path().c_str(), 1);
    initializeCriticalSections();
    set_default_debug_display("sock");
  }
  ~LogCapture() { resetDebugLog(); }

  std::string content() const {
    if (hLogFile) fflush(hLogFile);
    return debugFileNameFlush ? readFile(debugFileNameFlush) : std::string();
  }
  std::vector<std::string> lines() const { return splitLines(content()); }

 private:
  TempDir dir_;
};

}  // namespace talvex_test
