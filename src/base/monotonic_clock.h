// The clock the agent's bounded waits are measured on: monotonic, so that a change of the wall
// clock neither cuts a wait short nor stretches it.
#pragma once

#include <stdint.h>
#include <time.h>

inline int64_t monotonicNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}
