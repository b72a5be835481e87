// The functions the host binds to instead of the C library's: the only part of the agent that
// exists solely in the preloaded object, since linking it anywhere else would hook that program.
#include <dlfcn.h>
#include <errno.h>
#include <link.h>

#include "base/export_visibility.h"
#include "config/complete_capture.h"
#include "hooks/capture_handlers.h"
#include "hooks/handlers.h"
#include "interpose/companions.h"
#include "interpose/reentry_guard.h"
#include "interpose/socket_export_list.h"
#include "interpose/tls_stand_ins.h"
#include "real/capture_real_functions.h"
#include "real/dlsym_bootstrap.h"
#include "real/real_functions.h"
#include "real/tls_functions.h"
#include "startup/agent_startup.h"

// Start the agent once, make sure the real function is known, and let the handler decide.
// A successful call leaves errno alone, so whatever start-up did to errno must not show.
// A call made on a thread that is already inside the agent goes to the C library untouched (see
// reentry_guard.h); one made while another thread is still starting the agent waits for it, a
// bounded time, so that its message is neither lost nor sent without the process's identity.
// Each export is an alias of a hidden twin: the twin's address is the agent's own function, while
// the address of the exported name, taken inside the agent, would be whatever the host put in
// front of it (a sanitizer runtime's interceptor of the same name).
#define TALVEX_ENTER_AGENT()                 \
  AgentScope scope;                          \
  if (globalInit == 0) {                     \
    const int callerErrno = errno;           \
    GlobalInit();                            \
    waitForStartupElsewhere();               \
    errno = callerErrno;                     \
  }

#define TALVEX_DEFINE_EXPORT(result, name, parameters, arguments, throws)                                   \
  extern "C" __attribute__((visibility("hidden"))) result talvexExport_##name parameters throws {          \
    if (insideAgent()) {                                                                                  \
      if (name##_ptr == nullptr) fillFromNext(name##_ptr, #name);                                         \
      return name##_ptr arguments;                                                                        \
    }                                                                                                     \
    TALVEX_ENTER_AGENT()                                                                                  \
    if (name##_ptr == nullptr) fillFromNext(name##_ptr, #name);                                           \
    return My##name arguments;                                                                            \
  }                                                                                                       \
  extern "C" TALVEX_EXPORT result name parameters throws __attribute__((alias("talvexExport_" #name)));
TALVEX_SOCKET_EXPORTS(TALVEX_DEFINE_EXPORT)
#undef TALVEX_DEFINE_EXPORT

// The extension's entry points neither start the agent nor record anything unless it is on: a
// program that never asked for it runs as if they were not there.
#define TALVEX_DEFINE_CAPTURE_EXPORT(result, name, parameters, arguments, throws)                           \
  extern "C" __attribute__((visibility("hidden"))) result talvexExport_##name parameters throws {          \
    if (insideAgent() || !completeCaptureRequested()) {                                                   \
      if (name##_ptr == nullptr) fillFromNext(name##_ptr, #name);                                         \
      if (name##_ptr == nullptr) {                                                                        \
        errno = ENOSYS;                                                                                   \
        return -1;                                                                                        \
      }                                                                                                   \
      return name##_ptr arguments;                                                                        \
    }                                                                                                     \
    TALVEX_ENTER_AGENT()                                                                                  \
    return My##name arguments;                                                                            \
  }                                                                                                       \
  extern "C" TALVEX_EXPORT result name parameters throws __attribute__((alias("talvexExport_" #name)));
TALVEX_CAPTURE_EXPORTS(TALVEX_DEFINE_CAPTURE_EXPORT)
#undef TALVEX_DEFINE_CAPTURE_EXPORT
#undef TALVEX_ENTER_AGENT

namespace {

struct OwnExport {
  const char* name;
  void* address;
};

#define TALVEX_OWN_EXPORT(result, name, parameters, arguments, throws) \
  {#name, reinterpret_cast<void*>(&talvexExport_##name)},
const OwnExport ownExports[] = {TALVEX_SOCKET_EXPORTS(TALVEX_OWN_EXPORT) TALVEX_CAPTURE_EXPORTS(TALVEX_OWN_EXPORT)};
#undef TALVEX_OWN_EXPORT

// Compared by hand: this runs while a sanitizer runtime starts, when its own strcmp, which stands
// in front of the C library's, cannot be called yet.
TALVEX_BEFORE_SANITIZERS bool sameName(const char* a, const char* b) {
  while (*a != '\0' && *a == *b) {
    ++a;
    ++b;
  }
  return *a == *b;
}

// The agent's own hooks by name, for lookups made before the agent may open its own object.
TALVEX_BEFORE_SANITIZERS void* ownExport(const char* name) {
  if (name == nullptr) return nullptr;
  for (const OwnExport& entry : ownExports) {
    if (sameName(entry.name, name)) return entry.address;
  }
  return nullptr;
}

// The oldest version, so that the agent loads on C libraries from before dladdr1 moved into libc.
__asm__(".symver dladdr1,dladdr1@GLIBC_2.3.3");

// Whether `caller` lies in an object that the loader placed behind the agent: a library preloaded
// after it, or one the program needs (a sanitizer runtime linked into it). For such a caller
// RTLD_NEXT means what it says, the next definition after the caller's own object: answering it
// with the agent's hook would send the caller's wrapper to the agent and the agent, whose own
// lookups start after itself, to the wrapper again, for ever.
TALVEX_BEFORE_SANITIZERS bool loadedAfterAgent(const void* caller) {
  Dl_info info;
  link_map* callerObject = nullptr;
  link_map* ownObject = nullptr;
  if (dladdr1(caller, &info, reinterpret_cast<void**>(&callerObject), RTLD_DL_LINKMAP) == 0 ||
      dladdr1(reinterpret_cast<const void*>(&loadedAfterAgent), &info, reinterpret_cast<void**>(&ownObject),
              RTLD_DL_LINKMAP) == 0 ||
      callerObject == nullptr || ownObject == nullptr) {
    return false;
  }
  for (const link_map* object = ownObject->l_next; object != nullptr; object = object->l_next) {
    if (object == callerObject) return true;
  }
  return false;
}

// A TLS function is there only where its library is: a program that asks the default scope for
// one to learn whether the library is loaded gets the answer it would get without the agent, and
// the agent's stand-in when it is. A program that opened the library itself and asks its handle
// gets the stand-in too, as long as that library is the one the stand-in calls; otherwise (two
// libraries of the same names in one process) the library's own function, unrecorded.
TALVEX_BEFORE_SANITIZERS void* tlsLookup(void* handle, const char* name, void* standIn, const void* caller) {
  void* own = handle == RTLD_DEFAULT || handle == RTLD_NEXT ? standIn : dlsymptr(handle, name);
  if (own == nullptr) return nullptr;
  // The default scope, or a handle whose scope is the global one (the program's own, from
  // dlopen(NULL)): the agent comes first there.
  if (own == standIn) return lookupNextDefinition(name) != nullptr ? standIn : nullptr;
  return adoptTlsFunction(name, own, caller) ? standIn : own;
}

// Run-time lookups are answered from the agent first, so a host that fetches a hooked function
// through dlsym still reaches the hook.
TALVEX_BEFORE_SANITIZERS void* agentLookup(void* handle, const char* name, const void* caller) {
  void* ownObject = handleHookLIB;
  findRealDlsym();
  if (dlsymptr == nullptr) return nullptr;
  void* standIn = tlsStandIn(name);
  if (standIn != nullptr) return tlsLookup(handle, name, standIn, caller);
  if (ownObject == nullptr) {
    // The agent's own object is not open yet (see findRealDlsym): its hooks are answered by name,
    // everything else by the loader.
    void* hook = ownExport(name);
    return hook != nullptr ? hook : dlsymptr(handle, name);
  }
  void* address = dlsymptr(ownObject, name);
  if (address != nullptr) return address;
  return dlsymptr(handle, name);
}

}  // namespace

// What the exported dlsym does, given the address its caller returns to. It either answers
// (`*forward` left 0) or hands back the loader's own dlsym, to which the export then jumps with
// the caller's frame untouched: the loader reads RTLD_NEXT's "next after whom" from the return
// address, which a call from the agent would make the agent's.
extern "C" __attribute__((visibility("hidden"))) TALVEX_BEFORE_SANITIZERS void* talvexDlsymDecision(
    void* handle, const char* name, const void* caller, int* forward) {
  if (handle == RTLD_NEXT && loadedAfterAgent(caller)) {
    findRealDlsym();
    if (dlsymptr != nullptr) {
      *forward = 1;
      return reinterpret_cast<void*>(dlsymptr);
    }
  }
  return agentLookup(handle, name, caller);
}

// The exported dlsym, in assembly: only a jump, not a call, leaves the loader's dlsym the caller's
// return address.
#if defined(__x86_64__)
asm(R"(
  .text
  .globl dlsym
  .type dlsym, @function
dlsym:
  .cfi_startproc
  pushq %rdi
  .cfi_adjust_cfa_offset 8
  pushq %rsi
  .cfi_adjust_cfa_offset 8
  subq $24, %rsp
  .cfi_adjust_cfa_offset 24
  movl $0, (%rsp)
  movq 40(%rsp), %rdx
  movq %rsp, %rcx
  call talvexDlsymDecision
  movl (%rsp), %ecx
  addq $24, %rsp
  .cfi_adjust_cfa_offset -24
  popq %rsi
  .cfi_adjust_cfa_offset -8
  popq %rdi
  .cfi_adjust_cfa_offset -8
  testl %ecx, %ecx
  jnz 1f
  ret
1:
  jmp *%rax
  .cfi_endproc
  .size dlsym, .-dlsym
)");
#elif defined(__i386__)
asm(R"(
  .text
  .globl dlsym
  .type dlsym, @function
dlsym:
  .cfi_startproc
  subl $28, %esp
  .cfi_adjust_cfa_offset 28
  movl $0, 16(%esp)
  leal 16(%esp), %eax
  movl %eax, 12(%esp)
  movl 28(%esp), %eax
  movl %eax, 8(%esp)
  movl 36(%esp), %eax
  movl %eax, 4(%esp)
  movl 32(%esp), %eax
  movl %eax, (%esp)
  call talvexDlsymDecision
  movl 16(%esp), %ecx
  addl $28, %esp
  .cfi_adjust_cfa_offset -28
  testl %ecx, %ecx
  jnz 1f
  ret
1:
  jmp *%eax
  .cfi_endproc
  .size dlsym, .-dlsym
)");
#else
#error "the exported dlsym is written for x86 only"
#endif
