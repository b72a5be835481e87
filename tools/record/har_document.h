// The HTTP exchanges of a recording as a HAR 1.2 document, the format that browsers' developer
// tools export and that test tools, converters, proxies and mock servers import. One entry per
// exchange, in the order the requests were sent, whichever side of it the program was on. What the
// recording cannot know is -1, as HAR says; what HAR has no field for is under "_talvex".
#pragma once

#include <stddef.h>

#include <string>

#include "conversations.h"

namespace talvex {

struct HarSummary {
  size_t entries = 0;
  size_t incomplete = 0;        // entries marked incomplete
  size_t notHttp = 0;           // conversations with data that is not HTTP, left out
  size_t unreadableTls = 0;     // of those, TLS whose plaintext the recording does not hold
};

std::string harDocument(const Recording& recording, const std::string& creatorVersion, HarSummary* summary);

// The end-of-run line: "the HAR holds 3 HTTP exchanges; 1 conversation that is not HTTP is
// left out". `keyLog`: the run had a key log, so the TLS left out is what it could not decrypt.
std::string harSummaryLine(const HarSummary& summary, bool keyLog);

}  // namespace talvex
