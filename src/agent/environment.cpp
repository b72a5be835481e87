#include "agent/environment.h"

#include <stdlib.h>

bool isVariableSet(const char* name) { return getenv(name) != nullptr; }

int numberOrDefault(const char* name, int fallback) {
  const char* text = getenv(name);
  if (text == nullptr) return fallback;
  const long value = strtol(text, nullptr, 10);
  return value != 0 ? static_cast<int>(value) : fallback;
}
