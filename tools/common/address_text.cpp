#include "address_text.h"

#include <arpa/inet.h>

namespace talvex {

std::string familyName(const std::string& recorded) {
  if (recorded == "AF_CCITT") return "AF_INET6";
  return recorded;
}

std::string normalIp(const std::string& ip) {
  if (ip.find(':') == std::string::npos) return ip;
  in6_addr address;
  char text[INET6_ADDRSTRLEN];
  if (inet_pton(AF_INET6, ip.c_str(), &address) != 1 || inet_ntop(AF_INET6, &address, text, sizeof text) == nullptr) {
    return ip;
  }
  return text;
}

}  // namespace talvex
