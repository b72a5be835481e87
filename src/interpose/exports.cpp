// The functions the host binds to instead of the C library's: the only part of the agent that
// exists solely in the preloaded object, since linking it anywhere else would hook that program.
#include <dlfcn.h>
#include <errno.h>

#include "agent/agent_startup.h"
#include "hooks/handlers.h"
#include "interpose/companions.h"
#include "interpose/dlsym_bootstrap.h"
#include "interpose/export_visibility.h"
#include "interpose/real_functions.h"
#include "interpose/reentry_guard.h"
#include "interpose/socket_export_list.h"

// Start the agent once, make sure the real function is known, and let the handler decide.
// A successful call leaves errno alone, so whatever start-up did to errno must not show.
// A call made on a thread that is already inside the agent goes to the C library untouched (see
// reentry_guard.h); one made while another thread is still starting the agent waits for it, a
// bounded time, so that its message is neither lost nor sent without the process's identity.
#define TALVEX_DEFINE_EXPORT(result, name, parameters, arguments, throws) \
  extern "C" TALVEX_EXPORT result name parameters throws {                \
    if (insideAgent()) {                                                  \
      if (name##_ptr == nullptr) fillFromNext(name##_ptr, #name);         \
      return name##_ptr arguments;                                        \
    }                                                                     \
    AgentScope scope;                                                     \
    if (globalInit == 0) {                                                \
      const int callerErrno = errno;                                      \
      GlobalInit();                                                       \
      waitForStartupElsewhere();                                          \
      errno = callerErrno;                                                \
    }                                                                     \
    if (name##_ptr == nullptr) fillFromNext(name##_ptr, #name);           \
    return My##name arguments;                                            \
  }
TALVEX_SOCKET_EXPORTS(TALVEX_DEFINE_EXPORT)
#undef TALVEX_DEFINE_EXPORT

// Run-time lookups are answered from the agent first, so a host that fetches a hooked function
// through dlsym still reaches the hook.
extern "C" TALVEX_EXPORT void* dlsym(void* __restrict handle, const char* __restrict name) __THROW {
  void* ownObject = handleHookLIB;
  if (dlsymptr == nullptr) runDlsymBootstrap();
  if (dlsymptr == nullptr) return nullptr;
  if (ownObject == nullptr) ownObject = handleHookLIB;
  void* address = dlsymptr(ownObject, name);
  if (address != nullptr) return address;
  return dlsymptr(handle, name);
}
