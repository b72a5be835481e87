#include "unrecorded_sockets.h"

#include <utility>


namespace talvex {

std::string unrecordedKind(const ParsedMessage& notice) {
  const std::string family = notice.text("family");
  const std::string kind = notice.text("kind");
  if ((family == "AF_INET" || family == "AF_INET6") && kind == "datagram") return "UDP";
  if (family == "AF_INET" || family == "AF_INET6") return (family == "AF_INET6" ? "IPv6 " : "IPv4 ") + kind;
  if (family == "AF_UNIX") return "UNIX-domain " + kind;
  return family + " " + kind;
}

std::string unrecordedSummary(const std::vector<std::string>& kinds) {
  if (kinds.empty()) return "";
  std::vector<std::pair<std::string, size_t>> counts;
  for (const std::string& k : kinds) {
    bool found = false;
    for (auto& entry : counts) {
      if (entry.first == k) {
        ++entry.second;
        found = true;
      }
    }
    if (!found) counts.emplace_back(k, 1);
  }
  std::string line = std::to_string(kinds.size()) + (kinds.size() == 1 ? " socket" : " sockets") + " not recorded:";
  for (size_t i = 0; i < counts.size(); ++i) {
    line += (i == 0 ? " " : ", ") + std::to_string(counts[i].second) + " " + counts[i].first;
  }
  return line;
}

}  // namespace talvex
