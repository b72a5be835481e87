// The agent's lookup routine in a shared object of its own, as it is in the agent: which object
// counts as "the agent's own" only shows when that object is a library, not the program.
#include "real/dlsym_bootstrap.h"

extern "C" __attribute__((visibility("default"))) void* lookupAsTheAgentDoes(void* handle, const char* name) {
  return Truedlsym(handle, name);
}
