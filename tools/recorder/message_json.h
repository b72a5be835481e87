// A parsed recorder message as one line of JSON.
#pragma once

#include <string>

#include "recorder_message_parser.h"

namespace talvex {

std::string base64Encode(const std::string& bytes);
std::string jsonString(const std::string& text);

// {"kind":..., "attributes":[{"name":..., "type":..., ...}, ...]}: integers as "value" (decimal,
// signed as their type says) and "hex"; text as "text" (null when not printable) and "base64".
std::string messageToJson(const ParsedMessage& message);

// A line that could not be parsed: {"error":..., "raw_base64":...}.
std::string malformedToJson(const std::string& raw, const std::string& error);

// One received message as its JSON line: decoded when it parses, reported as malformed when not
// (`malformed`, when given, says which).
std::string receivedToJson(const std::string& raw, bool* malformed = nullptr);

}  // namespace talvex
