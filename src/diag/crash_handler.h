// The optional SIGSEGV handler that prints the fault and a backtrace, then ends the process.
#pragma once

#include <signal.h>

#include "base/export_visibility.h"

// Installs the handler when TALVEX_SOCKET_AGENT_DEBUG_TRACEBACK is set.
void installCrashHandlerOnRequest();

void handler(int signal, siginfo_t* information, void* context);

extern "C" {
TALVEX_EXPORT int active_handler(struct sigaction* previous);
TALVEX_EXPORT int restore_handler(struct sigaction* action);
TALVEX_EXPORT int DisplaySymbol(void* address);
}
