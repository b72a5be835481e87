#include "base/process_identity.h"

#include <pthread.h>
#include <time.h>
#include <unistd.h>

int globalInit = 0;
int currentProcessId = 0;
int agentInterfaceUnplugged = 0;
unsigned char startupCalled = 0;
unsigned char startupCalledByMe = 0;
char ExePath[1056];

int globalInitDone = 0;
int socketInitialized = 0;
bool doubleLogSocks = false;
int initializationDone = 1;
char agentPath[1028];
char* agentFileName = nullptr;

namespace {

pthread_t startupThread;
int startupThreadKnown = 0;
int startupProcess = 0;

}  // namespace

void noteStartupThread() {
  startupThread = pthread_self();
  int unclaimed = 0;
  __atomic_compare_exchange_n(&startupProcess, &unclaimed, static_cast<int>(getpid()), false, __ATOMIC_ACQ_REL,
                              __ATOMIC_ACQUIRE);
  __atomic_store_n(&startupThreadKnown, 1, __ATOMIC_RELEASE);
}

bool claimOrphanedStartup() {
  if (__atomic_load_n(&globalInit, __ATOMIC_ACQUIRE)) return false;
  int starter = __atomic_load_n(&startupProcess, __ATOMIC_ACQUIRE);
  const int self = getpid();
  if (starter == 0 || starter == self) return false;
  return __atomic_compare_exchange_n(&startupProcess, &starter, self, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

bool startupRunningElsewhere() {
  // From the first instant of start-up on (its once-flag), not from the moment the starting thread
  // has said who it is: a thread arriving in between would go on without the process's identity.
  if (!__atomic_load_n(&globalInitDone, __ATOMIC_ACQUIRE) || __atomic_load_n(&globalInit, __ATOMIC_ACQUIRE)) {
    return false;
  }
  if (__atomic_load_n(&startupThreadKnown, __ATOMIC_ACQUIRE) && pthread_equal(pthread_self(), startupThread)) {
    return false;
  }
  // A start-up begun by a thread of the parent before a fork is not running anywhere here.
  const int starter = __atomic_load_n(&startupProcess, __ATOMIC_ACQUIRE);
  return starter == 0 || starter == getpid();
}

void waitForStartupElsewhere() {
  // Bounded: a start-up stuck behind a lock of the host's (a library constructor that made this
  // very call while holding the loader's lock) must not stall this thread for ever.
  const timespec pause = {0, 200 * 1000};
  for (int waited = 0; waited < 25000 && startupRunningElsewhere(); ++waited) nanosleep(&pause, nullptr);
}

int GetCurrentThreadId() { return 0; }
