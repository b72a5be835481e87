#include "real/tls_functions.h"

#include <dlfcn.h>
#include <link.h>
#include <string.h>

#include "base/symbol_versions.h"
#include "diag/debug_log.h"
#include "real/dlsym_bootstrap.h"

// The oldest versions, so that the agent loads on C libraries from before these moved into libc.
__asm__(".symver dladdr1,dladdr1@GLIBC_2.3.3");
__asm__(".symver dlclose,dlclose@" TALVEX_GLIBC_FIRST);

const char* const kTlsFunctionNames[TLS_FN_COUNT] = {
#define TALVEX_TLS_NAME(result, name, parameters, arguments) #name,
    TALVEX_TLS_FUNCTIONS(TALVEX_TLS_NAME)
#undef TALVEX_TLS_NAME
};

namespace {

// Where each function's library was found. Where the library is in the program's global scope,
// every caller binds to the same definition, found once. Where it is not, the definition is the
// one in the caller's own scope, and two objects may see two libraries of the same names (a
// module that brings its own OpenSSL beside Python's): the answer is kept per calling object,
// by the range of addresses it occupies. Published without a lock: an entry is filled, then
// marked ready; a full table is looked up again on every call rather than overwritten.
struct ScopedAnswer {
  uintptr_t low, high;
  void* address;
  int ready;
};

const int kScopedAnswers = 8;

struct Answers {
  void* global;
  int globalMissing;
  int claimed;
  ScopedAnswer scoped[kScopedAnswers];
};

Answers answers[TLS_FN_COUNT];

// The object `address` lies in, or null.
link_map* objectOf(const void* address) {
  Dl_info info;
  link_map* object = nullptr;
  if (address == nullptr || dladdr1(address, &info, reinterpret_cast<void**>(&object), RTLD_DL_LINKMAP) == 0) {
    return nullptr;
  }
  return object;
}

link_map* agentObject() { return objectOf(reinterpret_cast<const void*>(&tlsFunction)); }

struct Range {
  const link_map* object;
  uintptr_t low, high;
};

int rangeOfSegments(dl_phdr_info* info, size_t, void* data);

// Whether `address` lies in the agent's own object; its range is found once.
bool inAgent(const void* address) {
  static uintptr_t low, high;
  if (__atomic_load_n(&high, __ATOMIC_ACQUIRE) == 0) {
    Range range = {agentObject(), 0, 0};
    if (range.object != nullptr) dl_iterate_phdr(&rangeOfSegments, &range);
    __atomic_store_n(&low, range.low, __ATOMIC_RELAXED);
    __atomic_store_n(&high, range.high, __ATOMIC_RELEASE);
  }
  const uintptr_t at = reinterpret_cast<uintptr_t>(address);
  return at >= __atomic_load_n(&low, __ATOMIC_RELAXED) && at < __atomic_load_n(&high, __ATOMIC_ACQUIRE);
}

// The addresses an object's loaded segments occupy.
int rangeOfSegments(dl_phdr_info* info, size_t, void* data) {
  Range* range = static_cast<Range*>(data);
  if (info->dlpi_addr != range->object->l_addr || info->dlpi_name == nullptr ||
      strcmp(info->dlpi_name, range->object->l_name) != 0) {
    return 0;
  }
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    if (info->dlpi_phdr[i].p_type != PT_LOAD) continue;
    const uintptr_t start = info->dlpi_addr + info->dlpi_phdr[i].p_vaddr;
    const uintptr_t end = start + info->dlpi_phdr[i].p_memsz;
    if (range->low == 0 || start < range->low) range->low = start;
    if (end > range->high) range->high = end;
  }
  return 1;
}

// The definition the object that `address` lies in sees in its own scope (itself and what it
// needs), with the range that object occupies. Only objects the loader can name have one: the
// program's own scope is the global one, searched already.
void* inScopeOf(const char* name, const void* address, Range* range) {
  link_map* object = objectOf(address);
  if (object == nullptr || inAgent(address)) return nullptr;
  range->object = object;
  dl_iterate_phdr(&rangeOfSegments, range);
  if (object->l_name == nullptr || object->l_name[0] == '\0') return nullptr;
  // Opened without loading anything and never closed: the handle keeps the library, and with it
  // the address kept below, valid for as long as the process runs.
  void* handle = realDlopen(object->l_name, RTLD_LAZY | RTLD_NOLOAD);
  findRealDlsym();
  if (handle == nullptr || dlsymptr == nullptr) return nullptr;
  return dlsymptr(handle, name);
}

// The answer kept for callers at `caller`; `known` says whether there is one (a null one says
// that the caller's scope has no definition).
void* scopedAnswer(const Answers& entry, const void* caller, bool* known) {
  const uintptr_t at = reinterpret_cast<uintptr_t>(caller);
  const int claimed = __atomic_load_n(&entry.claimed, __ATOMIC_ACQUIRE);
  for (int i = 0; i < claimed && i < kScopedAnswers; ++i) {
    const ScopedAnswer& answer = entry.scoped[i];
    if (__atomic_load_n(&answer.ready, __ATOMIC_ACQUIRE) && at >= answer.low && at < answer.high) {
      *known = true;
      return answer.address;
    }
  }
  *known = false;
  return nullptr;
}

// Keeps `address` as the answer for callers in `range`; false when that range has another.
bool keepScoped(Answers& entry, const Range& range, void* address) {
  if (range.low == 0) return true;
  bool known = false;
  void* kept = scopedAnswer(entry, reinterpret_cast<const void*>(range.low), &known);
  if (known) return kept == address;
  const int slot = __atomic_fetch_add(&entry.claimed, 1, __ATOMIC_ACQ_REL);
  if (slot >= kScopedAnswers) return true;
  entry.scoped[slot].low = range.low;
  entry.scoped[slot].high = range.high;
  entry.scoped[slot].address = address;
  __atomic_store_n(&entry.scoped[slot].ready, 1, __ATOMIC_RELEASE);
  return true;
}

struct Definitions {
  const char* name;
  void* first;
  bool several;
};

// Every distinct definition of a name in the scopes of the objects loaded, the agent's left out.
int gatherDefinition(dl_phdr_info* info, size_t, void* data) {
  Definitions* found = static_cast<Definitions*>(data);
  if (info->dlpi_name == nullptr || info->dlpi_name[0] == '\0' || inAgent(reinterpret_cast<const void*>(info->dlpi_addr + 1))) {
    return 0;
  }
  void* handle = realDlopen(info->dlpi_name, RTLD_LAZY | RTLD_NOLOAD);
  if (handle == nullptr) return 0;
  void* address = dlsymptr != nullptr ? dlsymptr(handle, found->name) : nullptr;
  // Only the handle through which the first definition was found is kept (it keeps that library
  // loaded); the others would keep every library of the process from being unloaded.
  if (address == nullptr || inAgent(address) || found->first != nullptr) dlclose(handle);
  if (address == nullptr || inAgent(address)) return 0;
  if (found->first == nullptr) found->first = address;
  if (address != found->first) found->several = true;
  return found->several ? 1 : 0;
}

// The one definition of `name` loaded, or null when there is none or more than one: for a call
// whose caller cannot be told (an object that jumped to the stand-in, leaving its own caller's
// return address), only a library alone of its kind in the process is certainly the right one.
void* soleDefinition(const char* name) {
  findRealDlsym();
  Definitions found = {name, nullptr, false};
  dl_iterate_phdr(&gatherDefinition, &found);
  return found.several ? nullptr : found.first;
}

// The definition for callers at `caller`, kept or looked up in its scope; null when it has none.
void* forCallersAt(Answers& entry, const char* name, const void* caller) {
  bool known = false;
  void* address = scopedAnswer(entry, caller, &known);
  if (known) return address;
  Range range = {nullptr, 0, 0};
  address = inScopeOf(name, caller, &range);
  keepScoped(entry, range, address);
  return address;
}

}  // namespace

__thread const void* tlsLibraryEntered __attribute__((tls_model("initial-exec")));

void* tlsFunction(TlsFunction function, const void* caller) {
  Answers& entry = answers[function];
  void* address = __atomic_load_n(&entry.global, __ATOMIC_ACQUIRE);
  if (address != nullptr) return address;
  const char* name = kTlsFunctionNames[function];
  if (!__atomic_load_n(&entry.globalMissing, __ATOMIC_ACQUIRE)) {
    address = lookupNextDefinition(name);
    if (address != nullptr) {
      __atomic_store_n(&entry.global, address, __ATOMIC_RELEASE);
      return address;
    }
    __atomic_store_n(&entry.globalMissing, 1, __ATOMIC_RELEASE);
  }
  // A library that jumped to this stand-in from the middle of another stand-in's call (OpenSSL's
  // SSL_connect ends in a jump to SSL_do_handshake) left that stand-in's address: the function
  // the thread's stand-in called last stands for the caller.
  const void* entered = tlsLibraryEntered;
  if (inAgent(caller)) return entered != nullptr ? forCallersAt(entry, name, entered) : soleDefinition(name);
  bool known = false;
  address = scopedAnswer(entry, caller, &known);
  if (known) return address;
  Range range = {nullptr, 0, 0};
  address = inScopeOf(name, caller, &range);
  // A caller whose scope has no such function did not call it: a library did, by a jump from the
  // function a stand-in of this thread called last (GnuTLS's gnutls_record_send ends in a jump to
  // gnutls_record_send2, and the stand-in's own call to it may itself have been a jump).
  if (address == nullptr && entered != nullptr) address = forCallersAt(entry, name, entered);
  // Nor that: an object that jumped here, leaving its own caller's address. Only a library alone
  // of its kind in the process is certainly the one it meant; with several, the call fails rather
  // than reach the wrong one.
  if (address == nullptr) address = soleDefinition(name);
  keepScoped(entry, range, address);
  if (address == nullptr) {
    x_disp(DMK_ERROR, "%s: no definition for a call from 0x%lx", name,
           static_cast<unsigned long>(reinterpret_cast<uintptr_t>(caller)));
  }
  return address;
}

bool adoptTlsFunction(const char* name, void* address, const void* caller) {
  for (int function = 0; function < TLS_FN_COUNT; ++function) {
    if (strcmp(kTlsFunctionNames[function], name) != 0) continue;
    Answers& entry = answers[function];
    void* global = __atomic_load_n(&entry.global, __ATOMIC_ACQUIRE);
    if (global != nullptr) return global == address;
    if (lookupNextDefinition(name) != nullptr) return false;
    // The object that looked the function up in the library's handle is the one that calls it.
    link_map* object = objectOf(caller);
    if (object == nullptr || inAgent(caller)) return false;
    Range range = {object, 0, 0};
    dl_iterate_phdr(&rangeOfSegments, &range);
    return range.low != 0 && keepScoped(entry, range, address);
  }
  return false;
}
