// Finding the loader's own dlsym while the agent's dlsym stands in front of it.
#pragma once

typedef void* (*DlsymFunction)(void*, const char*);

extern DlsymFunction dlsymptr;
extern void* handleDLLIB;
extern void* handleHookLIB;
extern const char* const libdl;
extern const char* const symb;

// Fills dlsymptr, handleDLLIB and handleHookLIB. Returns whether the agent's own object could be
// placed (and so handleHookLIB was opened by this run).
bool runDlsymBootstrap();

void* Truedlsym(void* handle, const char* name);

// What every export does to fill its pointer: the next definition after the agent.
void* lookupNextDefinition(const char* name);
