// Wall-time benches run the probe and the echo server on one core: a round trip is then two
// context switches, the same every time, rather than whatever the scheduler makes of two cores.
// Children inherit the affinity.
#pragma once

#include <sched.h>

inline void runOnOneCore() {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(0, &one);
  sched_setaffinity(0, sizeof one, &one);
}

// Every core of the machine again, for what is measured as a user runs it: this process (0) or
// another started on one core before.
inline void runOnEveryCore(pid_t pid = 0) {
  cpu_set_t all;
  CPU_ZERO(&all);
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) CPU_SET(cpu, &all);
  sched_setaffinity(pid, sizeof all, &all);
}
