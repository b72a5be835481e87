#include "error_text.h"

#include <netdb.h>
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

namespace {

struct ResolverCode {
  int code;
  const char* name;
};
const ResolverCode kResolverCodes[] = {
    {EAI_BADFLAGS, "EAI_BADFLAGS"}, {EAI_NONAME, "EAI_NONAME"},   {EAI_AGAIN, "EAI_AGAIN"},
    {EAI_FAIL, "EAI_FAIL"},         {EAI_FAMILY, "EAI_FAMILY"},   {EAI_SOCKTYPE, "EAI_SOCKTYPE"},
    {EAI_SERVICE, "EAI_SERVICE"},   {EAI_MEMORY, "EAI_MEMORY"},   {EAI_SYSTEM, "EAI_SYSTEM"},
    {EAI_OVERFLOW, "EAI_OVERFLOW"}, {EAI_NODATA, "EAI_NODATA"},   {EAI_ADDRFAMILY, "EAI_ADDRFAMILY"},
};

}  // namespace

std::string resolverErrorName(int64_t code) {
  for (const ResolverCode& c : kResolverCodes) {
    if (c.code == code) return c.name;
  }
  return "resolver error " + std::to_string(code);
}

std::string resolverErrorText(int64_t code) {
  for (const ResolverCode& c : kResolverCodes) {
    if (c.code == code) return std::string(c.name) + ": " + gai_strerror(c.code);
  }
  return resolverErrorName(code);
}

}  // namespace talvex
