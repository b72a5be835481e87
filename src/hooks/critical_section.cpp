#include "hooks/critical_section.h"

#include "agent/agent_startup.h"
#include "diag/debug_log.h"

int AllocCriticalSectionBase(pthread_mutex_t* mutex) { return pthread_mutex_init(mutex, nullptr); }
int StartCriticalSectionBase(pthread_mutex_t* mutex) { return pthread_mutex_lock(mutex); }
int EndCriticalSectionBase(pthread_mutex_t* mutex) { return pthread_mutex_unlock(mutex); }
int FreeCriticalSectionBase(pthread_mutex_t* mutex) { return pthread_mutex_destroy(mutex); }

int AllocCriticalSectionDisplay(pthread_mutex_t* mutex, const char* name, const char* file, int line) {
  x_disp(DMK_INFO, "Alloc CS %s in %s (%d):%d", name, file, line, GetCurrentThreadId());
  return AllocCriticalSectionBase(mutex);
}

int StartCriticalSectionDisplay(pthread_mutex_t* mutex, const char* name, const char* file, int line) {
  x_disp(DMK_INFO, "starting CS %s in %s (%d):%d", name, file, line, GetCurrentThreadId());
  return StartCriticalSectionBase(mutex);
}

int EndCriticalSectionDisplay(pthread_mutex_t* mutex, const char* name, const char* file, int line) {
  x_disp(DMK_INFO, "ending CS %s in %s (%d):%d", name, file, line, GetCurrentThreadId());
  return EndCriticalSectionBase(mutex);
}

int FreeCriticalSectionDisplay(pthread_mutex_t* mutex, const char* name, const char* file, int line) {
  x_disp(DMK_INFO, "Free CS %s in %s (%d):%d", name, file, line, GetCurrentThreadId());
  return FreeCriticalSectionBase(mutex);
}
