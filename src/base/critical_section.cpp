#include "base/critical_section.h"

int AllocCriticalSectionBase(pthread_mutex_t* mutex) { return pthread_mutex_init(mutex, nullptr); }
int StartCriticalSectionBase(pthread_mutex_t* mutex) { return pthread_mutex_lock(mutex); }
int EndCriticalSectionBase(pthread_mutex_t* mutex) { return pthread_mutex_unlock(mutex); }
int FreeCriticalSectionBase(pthread_mutex_t* mutex) { return pthread_mutex_destroy(mutex); }
