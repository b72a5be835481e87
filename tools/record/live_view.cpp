#include "live_view.h"

#include <stdio.h>

#include "transcript.h"

namespace talvex {

void LiveView::write(const ArrivedMessage& message) {
  if (message.parsed != nullptr) writeLiveEvent(*message.parsed, message.seen.connection, stderr);
}

}  // namespace talvex
