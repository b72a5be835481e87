// "ADDR:PORT" and "[IPV6]:PORT" as the tools take them on their command lines.
#pragma once

#include <string>

namespace talvex {

struct ListenAddress {
  std::string host;
  int port = 0;
};

// A host given by name ("localhost") is resolved to its address; `family` (AF_INET, or AF_UNSPEC
// for either) says which kind of address is wanted.
bool parseListenAddress(const std::string& text, ListenAddress* out, std::string* error, int family = 0);

}  // namespace talvex
