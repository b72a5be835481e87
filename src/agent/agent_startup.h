// The one-time lazy start-up that the first intercepted call runs, and the process identity.
#pragma once

#include "interpose/export_visibility.h"

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

void GlobalInit();
// True while start-up is under way in a thread other than the caller's.
bool startupRunningElsewhere();
// Waits, at most a few seconds, until another thread's start-up has set up the process identity
// and the channel.
void waitForStartupElsewhere();
void initializeSocketPointers();
void cleanSocketPointers();
void initializeStartup();
void pre_init_startup();
int GetCurrentThreadId();
