#include "raw_output.h"

namespace talvex {

void RawOutput::write(const ArrivedMessage& message) {
  if (message.lasting) {
    sink_.appendLasting(message.raw);
  } else {
    sink_.append(message.raw);
  }
}

}  // namespace talvex
