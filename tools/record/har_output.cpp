#include "har_output.h"

namespace talvex {

bool HarOutput::write(const Recording& recording) {
  return file_.writeAndClose(harDocument(recording, TALVEX_VERSION, &summary_));
}

}  // namespace talvex
