#include "traffic_filter.h"

#include <netdb.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <algorithm>

#include "address_text.h"

namespace talvex {

namespace {

bool parsePort(const std::string& text, int* port) {
  char* end = nullptr;
  const long value = strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || value < 1 || value > 65535) return false;
  *port = static_cast<int>(value);
  return true;
}

// Every address the host name stands for, in the notation the outputs use.
bool resolve(const std::string& host, std::vector<std::string>* ips, std::string* error) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_ADDRCONFIG;
  addrinfo* found = nullptr;
  int status = getaddrinfo(host.c_str(), nullptr, &hints, &found);
  if (status == EAI_NONAME || status == EAI_ADDRFAMILY) {
    hints.ai_flags = 0;  // a name of the loopback interface only, on a machine without others
    status = getaddrinfo(host.c_str(), nullptr, &hints, &found);
  }
  if (status != 0) {
    *error = "cannot resolve " + host + ": " + gai_strerror(status);
    return false;
  }
  for (addrinfo* a = found; a != nullptr; a = a->ai_next) {
    char text[NI_MAXHOST];
    if (getnameinfo(a->ai_addr, a->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) == 0) {
      ips->push_back(normalIp(text));
    }
  }
  freeaddrinfo(found);
  return true;
}

}  // namespace

bool TrafficFilter::add(const std::string& spec, std::vector<Rule>* into, std::string* error) {
  Rule rule;
  std::string host;
  if (!spec.empty() && spec[0] == '[') {
    const size_t close = spec.find(']');
    if (close == std::string::npos || (close + 1 < spec.size() && spec[close + 1] != ':')) {
      *error = "expected [IPV6] or [IPV6]:PORT, got " + spec;
      return false;
    }
    host = spec.substr(1, close - 1);
    if (close + 1 < spec.size() && !parsePort(spec.substr(close + 2), &rule.port)) {
      *error = "not a port: " + spec.substr(close + 2);
      return false;
    }
  } else if (std::count(spec.begin(), spec.end(), ':') == 1) {
    const size_t colon = spec.find(':');
    host = spec.substr(0, colon);
    if (!parsePort(spec.substr(colon + 1), &rule.port)) {
      *error = "not a port: " + spec.substr(colon + 1);
      return false;
    }
  } else {
    host = spec;  // a name, an IPv4 address, or an IPv6 address without a port
  }
  if (host.empty() && rule.port == 0) {
    *error = "expected HOST, HOST:PORT or :PORT, got '" + spec + "'";
    return false;
  }
  if (!host.empty() && !resolve(host, &rule.ips, error)) return false;
  into->push_back(rule);
  return true;
}

bool TrafficFilter::matches(const Rule& rule, const ConnectionEnds& ends) {
  if (!rule.ips.empty() && std::find(rule.ips.begin(), rule.ips.end(), ends.remoteIp) == rule.ips.end()) return false;
  return rule.port == 0 || rule.port == ends.remotePort || rule.port == ends.localPort;
}

bool TrafficFilter::shows(const ConnectionEnds& ends) const {
  if (!only_.empty() &&
      std::none_of(only_.begin(), only_.end(), [&](const Rule& r) { return matches(r, ends); })) {
    return false;
  }
  return std::none_of(exclude_.begin(), exclude_.end(), [&](const Rule& r) { return matches(r, ends); });
}

}  // namespace talvex
