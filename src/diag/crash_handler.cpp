#include "diag/crash_handler.h"
#include "base/symbol_versions.h"
#include "base/variable_names.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

__asm__(".symver dladdr,dladdr@" TALVEX_GLIBC_FIRST);

namespace {

const int kMostFrames = 100;

struct sigaction crashAction() {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_sigaction = handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_SIGINFO;
  return action;
}

// One line about an address: symbol and offset when the loader knows one, else file and offset
// from its base, else the bare address.
void describe(const char* head, void* address) {
  Dl_info info;
  if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) {
    printf("%s %p \n", head, address);
  } else if (info.dli_sname != nullptr) {
    printf("%s %p ( %s + %p) [%s]\n", head, address, info.dli_sname,
           reinterpret_cast<void*>(static_cast<char*>(address) - static_cast<char*>(info.dli_saddr)), info.dli_fname);
  } else {
    printf("%s %p  [%s + %p]\n", head, address, info.dli_fname,
           reinterpret_cast<void*>(static_cast<char*>(address) - static_cast<char*>(info.dli_fbase)));
  }
}

}  // namespace

// Not async-signal-safe (stdio, dladdr, backtrace, exit): a last-resort report of a process that
// is going down anyway. A second fault while it prints ends the process by the default action.
void handler(int signal, siginfo_t* information, void* context) {
  (void)signal;
  (void)context;
  void* frames[kMostFrames];
  const int count = backtrace(frames, kMostFrames);
  describe("SigSEV @", information != nullptr ? information->si_addr : nullptr);
  printf("==================================Stack=========================\n");
  for (int i = 0; i < count; ++i) describe("       @", frames[i]);
  printf("================================End Stack=======================\n");
  // A normal exit, so that output is flushed and the host's exit handlers run.
  exit(0);
}

void installCrashHandlerOnRequest() {
  if (getenv(TALVEX_VAR_DEBUG_TRACEBACK) == nullptr) return;
  const struct sigaction action = crashAction();
  sigaction(SIGSEGV, &action, nullptr);
}

int active_handler(struct sigaction* previous) {
  const struct sigaction action = crashAction();
  return sigaction(SIGSEGV, &action, previous);
}

int restore_handler(struct sigaction* action) { return sigaction(SIGSEGV, action, nullptr); }

int DisplaySymbol(void* address) {
  Dl_info info;
  if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) return 0;
  if (info.dli_sname == nullptr) {
    return printf(" %p => from %s (base %p)\n", address, info.dli_fname, info.dli_fbase);
  }
  return printf(" %p => %s  (%p) from %s (base %p)\n", address, info.dli_sname, info.dli_saddr, info.dli_fname,
                info.dli_fbase);
}
