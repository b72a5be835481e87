#include "base/time_base.h"

#include <sys/timeb.h>

CurrentTimeFunction getCurrentTimePtr = nullptr;

int64_t getTimeStamp() {
  struct timeb now;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  ftime(&now);
#pragma GCC diagnostic pop
  return static_cast<int64_t>(now.time) * 1000 + now.millitm;
}

int64_t getTimeStampNs() {
  // The agent never makes nanoseconds up: without the recorder core's clock there are none.
  if (getCurrentTimePtr == nullptr) return -1;
  return getCurrentTimePtr();
}

int32_t getElapsedTime(int64_t start) {
  return static_cast<int32_t>(static_cast<uint32_t>(getTimeStamp()) - static_cast<uint32_t>(start));
}

int64_t getElapsedTimeNs(int64_t start) {
  if (start == -1) return -1;
  const int64_t now = getTimeStampNs();
  if (now == -1) return -1;
  return now - start;
}
