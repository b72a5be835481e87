// Tracing variants of the lock wrappers, for hunting lock problems by hand: each logs what it is
// about to do, with the lock's name and the place it was called from. No code path uses them.
#pragma once

#include <pthread.h>

int AllocCriticalSectionDisplay(pthread_mutex_t* mutex, const char* name, const char* file, int line);
int StartCriticalSectionDisplay(pthread_mutex_t* mutex, const char* name, const char* file, int line);
int EndCriticalSectionDisplay(pthread_mutex_t* mutex, const char* name, const char* file, int line);
int FreeCriticalSectionDisplay(pthread_mutex_t* mutex, const char* name, const char* file, int line);
