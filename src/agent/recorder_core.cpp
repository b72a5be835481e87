#include "agent/recorder_core.h"

#include <stdio.h>
#include <stdlib.h>

#include "agent/agent_startup.h"
#include "agent/time_base.h"
#include "diag/debug_log.h"
#include "interpose/real_functions.h"

const char* const kRecorderCoreRelativeDirectory = "../../../../talvex.recorder.core/Libraries/";
const char* const kRecorderCoreFileName = "libRecorderCore.so";
const char* const kRecorderCorePathVariable = "TALVEX_SOCKET_AGENT_RECORDERCORE32_PATH";

namespace {

const char* const kClockName = "currentTime";

CurrentTimeFunction loadClock(const char* path) {
  return reinterpret_cast<CurrentTimeFunction>(LoadSymbolFromLibrary(path, kClockName));
}

}  // namespace

void locateRecorderCore() {
  if (agentFileName != nullptr) {
    char path[2048];
    const int directoryLength = static_cast<int>(agentFileName - agentPath);
    snprintf(path, sizeof path, "%.*s%s%s", directoryLength, agentPath, kRecorderCoreRelativeDirectory,
             kRecorderCoreFileName);
    x_disp(DMK_INFO, "try to load %s library function %s", path, kClockName);
    getCurrentTimePtr = loadClock(path);
  }
  if (getCurrentTimePtr != nullptr) return;
  x_disp(DMK_INFO, "%s%s does not exists, trying with the one defined in environment variable",
         kRecorderCoreRelativeDirectory, kRecorderCoreFileName);
  const char* configured = getenv(kRecorderCorePathVariable);
  if (configured == nullptr) {
    x_disp(DMK_INFO, "env variable %s is not defined => abort loading lib", kRecorderCorePathVariable);
    return;
  }
  getCurrentTimePtr = loadClock(configured);
  if (getCurrentTimePtr != nullptr) {
    x_disp(DMK_INFO, "%s found....", configured);
  } else {
    x_disp(DMK_INFO, "%s does not exists", configured);
  }
}
