// A parsed recorder message as one flat JSON object, as jq users read it:
//   {"kind":"send","timestamp":1763780000123,"ticket":5,"socket":3,"pid":4321,
//    "data":"GET / HTTP/1.0\r\n\r\n","data_b64":"R0VU...","length":18,"remote_ip":"127.0.0.1",...}
// Each attribute becomes a key; the facts that the agent's messages spell two ways have one name
// here: "remote_ip"/"remote_port" for the far end ("ip"/"port"), "local_ip"/"local_port",
// "working_directory", "command_line" (an array of the arguments), "socks_error", "resolver_error";
// a resolution's entry gives its own "address". A process message's "timestamp" is its time in
// milliseconds (the agent sends 0). Integers are JSON numbers while a double holds
// them exactly (up to 2^53), strings of their decimal value beyond (nanosecond time stamps).
// Text is a JSON string when it is UTF-8, null otherwise; "data" always has its bytes in base64
// beside it ("data_b64"), other text only when it is not UTF-8. Family 10 reads "AF_INET6" and
// IPv6 addresses are compressed ("::1"); an "error" gets its name beside it ("error_name").
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>

#include "recorder_message_parser.h"

namespace talvex {

std::string base64Encode(std::string_view bytes);
// A JSON string of UTF-8 text.
std::string jsonString(const std::string& text);
bool isUtf8(const std::string& bytes);

// The two ends of the connection a message belongs to, as far as they are known.
struct ConnectionEnds {
  std::string family;  // "AF_INET", "AF_INET6"
  std::string localIp, remoteIp;  // localIp empty when the agent did not name it
  int localPort = 0, remotePort = 0;
};

// What the reader of the whole recording knows of a message beyond its own attributes.
struct MessageContext {
  int64_t pid = 0;                       // the process it belongs to; 0 when unknown
  const ConnectionEnds* ends = nullptr;  // its connection's ends
  uint64_t connection = 0;               // its connection, numbered from 1 in order of opening
  const char* state = nullptr;           // "open", "connecting", "connected", "failed"
  int64_t connectionError = 0;           // why a failed connection failed; 0: closed first
};

// With a context, the object also carries "pid" (when the message has none), the ends
// ("family", "local_ip", "local_port", "remote_ip", "remote_port", those known), "connection",
// "connection_state" and, for a failed connection, "connection_error" and its name.
std::string messageToJson(const ParsedMessage& message, const MessageContext* context = nullptr);

// A line that could not be parsed: {"kind":"malformed","reason":...,"raw_b64":...}.
std::string malformedToJson(std::string_view raw, const std::string& reason);

// One received message as its JSON line: decoded when it parses, reported as malformed when not
// (`malformed`, when given, says which).
std::string receivedToJson(std::string_view raw, bool* malformed = nullptr);

}  // namespace talvex
