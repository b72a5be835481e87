// The one way the agent makes, takes, releases and destroys its locks: plain, non-recursive,
// process-private mutexes.
#pragma once

#include <pthread.h>

int AllocCriticalSectionBase(pthread_mutex_t* mutex);
int StartCriticalSectionBase(pthread_mutex_t* mutex);
int EndCriticalSectionBase(pthread_mutex_t* mutex);
int FreeCriticalSectionBase(pthread_mutex_t* mutex);

// Tracing variants, for hunting lock problems by hand; no code path uses them.
int AllocCriticalSectionDisplay(pthread_mutex_t* mutex, const char* name, const char* file, int line);
int StartCriticalSectionDisplay(pthread_mutex_t* mutex, const char* name, const char* file, int line);
int EndCriticalSectionDisplay(pthread_mutex_t* mutex, const char* name, const char* file, int line);
int FreeCriticalSectionDisplay(pthread_mutex_t* mutex, const char* name, const char* file, int line);
