#include "real/tls_functions.h"

#include <dlfcn.h>
#include <link.h>

#include "real/dlsym_bootstrap.h"

// The oldest version, so that the agent loads on C libraries from before dladdr1 moved into libc.
__asm__(".symver dladdr1,dladdr1@GLIBC_2.3.3");

const char* const kTlsFunctionNames[TLS_FN_COUNT] = {
#define TALVEX_TLS_NAME(result, name, parameters, arguments) #name,
    TALVEX_TLS_FUNCTIONS(TALVEX_TLS_NAME)
#undef TALVEX_TLS_NAME
};

namespace {

const char* const kExportNames[] = {
#define TALVEX_TLS_NAME(result, name, parameters, arguments) #name,
    TALVEX_OPENSSL_EXPORTS(TALVEX_TLS_NAME) TALVEX_GNUTLS_EXPORTS(TALVEX_TLS_NAME)
#undef TALVEX_TLS_NAME
};

void* found[TLS_FN_COUNT];

// The definition the object that `caller` lies in sees in its own scope: itself and what it
// needs. Only for objects the loader can name; the program's own scope is the global one.
void* inCallerScope(const char* name, const void* caller) {
  Dl_info info;
  link_map* object = nullptr;
  if (caller == nullptr || dladdr1(caller, &info, reinterpret_cast<void**>(&object), RTLD_DL_LINKMAP) == 0 ||
      object == nullptr || object->l_name == nullptr || object->l_name[0] == '\0') {
    return nullptr;
  }
  // Opened without loading anything and never closed: the handle keeps the library, and with it
  // the address kept below, valid for as long as the process runs.
  void* handle = realDlopen(object->l_name, RTLD_LAZY | RTLD_NOLOAD);
  findRealDlsym();
  if (handle == nullptr || dlsymptr == nullptr) return nullptr;
  return dlsymptr(handle, name);
}

}  // namespace

void* tlsFunction(TlsFunction function, const void* caller) {
  void* address = __atomic_load_n(&found[function], __ATOMIC_ACQUIRE);
  if (address != nullptr) return address;
  const char* name = kTlsFunctionNames[function];
  address = lookupNextDefinition(name);
  if (address == nullptr) address = inCallerScope(name, caller);
  if (address != nullptr) __atomic_store_n(&found[function], address, __ATOMIC_RELEASE);
  return address;
}

// Compared by hand, like every name the exported dlsym looks at: it may run while a sanitizer
// runtime starts, before its strcmp can be called.
TALVEX_BEFORE_SANITIZERS bool isTlsExport(const char* name) {
  if (name == nullptr || (name[0] != 'S' && name[0] != 'g')) return false;
  for (const char* candidate : kExportNames) {
    const char* a = candidate;
    const char* b = name;
    while (*a != '\0' && *a == *b) {
      ++a;
      ++b;
    }
    if (*a == *b) return true;
  }
  return false;
}
