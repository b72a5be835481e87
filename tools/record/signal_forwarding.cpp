#include "signal_forwarding.h"

#include <signal.h>
#include <string.h>

namespace talvex {

namespace {

const int kForwarded[] = {SIGINT, SIGTERM, SIGHUP};

volatile sig_atomic_t childPid = 0;
volatile sig_atomic_t pendingSignal = 0;
volatile sig_atomic_t lastSignal = 0;

void forward(int number, siginfo_t* information, void*) {
  lastSignal = number;
  if (information != nullptr && information->si_code == SI_KERNEL) return;  // the terminal's
  if (childPid > 0) {
    kill(static_cast<pid_t>(childPid), number);
  } else {
    pendingSignal = number;
  }
}

}  // namespace

void installSignalForwarding() {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_sigaction = forward;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  sigemptyset(&action.sa_mask);
  for (const int number : kForwarded) sigaction(number, &action, nullptr);
}

void forwardSignalsTo(pid_t child) {
  childPid = child;
  if (pendingSignal != 0) kill(child, pendingSignal);
}

void restoreDefaultSignals() {
  for (const int number : kForwarded) signal(number, SIG_DFL);
}

int receivedSignal() { return lastSignal; }

}  // namespace talvex
