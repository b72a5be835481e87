// A byte's escape written out plainly from its class, one byte at a time: what every path of the
// encoder is held to. The classes themselves are checked byte by byte in recorder_message_test.
#pragma once

#include <stdio.h>

#include <string>

#include "message/escape_classes.h"

inline std::string referenceEscape(unsigned char c) {
  char out[8];
  switch (kEscapeClasses.of[c]) {
    case kEscapeEntity:
      snprintf(out, sizeof out, "&#x%02x;", c);
      break;
    case kEscapeBackslash:
      snprintf(out, sizeof out, "\\\\");
      break;
    case kEscapeHex:
      snprintf(out, sizeof out, "\\x%02x", c);
      break;
    default:
      snprintf(out, sizeof out, "%c", c);
  }
  return out;
}

inline std::string referenceEscape(const unsigned char* bytes, size_t n) {
  std::string out;
  for (size_t i = 0; i < n; ++i) out += referenceEscape(bytes[i]);
  return out;
}

inline std::string referenceEscape(const std::string& bytes) {
  return referenceEscape(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}
