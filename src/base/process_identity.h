// Who this process is to the recorder, and how far the agent's own start-up has come. Every layer
// may ask; only start-up (startup/agent_startup) changes them.
#pragma once

#include "base/export_visibility.h"

extern "C" {
extern TALVEX_EXPORT int globalInit;
extern TALVEX_EXPORT int currentProcessId;
extern TALVEX_EXPORT int agentInterfaceUnplugged;
extern TALVEX_EXPORT unsigned char startupCalled;
extern TALVEX_EXPORT unsigned char startupCalledByMe;
extern TALVEX_EXPORT char ExePath[1056];
}

extern int globalInitDone;
extern int socketInitialized;
extern bool doubleLogSocks;
extern int initializationDone;
extern char agentPath[1028];
extern char* agentFileName;

// The recording start-up. Defined by start-up, on top of the layers; declared here because the
// layers below run it lazily when a call reaches them before it has run (the address attributes
// need the real conversion functions, the name handlers the real resolvers), and a declaration
// is all they need of it.
void initializeSocketPointers();

// Start-up says so when it begins in this thread.
void noteStartupThread();
// Start-up was under way in another thread of the parent when this process forked: that thread
// does not exist here, so the first thread of the child to ask claims start-up. True when the
// caller did.
bool claimOrphanedStartup();
// True while start-up is under way in a thread other than the caller's.
bool startupRunningElsewhere();
// Waits, at most a few seconds, until another thread's start-up has set up the process identity
// and the channel.
void waitForStartupElsewhere();
int GetCurrentThreadId();
