// The recording as one self-contained HTML page (no network, no external scripts or fonts) that
// opens in any browser: the processes, their connections on a timeline, each conversation as the
// transcript shows it with HTTP exchanges folded into request and response, errors highlighted,
// and filters by host, port and process. The page holds what it shows, not every byte: payloads
// are shortened to bounded lengths, with their full length, so that a recording of ten thousand
// connections and a hundred megabytes stays a page a browser opens at once.
#pragma once

#include <stddef.h>

#include <string>

#include "conversations.h"

namespace talvex {

struct HtmlReportLimits {
  size_t perEvent = 2048;              // bytes shown of one send or receive, or one HTTP body
  size_t perConversation = 32 * 1024;  // bytes shown of all of one conversation's payloads
  size_t perReport = 16u << 20;        // bytes shown of all payloads in the page
};

std::string htmlReport(const Recording& recording, const HtmlReportLimits& limits = HtmlReportLimits());

}  // namespace talvex
