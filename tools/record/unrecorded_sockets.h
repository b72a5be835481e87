// The sockets the agent saw but does not record (UDP, UNIX-domain, ...), as a reader names them:
// the recording does not hold their traffic, and saying so is better than silence.
#pragma once

#include <string>
#include <vector>

#include "recorder_message_parser.h"

namespace talvex {

// Whether a "notrecorded" message tells of a socket (rather than of a call seen).
inline bool isSocketNotice(const ParsedMessage& m) { return m.kind == "notrecorded" && m.find("socket") != nullptr; }

// "UDP", "UNIX-domain stream", "AF_NETLINK raw", ... for such a notice.
std::string unrecordedKind(const ParsedMessage& notice);

// "2 sockets not recorded: 1 UDP, 1 UNIX-domain stream"; empty for none. Kinds in the order
// first seen.
std::string unrecordedSummary(const std::vector<std::string>& kinds);

}  // namespace talvex
