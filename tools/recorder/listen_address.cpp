#include "listen_address.h"

#include <stdlib.h>

namespace talvex {

bool parseListenAddress(const std::string& text, ListenAddress* out, std::string* error) {
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
  out->host = host;
  out->port = static_cast<int>(value);
  return true;
}

}  // namespace talvex
