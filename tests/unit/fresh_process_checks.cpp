// Facts about a process in which nothing of the agent has run yet. The unit tests share one
// process when run together, so each fact is checked here, in a process of its own, and the test
// that runs this program reads what it printed.
#include <dlfcn.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "base/counters.h"
#include "real/dlsym_bootstrap.h"
#include "real/real_functions.h"

extern "C" void* lookupAsTheAgentDoes(void* handle, const char* name);

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const char* check = argv[1];
  if (strcmp(check, "error-accessor") == 0) {
    errno = 5;
    const int before = True_WSAGetLastError();
    initializeRealFunctionPointers();
    errno = 5;
    printf("before %d after %d\n", before, True_WSAGetLastError());
    return 0;
  }
  if (strcmp(check, "counters") == 0 && argc > 2) {
    const int calls = atoi(argv[2]);
    for (int i = 0; i < calls; ++i) {
      getGlobalCpt();
      getTicket();
    }
    printf("call number %u ticket %u\n", getGlobalCpt(), getTicket());
    return 0;
  }
  if (strcmp(check, "default-scope") == 0 && argc > 2) {
    // A library of the global scope that is no dependency of the object the lookup lives in.
    if (dlopen(argv[2], RTLD_NOW | RTLD_GLOBAL) == nullptr) return 3;
    const bool first = lookupAsTheAgentDoes(RTLD_DEFAULT, "currentTime") != nullptr;
    const bool second = lookupAsTheAgentDoes(RTLD_DEFAULT, "currentTime") != nullptr;
    printf("first %s second %s\n", first ? "found" : "null", second ? "found" : "null");
    return 0;
  }
  return 2;
}
