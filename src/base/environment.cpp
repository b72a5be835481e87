#include "base/environment.h"

#include <limits.h>
#include <stdlib.h>

bool isVariableSet(const char* name) { return getenv(name) != nullptr; }

int intFromText(const char* text) {
  const long value = strtol(text, nullptr, 10);
  // Saturated at the int range, as a 32-bit long is: both agents read a number alike.
  if (value > INT_MAX) return INT_MAX;
  if (value < INT_MIN) return INT_MIN;
  return static_cast<int>(value);
}

int numberOrDefault(const char* name, int fallback) {
  const char* text = getenv(name);
  if (text == nullptr) return fallback;
  const int value = intFromText(text);
  return value != 0 ? value : fallback;
}
