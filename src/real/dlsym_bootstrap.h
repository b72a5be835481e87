// Finding the loader's own dlsym while the agent's dlsym stands in front of it.
#pragma once

// For what runs while a sanitizer runtime in the same process starts, before its shadow memory
// exists: code instrumented by a sanitizer (the agent's own test build) would fault there.
#define TALVEX_BEFORE_SANITIZERS __attribute__((no_sanitize("address", "undefined")))


typedef void* (*DlsymFunction)(void*, const char*);

extern DlsymFunction dlsymptr;
extern void* handleDLLIB;
extern void* handleHookLIB;
extern const char* const libdl;
extern const char* const symb;

// Fills dlsymptr, handleDLLIB and handleHookLIB. Returns whether the agent's own object could be
// placed (and so handleHookLIB was opened by this run).
bool runDlsymBootstrap();
// Only the first step of it, which opens nothing: the exported dlsym runs this alone, since it may
// be called while a sanitizer runtime starts, when a dlopen (its allocations) would re-enter that
// runtime. The agent's own object is opened by start-up, or by the first internal lookup.
TALVEX_BEFORE_SANITIZERS void findRealDlsym();

void* Truedlsym(void* handle, const char* name);

// Whether the C library has run its own start-up. A sanitizer runtime linked into the host calls
// dlsym, and so the agent, before that.
TALVEX_BEFORE_SANITIZERS bool cLibraryStarted();

// The C library's dlopen, not whatever stands in front of it. A sanitizer runtime linked into the
// host defines dlopen itself and asks dlsym (the agent's) for the real one while it starts: the
// agent's own dlopen calls would then reach an interceptor that is not ready yet.
void* realDlopen(const char* path, int mode);

// What every export does to fill its pointer: the next definition after the agent.
void* lookupNextDefinition(const char* name);

template <class Function>
inline void fillFromNext(Function& pointer, const char* name) {
  pointer = reinterpret_cast<Function>(lookupNextDefinition(name));
}
