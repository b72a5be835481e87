#include "live_view.h"

#include <stdio.h>

#include "transcript.h"

namespace talvex {

void LiveView::write(const ArrivedMessage& message) {
  if (message.parsed == nullptr) {
    totals_.addMalformed();
    return;
  }
  totals_.add(*message.parsed);
  writeLiveEvent(*message.parsed, message.seen.connection, stderr);
}

bool LiveView::finish() {
  fprintf(stderr, "%s\n", summaryLine(totals_.totals()).c_str());
  return true;
}

}  // namespace talvex
