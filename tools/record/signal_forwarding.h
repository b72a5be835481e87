// SIGINT, SIGTERM and SIGHUP sent to talvex-record go on to the command it runs, so that a CI
// time-out or a kill ends the command and talvex-record can still finish its outputs. Those the
// terminal sends reach the command directly (it is in the same process group) and are not passed
// on a second time.
#pragma once

#include <sys/types.h>

namespace talvex {

// Installs the handlers; call before the command is started.
void installSignalForwarding();
// The command is `child` from now on; a signal that arrived before is passed on now.
void forwardSignalsTo(pid_t child);
// In the command's process, before it runs: the signals' default actions back.
void restoreDefaultSignals();
// The last such signal talvex-record received, or 0.
int receivedSignal();

}  // namespace talvex
