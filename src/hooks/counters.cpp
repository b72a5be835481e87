#include "hooks/counters.h"

#include <pthread.h>

#include "hooks/critical_section.h"

namespace {

// Zero-filled mutexes are usable before initializeCounter runs, so the first hooked call can
// draw numbers whatever the start-up order.
pthread_mutex_t criticalSectionGlobalCpt;
pthread_mutex_t criticalSectionInternalCpt;
pthread_mutex_t ticketCriticalSection;
unsigned globalCpt = 0;
unsigned internalCpt = 0;
unsigned lastTicket = 0;

unsigned next(pthread_mutex_t* mutex, unsigned* counter) {
  StartCriticalSectionBase(mutex);
  const unsigned value = ++*counter;  // wraps at 2^32 by design
  EndCriticalSectionBase(mutex);
  return value;
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

unsigned getGlobalCpt() { return next(&criticalSectionGlobalCpt, &globalCpt); }
unsigned getTicket() { return next(&ticketCriticalSection, &lastTicket); }
unsigned getInternalCpt() { return next(&criticalSectionInternalCpt, &internalCpt); }
