#include "startup/recorder_core.h"
#include "base/symbol_versions.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <stdio.h>
#include <stdlib.h>

#include "base/process_identity.h"

// The oldest version, for older 32-bit C libraries.
__asm__(".symver dladdr1,dladdr1@GLIBC_2.3.3");
#include "base/time_base.h"
#include "base/variable_names.h"
#include "diag/debug_log.h"
#include "real/real_functions.h"

const char* const kRecorderCoreRelativeDirectory = "../../../../talvex.recorder.core/Libraries/";
const char* const kRecorderCoreFileName = "libRecorderCore.so";
const char* const kRecorderCorePathVariable = TALVEX_VAR_RECORDERCORE_PATH;

namespace {

const char* const kClockName = "currentTime";

// Only a function is a clock: the lookup may run in the global scope, where a host of its own
// may define a variable of the same name, and calling that would crash it.
bool namesAFunction(void* address) {
  Dl_info info;
  ElfW(Sym)* symbol = nullptr;
  if (dladdr1(address, &info, reinterpret_cast<void**>(&symbol), RTLD_DL_SYMENT) == 0 || symbol == nullptr) {
    return false;
  }
  const unsigned type = ELF32_ST_TYPE(symbol->st_info);
  return type == STT_FUNC || type == STT_GNU_IFUNC;
}

CurrentTimeFunction loadClock(const char* path) {
  void* found = LoadSymbolFromLibrary(path, kClockName);
  if (found == nullptr) return nullptr;
  if (!namesAFunction(found)) {
    x_disp(DMK_ERROR, "%s found in %s is not a function: not used", kClockName, path);
    return nullptr;
  }
  return reinterpret_cast<CurrentTimeFunction>(found);
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
