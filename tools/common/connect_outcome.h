// Whether a recorded connect failed: it carries an error other than "in progress", which a
// non-blocking connect reports while it is still under way. Every output reads it this one way.
#pragma once

#include <errno.h>

#include "recorder_message_parser.h"

namespace talvex {

inline bool connectFailed(const ParsedMessage& connect) {
  return connect.find("error") != nullptr && connect.integer("error") != EINPROGRESS;
}

}  // namespace talvex
