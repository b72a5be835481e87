// SIGINT, SIGTERM and SIGHUP sent to talvex-record go on to the whole command it runs, so that a
// CI time-out or a kill ends every process of the command and talvex-record can still finish its
// outputs. A command that does not share the terminal with talvex-record runs in a process group
// of its own, and the signal goes to that group (background children included, as `timeout`
// does); an interactive command stays in talvex-record's group, where the terminal's own signals
// reach it directly and are not passed on a second time. What is left of the command a grace
// period after the signal is killed.
#pragma once

#include <sys/types.h>

namespace talvex {

// Installs the handlers and the grace watch; call before the command is started.
void installSignalForwarding(int graceSeconds);
// Whether the command gets a process group of its own (decided once, before it starts).
bool commandGetsItsOwnGroup();
// In the command's process, before it runs: its own group where it gets one, and the signals'
// default actions back.
void prepareCommandProcess();
// The command is `child` from now on; a signal that arrived before is passed on now.
void forwardSignalsTo(pid_t child);
// After the command has ended: when it was sent a stop signal, what is left of its group when the
// grace period is over is killed.
void endWhatIsLeft(pid_t child);
// The last such signal talvex-record received, or 0.
int receivedSignal();

}  // namespace talvex
