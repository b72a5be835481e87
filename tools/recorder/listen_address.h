// "ADDR:PORT" and "[IPV6]:PORT" as the tools take them on their command lines.
#pragma once

#include <string>

namespace talvex {

struct ListenAddress {
  std::string host;
  int port = 0;
};

bool parseListenAddress(const std::string& text, ListenAddress* out, std::string* error);

}  // namespace talvex
