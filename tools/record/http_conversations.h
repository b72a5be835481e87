// A recorded conversation read as HTTP, whichever side the program was on: the direction that
// begins with a request (or HTTP/2's connection preface) is the client's.
#pragma once

#include "conversations.h"
#include "http_exchange.h"

namespace talvex {

HttpConversation readHttp(const Conversation& conversation);

}  // namespace talvex
