#include "error_text.h"

#include <string.h>

namespace talvex {

std::string errorName(int64_t number) {
  const char* name = number > 0 && number < 4096 ? strerrorname_np(static_cast<int>(number)) : nullptr;
  return name != nullptr ? name : "error " + std::to_string(number);
}

std::string errorText(int64_t number) {
  const char* name = number > 0 && number < 4096 ? strerrorname_np(static_cast<int>(number)) : nullptr;
  if (name == nullptr) return "error " + std::to_string(number);
  return std::string(name) + ": " + strerrordesc_np(static_cast<int>(number));
}

}  // namespace talvex
