// An errno value as a person reads it: its symbolic name and the C library's description.
#pragma once

#include <stdint.h>

#include <string>

namespace talvex {

// "ECONNREFUSED", or "error 4242" for a number the C library does not name.
std::string errorName(int64_t number);
// "ECONNREFUSED: Connection refused".
std::string errorText(int64_t number);
// A resolver's code (getaddrinfo's result) the same ways: "EAI_NONAME",
// "EAI_NONAME: Name or service not known".
std::string resolverErrorName(int64_t code);
std::string resolverErrorText(int64_t code);

}  // namespace talvex
