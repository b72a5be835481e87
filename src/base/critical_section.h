// The one way the agent makes, takes, releases and destroys its locks: plain, non-recursive,
// process-private mutexes.
#pragma once

#include <pthread.h>

int AllocCriticalSectionBase(pthread_mutex_t* mutex);
int StartCriticalSectionBase(pthread_mutex_t* mutex);
int EndCriticalSectionBase(pthread_mutex_t* mutex);
int FreeCriticalSectionBase(pthread_mutex_t* mutex);
