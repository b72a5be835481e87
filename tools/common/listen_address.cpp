#include "listen_address.h"

#include <netdb.h>
#include <stdlib.h>
#include <sys/socket.h>

namespace talvex {

namespace {

// The numeric form of `host`, resolving a name; literals are returned as they are.
bool numericHost(const std::string& host, int family, std::string* numeric, std::string* error) {
  addrinfo hints = {};
  hints.ai_family = family;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int status = getaddrinfo(host.c_str(), nullptr, &hints, &found);
  if (status != 0) {
    *error = "cannot resolve " + host + ": " + gai_strerror(status);
    return false;
  }
  char text[NI_MAXHOST];
  const int named = getnameinfo(found->ai_addr, found->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
  freeaddrinfo(found);
  if (named != 0) {
    *error = "cannot resolve " + host;
    return false;
  }
  *numeric = text;
  return true;
}

}  // namespace

bool parseListenAddress(const std::string& text, ListenAddress* out, std::string* error, int family) {
  std::string host, port;
  if (!text.empty() && text[0] == '[') {
    const size_t close = text.find("]:");
    if (close == std::string::npos) {
      *error = "expected [IPV6]:PORT, got " + text;
      return false;
    }
    host = text.substr(1, close - 1);
    port = text.substr(close + 2);
  } else {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
      *error = "expected ADDR:PORT, got " + text;
      return false;
    }
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
  }
  char* end = nullptr;
  const long value = strtol(port.c_str(), &end, 10);
  if (host.empty() || port.empty() || *end != '\0' || value < 0 || value > 65535) {
    *error = "not a usable ADDR:PORT: " + text;
    return false;
  }
  if (!numericHost(host, family, &out->host, error)) return false;
  out->port = static_cast<int>(value);
  return true;
}

}  // namespace talvex
