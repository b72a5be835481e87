#include "socks/local_addresses.h"

#include <arpa/inet.h>
#include <string.h>

#include "diag/debug_log.h"
#include "message/address_attributes.h"
#include "real/real_functions.h"

addrinfo* allLocalAdresses = nullptr;

namespace {
const unsigned char kIpv6Loopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
const unsigned char kMappedIpv4Loopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 127, 0, 0, 1};
}  // namespace

void resolveLocalAdresses() {
  if (allLocalAdresses != nullptr) return;
  addrinfo hints;
  memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  if (True_getaddrinfo("", nullptr, &hints, &allLocalAdresses) != 0) {
    allLocalAdresses = nullptr;
    x_disp(DMK_ERROR, "Bad host lookup");
    return;
  }
  for (addrinfo* entry = allLocalAdresses; entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_family == AF_INET && entry->ai_addr != nullptr) {
      const char* dotted = True_inet_ntoa(reinterpret_cast<sockaddr_in*>(entry->ai_addr)->sin_addr);
      x_disp(DMK_INFO, "==> (IPV4) %s", dotted != nullptr ? dotted : "");
    } else if (entry->ai_family == AF_INET6 && entry->ai_addr != nullptr) {
      char text[48];
      formatIpv6Groups(reinterpret_cast<sockaddr_in6*>(entry->ai_addr)->sin6_addr.s6_addr, text, sizeof text);
      x_disp(DMK_INFO, "==> (IPV6) %s", text);
    }
  }
}

bool isLocalIpv4(in_addr_t address) {
  if (address == htonl(INADDR_LOOPBACK)) return true;
  for (addrinfo* entry = allLocalAdresses; entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_family == AF_INET && entry->ai_addr != nullptr &&
        reinterpret_cast<sockaddr_in*>(entry->ai_addr)->sin_addr.s_addr == address) {
      return true;
    }
  }
  return false;
}

bool isLoopbackIpv6(const unsigned char bytes[16]) {
  return memcmp(bytes, kIpv6Loopback, 16) == 0 || memcmp(bytes, kMappedIpv4Loopback, 16) == 0;
}
