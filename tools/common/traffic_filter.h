// --only and --exclude: which connections the outputs show. A connection is named by its far end
// (the destination of a connect, the peer of an accept), and a port matches either end's port.
#pragma once

#include <string>
#include <vector>

#include "message_json.h"

namespace talvex {

class TrafficFilter {
 public:
  // HOST[:PORT], [IPV6]:PORT, IPV6, or :PORT. HOST is an address or a name, resolved now.
  bool addOnly(const std::string& spec, std::string* error) { return add(spec, &only_, error); }
  bool addExclude(const std::string& spec, std::string* error) { return add(spec, &exclude_, error); }

  // Whether a connection with these ends is shown: it matches an --only (when there is one) and
  // no --exclude.
  bool shows(const ConnectionEnds& ends) const;
  // Whether traffic of a socket whose opening was never seen is shown: only when nothing is
  // asked for by --only.
  bool showsUnknown() const { return only_.empty(); }

 private:
  struct Rule {
    std::vector<std::string> ips;  // empty: any host
    int port = 0;                  // 0: any port
  };
  static bool add(const std::string& spec, std::vector<Rule>* into, std::string* error);
  static bool matches(const Rule& rule, const ConnectionEnds& ends);

  std::vector<Rule> only_, exclude_;
};

}  // namespace talvex
