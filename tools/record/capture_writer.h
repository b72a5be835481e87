// Recorded TCP conversations as a capture file that Wireshark and tshark open.
#pragma once

#include <string>

#include "conversations.h"

namespace talvex {

// Each connected socket becomes one TCP stream between the addresses its messages name, with a
// made-up handshake and close around the recorded payloads, sequence numbers consistent, time
// stamps from the messages. Returns false with `error` filled in when the file cannot be written.
bool writeCapture(const Recording& recording, const std::string& path, std::string* error);

}  // namespace talvex
