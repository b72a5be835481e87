#include "base/counters.h"

#include <pthread.h>

#include "base/critical_section.h"

namespace {

// The mutexes are still made and destroyed by the counters' life cycle, but numbers are drawn
// atomically: a signal handler or a forked child must never wait for a number.
pthread_mutex_t criticalSectionGlobalCpt;
pthread_mutex_t criticalSectionInternalCpt;
pthread_mutex_t ticketCriticalSection;
unsigned globalCpt = 0;
unsigned internalCpt = 0;
unsigned lastTicket = 0;

unsigned next(unsigned* counter) {
  return __atomic_add_fetch(counter, 1u, __ATOMIC_RELAXED);  // wraps at 2^32 by design
}

}  // namespace

void initializeCounter() {
  AllocCriticalSectionBase(&criticalSectionGlobalCpt);
  AllocCriticalSectionBase(&criticalSectionInternalCpt);
  AllocCriticalSectionBase(&ticketCriticalSection);
}

void cleanCounter() {
  FreeCriticalSectionBase(&criticalSectionGlobalCpt);
  FreeCriticalSectionBase(&criticalSectionInternalCpt);
  FreeCriticalSectionBase(&ticketCriticalSection);
}

unsigned getGlobalCpt() { return next(&globalCpt); }
unsigned getTicket() { return next(&lastTicket); }
unsigned getInternalCpt() { return next(&internalCpt); }
