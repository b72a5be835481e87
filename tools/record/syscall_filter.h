// The seccomp filter a traced command runs under: the system calls that open, move bytes on or
// close a socket stop the process for the tracer (SECCOMP_RET_TRACE), every other one runs
// without a stop, as strace --seccomp-bpf does. Installed by the command's own process, after it
// asked to be traced and before it runs the command: it holds for every process of the command.
#pragma once

namespace talvex {

// False (errno set) when the kernel refused it.
bool installTracedCallsFilter();

}  // namespace talvex
