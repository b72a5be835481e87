// The time stamps of recorded events: wall-clock milliseconds, and the recorder core's nanoseconds.
#pragma once

#include <stdint.h>

#include "base/export_visibility.h"

typedef int64_t (*CurrentTimeFunction)();

extern "C" TALVEX_EXPORT CurrentTimeFunction getCurrentTimePtr;

int64_t getTimeStamp();
int64_t getTimeStampNs();
int32_t getElapsedTime(int64_t start);
int64_t getElapsedTimeNs(int64_t start);
