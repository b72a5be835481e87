// Addresses as the agent writes them, in the notation people and tools read: the agent names
// Linux's family 10 "AF_CCITT" and writes IPv6 addresses group by group without shortening.
#pragma once

#include <string>

namespace talvex {

// "AF_INET" or "AF_INET6" for the agent's family names of 2 and 10; other names as they are.
std::string familyName(const std::string& recorded);
// An IPv6 address in compressed notation ("::1"); anything else as it is.
std::string normalIp(const std::string& ip);

}  // namespace talvex
