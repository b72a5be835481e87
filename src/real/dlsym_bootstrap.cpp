#include "real/dlsym_bootstrap.h"
#include "base/symbol_versions.h"

#include <dlfcn.h>
#include <unistd.h>

// Bound to the oldest versions so that the agent loads on older 32-bit C libraries as well as
// this one, where these names also have a newer default version.
__asm__(".symver dlopen,dlopen@" TALVEX_GLIBC_2_1);
__asm__(".symver dladdr,dladdr@" TALVEX_GLIBC_FIRST);
__asm__(".symver dlvsym,dlvsym@" TALVEX_GLIBC_2_1);
__asm__(".symver dlclose,dlclose@" TALVEX_GLIBC_FIRST);
__asm__(".symver dlerror,dlerror@" TALVEX_GLIBC_FIRST);
__asm__(".symver dlinfo,dlinfo@GLIBC_2.3.3");

DlsymFunction dlsymptr = nullptr;
void* handleDLLIB = nullptr;
void* handleHookLIB = nullptr;
const char* const libdl = "libdl.so";
const char* const symb = "dlsym";

namespace {

// Referencing the loader functions keeps them bound when the agent is loaded.
void* const tableDl[6] __attribute__((used)) = {
    reinterpret_cast<void*>(&dladdr), reinterpret_cast<void*>(&dlclose), reinterpret_cast<void*>(&dlerror),
    reinterpret_cast<void*>(&dlinfo), reinterpret_cast<void*>(&dlopen),  reinterpret_cast<void*>(&dlvsym),
};

// The loader's private lookup by caller address is gone from current C libraries; dlvsym with
// RTLD_NEXT, called from inside the agent, reaches the same function: the dlsym defined after the
// agent. The newest version first, so that a C library that has one gives its current dlsym.
const char* const dlsymVersions[] = {"GLIBC_2.34", TALVEX_GLIBC_FIRST};
const char* const dlopenVersions[] = {"GLIBC_2.34", TALVEX_GLIBC_2_1};

typedef void* (*DlopenFunction)(const char*, int);
DlopenFunction dlopenptr = nullptr;

}  // namespace

TALVEX_BEFORE_SANITIZERS void* realDlopen(const char* path, int mode) {
  DlopenFunction found = __atomic_load_n(&dlopenptr, __ATOMIC_ACQUIRE);
  for (size_t i = 0; found == nullptr && i < sizeof dlopenVersions / sizeof dlopenVersions[0]; ++i) {
    found = reinterpret_cast<DlopenFunction>(dlvsym(RTLD_NEXT, "dlopen", dlopenVersions[i]));
  }
  if (found == nullptr) return nullptr;
  __atomic_store_n(&dlopenptr, found, __ATOMIC_RELEASE);
  return found(path, mode);
}

// The C library's start-up is what sets the environment; a host that cleared its own (clearenv)
// only loses the opening of the agent's own object, and its hooks are still found by name.
TALVEX_BEFORE_SANITIZERS bool cLibraryStarted() { return environ != nullptr; }

TALVEX_BEFORE_SANITIZERS void findRealDlsym() {
  if (dlsymptr != nullptr) return;
  DlsymFunction found = nullptr;
  for (const char* version : dlsymVersions) {
    found = reinterpret_cast<DlsymFunction>(dlvsym(RTLD_NEXT, symb, version));
    if (found != nullptr) break;
  }
  dlsymptr = found;
}

bool runDlsymBootstrap() {
  findRealDlsym();
  // A dlopen before the C library has started would start it, with no environment: the host's
  // environment would be gone for good. Until then only the lookup itself is set up.
  if (!cLibraryStarted()) return false;
  handleDLLIB = realDlopen(libdl, RTLD_LAZY);
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(&Truedlsym), &info) != 0 && info.dli_fname != nullptr) {
    handleHookLIB = realDlopen(info.dli_fname, RTLD_LAZY);
    return true;
  }
  return false;
}

void* Truedlsym(void* handle, const char* name) {
  if (dlsymptr != nullptr && handleHookLIB != nullptr) return dlsymptr(handle, name);
  const bool placed = runDlsymBootstrap();
  if (dlsymptr == nullptr) return nullptr;
  // Only on the call that ran the bootstrap, a default-scope lookup is answered from the agent's
  // own object and its dependencies; later default-scope lookups use the real default scope.
  if (placed && handle == RTLD_DEFAULT) return dlsymptr(handleHookLIB, name);
  return dlsymptr(handle, name);
}

void* lookupNextDefinition(const char* name) {
  if (dlsymptr == nullptr || handleHookLIB == nullptr) runDlsymBootstrap();
  if (dlsymptr == nullptr) return nullptr;
  return dlsymptr(RTLD_NEXT, name);
}
