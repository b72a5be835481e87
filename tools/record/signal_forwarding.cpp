#include "signal_forwarding.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <thread>

namespace talvex {

namespace {

const int kForwarded[] = {SIGINT, SIGTERM, SIGHUP};

volatile sig_atomic_t childPid = 0;
volatile sig_atomic_t ownGroup = 0;
volatile sig_atomic_t pendingSignal = 0;
volatile sig_atomic_t lastSignal = 0;
// Written by the handler, read by the grace watch: a signal was passed on.
int graceRead = -1;
int graceWrite = -1;
int graceSecondsToGive = 5;

void passOn(pid_t child, int number) {
  // The group's id is the command's pid.
  kill(ownGroup ? -child : child, number);
}

// Passes a stop signal on and starts the grace period (async-signal-safe: kill and write).
void passOnStop(pid_t child, int number) {
  passOn(child, number);
  const char byte = 0;
  if (graceWrite >= 0) (void)!write(graceWrite, &byte, 1);
}

void forward(int number, siginfo_t* information, void*) {
  lastSignal = number;
  if (information != nullptr && information->si_code == SI_KERNEL) return;  // the terminal's
  if (childPid > 0) {
    passOnStop(static_cast<pid_t>(childPid), number);
  } else {
    pendingSignal = number;
  }
}

// Waits, on a thread of its own that costs nothing until then, for the first signal passed on,
// and kills what is left of the command when its grace period is over. The wait for the command
// itself is left as it was: a blocking waitpid, which notices the command's end at once.
void watchGrace() {
  char byte;
  while (read(graceRead, &byte, 1) < 0) {
  }
  const timespec grace = {graceSecondsToGive, 0};
  timespec left = grace;
  while (nanosleep(&left, &left) != 0) {
  }
  passOn(static_cast<pid_t>(childPid), SIGKILL);
}


bool commandGetsItsOwnGroup() {
  // Only the group in the terminal's foreground may read from it: an interactive command keeps
  // talvex-record's group, and with it the terminal.
  return !(isatty(STDIN_FILENO) && tcgetpgrp(STDIN_FILENO) == getpgrp());
}

// Whether a process of group `group` is still running. Its ended processes whose parent has
// not reaped them yet (orphans wait for whatever adopts them) count as gone: kill() would still
// find them.
bool groupStillRuns(pid_t group) {
  DIR* processes = opendir("/proc");
  if (processes == nullptr) return kill(-group, 0) == 0;
  bool running = false;
  while (!running) {
    const dirent* entry = readdir(processes);
    if (entry == nullptr) break;
    if (entry->d_name[0] < '1' || entry->d_name[0] > '9') continue;
    char path[64];
    snprintf(path, sizeof path, "/proc/%s/stat", entry->d_name);
    FILE* stat = fopen(path, "r");
    if (stat == nullptr) continue;
    char line[512];
    const bool read = fgets(line, sizeof line, stat) != nullptr;
    fclose(stat);
    // "pid (name) state ppid pgrp ...": the name may hold anything, so fields count from the last ')'.
    const char* close = read ? strrchr(line, ')') : nullptr;
    char state = 0;
    long parent = 0, processGroup = 0;
    if (close != nullptr && sscanf(close + 1, " %c %ld %ld", &state, &parent, &processGroup) == 3) {
      running = processGroup == group && state != 'Z' && state != 'X';
    }
  }
  closedir(processes);
  return running;
}

}  // namespace

void installSignalForwarding(int graceSeconds) {
  ownGroup = commandGetsItsOwnGroup() ? 1 : 0;
  graceSecondsToGive = graceSeconds;
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) == 0) {
    graceRead = ends[0];
    graceWrite = ends[1];
    std::thread(watchGrace).detach();
  }
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_sigaction = forward;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  sigemptyset(&action.sa_mask);
  for (const int number : kForwarded) sigaction(number, &action, nullptr);
}

void prepareCommandProcess() {
  if (ownGroup) setpgid(0, 0);
  for (const int number : kForwarded) signal(number, SIG_DFL);
}

void forwardSignalsTo(pid_t child) {
  // Set from both sides, so that a signal passed on at once finds the group made.
  if (ownGroup) setpgid(child, child);
  childPid = child;
  if (pendingSignal != 0) passOnStop(child, pendingSignal);
}

void endWhatIsLeft(pid_t child) {
  // Without a signal, processes the command left running (daemons) are not talvex-record's to end.
  if (lastSignal == 0 || !ownGroup) return;
  const timespec pause = {0, 10 * 1000 * 1000};
  // The grace watch kills the group when the period is over; until then its processes may end.
  for (long waited = 0; groupStillRuns(child) && waited < graceSecondsToGive * 100L; ++waited) {
    nanosleep(&pause, nullptr);
  }
  kill(-child, SIGKILL);
}

}  // namespace talvex
