// Records a program that no preloaded library can enter (a statically linked one, a Go program
// that makes its system calls itself) through the kernel: the command runs under ptrace, with a
// seccomp filter that stops it only at the calls that open, move bytes on or close a socket
// (syscall_filter.h), and what each call did is read from the stopped process (traced_calls.h).
// Every process and thread the command starts is traced the same way, and dies with
// talvex-record (PTRACE_O_EXITKILL), so that none is ever left stopped.
#pragma once

#include <string>
#include <vector>

#include "traced_calls.h"

namespace talvex {

// Runs `program` with `arguments` and `environment` under the tracer and waits for every process
// of it; the command's wait status. Stop signals are passed on as for any command, what is left
// after `graceSeconds` killed. When the tracer cannot be used (the command already runs under a
// debugger or another tracer, or the system forbids ptrace), the command runs untraced and
// `refused` says why.
int runTraced(const std::string& program, std::vector<std::string> arguments, std::vector<std::string> environment,
              TracedCalls& calls, int graceSeconds, std::string* refused);

}  // namespace talvex
