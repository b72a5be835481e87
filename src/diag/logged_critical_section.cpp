#include "diag/logged_critical_section.h"

#include "base/critical_section.h"
#include "base/process_identity.h"
#include "diag/debug_log.h"

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
