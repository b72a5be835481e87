// The optional SIGSEGV handler that prints a backtrace.
#pragma once

// Installs the handler when TALVEX_SOCKET_AGENT_DEBUG_TRACEBACK is set.
void installCrashHandlerOnRequest();
