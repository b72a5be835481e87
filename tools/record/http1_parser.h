// HTTP/1.0 and 1.1 read back from the two directions of a conversation: the requests one side
// sent, the responses the other sent, paired in order, which covers keep-alive and pipelining
// alike. Interim responses (100 Continue) are stepped over; a switch of protocols or a tunnel ends
// what is read as HTTP.
#pragma once

#include <string>
#include <vector>

#include "http_exchange.h"
#include "timed_stream.h"

namespace talvex {

// Whether the bytes begin with a request line ("GET /x HTTP/1.1") or a status line ("HTTP/1.1 ").
bool beginsWithHttp1Request(const std::string& bytes);
bool beginsWithHttp1Response(const std::string& bytes);

std::vector<HttpExchange> readHttp1(const TimedStream& requests, const TimedStream& responses);

}  // namespace talvex
