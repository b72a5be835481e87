#include "config/complete_capture.h"
#include "base/variable_names.h"

#include <stdlib.h>

const char* const kCompleteCaptureVariable = TALVEX_VAR_COMPLETE_CAPTURE;

namespace {
// -1 until the environment has been read; threads racing to read it read the same answer.
int captureState = -1;

int readState() {
  const int state = getenv(kCompleteCaptureVariable) != nullptr ? 1 : 0;
  __atomic_store_n(&captureState, state, __ATOMIC_RELAXED);
  return state;
}
}  // namespace

void readCompleteCapture() { readState(); }

bool completeCaptureOn() { return __atomic_load_n(&captureState, __ATOMIC_RELAXED) == 1; }

bool completeCaptureRequested() {
  const int state = __atomic_load_n(&captureState, __ATOMIC_RELAXED);
  return (state == -1 ? readState() : state) == 1;
}
