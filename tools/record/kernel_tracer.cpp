#include "kernel_tracer.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include "signal_forwarding.h"
#include "syscall_filter.h"

namespace talvex {

namespace {

const long kOptions = PTRACE_O_TRACESECCOMP | PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK |
                      PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;

bool isStopSignal(int signal) { return signal == SIGSTOP || signal == SIGTSTP || signal == SIGTTIN || signal == SIGTTOU; }

// The command's process: it stops until talvex-record has seized it, learns whether it is traced,
// puts the filter in place if it is (a filter without a tracer would make its calls fail), and
// runs the command.
[[noreturn]] void runCommandProcess(const std::string& program, std::vector<char*>& args, std::vector<char*>& envp,
                                    int verdict) {
  prepareCommandProcess();
  raise(SIGSTOP);
  char traced = 'n';
  while (read(verdict, &traced, 1) < 0 && errno == EINTR) {
  }
  close(verdict);
  if (traced == 't' && !installTracedCallsFilter()) {
    fprintf(stderr, "talvex-record: cannot filter the calls of %s: %s\n", program.c_str(), strerror(errno));
    _exit(126);
  }
  execve(program.c_str(), args.data(), envp.data());
  fprintf(stderr, "talvex-record: cannot run %s: %s\n", program.c_str(), strerror(errno));
  _exit(126);
}

}  // namespace

int runTraced(const std::string& program, std::vector<std::string> arguments, std::vector<std::string> environment,
              TracedCalls& calls, int graceSeconds, std::string* refused) {
  std::vector<char*> envp, args;
  for (auto& e : environment) envp.push_back(&e[0]);
  envp.push_back(nullptr);
  for (auto& a : arguments) args.push_back(&a[0]);
  args.push_back(nullptr);
  int verdict[2];
  if (pipe2(verdict, O_CLOEXEC) != 0) {
    *refused = std::string("no pipe: ") + strerror(errno);
    return -1;
  }
  installSignalForwarding(graceSeconds);
  const pid_t top = fork();
  if (top == 0) {
    close(verdict[1]);
    runCommandProcess(program, args, envp, verdict[0]);
  }
  close(verdict[0]);
  int status = 0;
  while (waitpid(top, &status, WUNTRACED) < 0 && errno == EINTR) {
  }
  const bool seized = WIFSTOPPED(status) && ptrace(PTRACE_SEIZE, top, nullptr, reinterpret_cast<void*>(kOptions)) == 0;
  if (!seized) {
    *refused = errno == EPERM ? "another tracer (a debugger, strace) already traces it, or the system forbids ptrace"
                              : std::string("ptrace: ") + strerror(errno);
  }
  const char answer = seized ? 't' : 'n';
  while (write(verdict[1], &answer, 1) < 0 && errno == EINTR) {
  }
  close(verdict[1]);
  kill(top, SIGCONT);
  forwardSignalsTo(top);
  if (!seized) {
    while (waitpid(top, &status, 0) < 0 && errno == EINTR) {
    }
    endWhatIsLeft(top);
    return status;
  }

  int topStatus = 0;
  for (;;) {
    int s = 0;
    const pid_t pid = waitpid(-1, &s, __WALL);
    if (pid < 0) {
      if (errno == EINTR) continue;
      break;  // no tracee is left
    }
    if (WIFEXITED(s) || WIFSIGNALED(s)) {
      if (pid == top) topStatus = s;
      calls.ended(pid);
      continue;
    }
    if (!WIFSTOPPED(s)) continue;
    const int signal = WSTOPSIG(s);
    const unsigned event = static_cast<unsigned>(s) >> 16;
    int deliver = 0;
    if (event == PTRACE_EVENT_SECCOMP) {
      __ptrace_syscall_info info{};
      if (ptrace(PTRACE_GET_SYSCALL_INFO, pid, reinterpret_cast<void*>(sizeof info), &info) > 0 &&
          info.op == PTRACE_SYSCALL_INFO_SECCOMP) {
        TracedCall call;
        call.abi32 = info.arch == AUDIT_ARCH_I386;
        call.number = info.seccomp.nr;
        for (int i = 0; i < 6; ++i) call.args[i] = info.seccomp.args[i];
        if (calls.enter(pid, call)) {
          // Stop once more at this call's exit, for its result.
          ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr);
          continue;
        }
      }
    } else if (signal == (SIGTRAP | 0x80)) {
      __ptrace_syscall_info info{};
      if (ptrace(PTRACE_GET_SYSCALL_INFO, pid, reinterpret_cast<void*>(sizeof info), &info) > 0) {
        if (info.op == PTRACE_SYSCALL_INFO_EXIT) {
          calls.leave(pid, info.exit.rval);
        } else if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
          ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr);
          continue;
        }
      }
    } else if (event == PTRACE_EVENT_FORK || event == PTRACE_EVENT_VFORK || event == PTRACE_EVENT_CLONE) {
      unsigned long child = 0;
      if (ptrace(PTRACE_GETEVENTMSG, pid, nullptr, &child) == 0) calls.started(pid, static_cast<pid_t>(child));
    } else if (event == PTRACE_EVENT_EXEC) {
      calls.executed(pid);
    } else if (event == PTRACE_EVENT_STOP) {
      // A group stop (job control) stays a stop until SIGCONT; any other is the tracer's own.
      if (isStopSignal(signal)) {
        ptrace(PTRACE_LISTEN, pid, nullptr, nullptr);
        continue;
      }
    } else if (signal != SIGTRAP || event != 0) {
      deliver = signal;  // the process's own signal, delivered as it was sent
    }
    ptrace(PTRACE_CONT, pid, nullptr, reinterpret_cast<void*>(static_cast<long>(deliver)));
    // The bytes were copied out while it was stopped; they are encoded while it runs.
    calls.flush();
  }
  calls.flush();
  endWhatIsLeft(top);
  return topStatus;
}

}  // namespace talvex
