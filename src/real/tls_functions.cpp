#include "real/tls_functions.h"

#include <dlfcn.h>
#include <link.h>
#include <string.h>

#include "real/dlsym_bootstrap.h"

// The oldest version, so that the agent loads on C libraries from before dladdr1 moved into libc.
__asm__(".symver dladdr1,dladdr1@GLIBC_2.3.3");

const char* const kTlsFunctionNames[TLS_FN_COUNT] = {
#define TALVEX_TLS_NAME(result, name, parameters, arguments) #name,
    TALVEX_TLS_FUNCTIONS(TALVEX_TLS_NAME)
#undef TALVEX_TLS_NAME
};

namespace {

void* found[TLS_FN_COUNT];

// The object `address` lies in, or null.
link_map* objectOf(const void* address) {
  Dl_info info;
  link_map* object = nullptr;
  if (address == nullptr || dladdr1(address, &info, reinterpret_cast<void**>(&object), RTLD_DL_LINKMAP) == 0) {
    return nullptr;
  }
  return object;
}

// The definition the object that `address` lies in sees in its own scope: itself and what it
// needs. Only for objects the loader can name, other than the agent; the program's own scope is
// the global one, and the agent's would give the stand-in back.
void* inScopeOf(const char* name, const void* address) {
  link_map* object = objectOf(address);
  if (object == nullptr || object == objectOf(reinterpret_cast<const void*>(&tlsFunction)) ||
      object->l_name == nullptr || object->l_name[0] == '\0') {
    return nullptr;
  }
  // Opened without loading anything and never closed: the handle keeps the library, and with it
  // the address kept below, valid for as long as the process runs.
  void* handle = realDlopen(object->l_name, RTLD_LAZY | RTLD_NOLOAD);
  findRealDlsym();
  if (handle == nullptr || dlsymptr == nullptr) return nullptr;
  return dlsymptr(handle, name);
}

// GnuTLS's names begin with its own; all others are OpenSSL's (libssl and its libcrypto).
bool isGnuTls(const char* name) { return name[0] == 'g'; }

// A function of the same library found before, whose object's scope has this one too. The caller
// is no guide when the library reached the stand-in by a jump from another stand-in's call (its
// own SSL_connect jumping to SSL_do_handshake): the return address is then the agent's.
void* besideKnownFunction(TlsFunction function) {
  for (int other = 0; other < TLS_FN_COUNT; ++other) {
    void* known = __atomic_load_n(&found[other], __ATOMIC_ACQUIRE);
    if (known == nullptr || isGnuTls(kTlsFunctionNames[other]) != isGnuTls(kTlsFunctionNames[function])) continue;
    void* address = inScopeOf(kTlsFunctionNames[function], known);
    if (address != nullptr) return address;
  }
  return nullptr;
}

}  // namespace

void* tlsFunction(TlsFunction function, const void* caller) {
  void* address = __atomic_load_n(&found[function], __ATOMIC_ACQUIRE);
  if (address != nullptr) return address;
  const char* name = kTlsFunctionNames[function];
  address = lookupNextDefinition(name);
  if (address == nullptr) address = inScopeOf(name, caller);
  if (address == nullptr) address = besideKnownFunction(function);
  if (address != nullptr) __atomic_store_n(&found[function], address, __ATOMIC_RELEASE);
  return address;
}

bool adoptTlsFunction(const char* name, void* address) {
  for (int function = 0; function < TLS_FN_COUNT; ++function) {
    if (strcmp(kTlsFunctionNames[function], name) != 0) continue;
    void* expected = nullptr;
    __atomic_compare_exchange_n(&found[function], &expected, address, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
    return expected == nullptr || expected == address;
  }
  return false;
}
