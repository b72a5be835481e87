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
// In the command's process, before it runs: its own group where it gets one, and the signals'
// default actions back.
void prepareCommandProcess();
// The command is `child` from now on; a signal that arrived before is passed on now.
void forwardSignalsTo(pid_t child);
// After the command has ended: when it was sent a stop signal, what is left of its group when the
// grace period is over is killed.
void endWhatIsLeft(pid_t child);
}  // namespace talvex
