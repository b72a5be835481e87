#include "message_json.h"

#include <stdio.h>

namespace talvex {

std::string base64Encode(const std::string& bytes) {
  static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const unsigned v = (static_cast<unsigned char>(bytes[i]) << 16) | (static_cast<unsigned char>(bytes[i + 1]) << 8) |
                       static_cast<unsigned char>(bytes[i + 2]);
    out += alphabet[v >> 18];
    out += alphabet[(v >> 12) & 63];
    out += alphabet[(v >> 6) & 63];
    out += alphabet[v & 63];
  }
  if (i + 1 == bytes.size()) {
    const unsigned v = static_cast<unsigned char>(bytes[i]) << 16;
    out += alphabet[v >> 18];
    out += alphabet[(v >> 12) & 63];
    out += "==";
  } else if (i + 2 == bytes.size()) {
    const unsigned v = (static_cast<unsigned char>(bytes[i]) << 16) | (static_cast<unsigned char>(bytes[i + 1]) << 8);
    out += alphabet[v >> 18];
    out += alphabet[(v >> 12) & 63];
    out += alphabet[(v >> 6) & 63];
    out += '=';
  }
  return out;
}

std::string jsonString(const std::string& text) {
  std::string out = "\"";
  for (const char ch : text) {
    const unsigned char c = static_cast<unsigned char>(ch);
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20 || c >= 0x7f) {
          char escaped[8];
          snprintf(escaped, sizeof escaped, "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

namespace {

// Printable means what a reader can take as text: ASCII letters, punctuation and line breaks.
bool isPrintable(const std::string& bytes) {
  for (const char ch : bytes) {
    const unsigned char c = static_cast<unsigned char>(ch);
    if ((c < 0x20 && c != '\n' && c != '\r' && c != '\t') || c >= 0x7f) return false;
  }
  return true;
}

}  // namespace

std::string messageToJson(const ParsedMessage& message) {
  std::string out = "{\"kind\":" + jsonString(message.kind) + ",\"attributes\":[";
  bool first = true;
  for (const MessageAttribute& a : message.attributes) {
    if (!first) out += ',';
    first = false;
    out += "{\"name\":" + jsonString(a.name) + ",\"type\":\"" + valueTypeTag(a.type) + "\"";
    if (a.type == ValueType::AS || a.type == ValueType::UN) {
      out += ",\"text\":" + (isPrintable(a.bytes) ? jsonString(a.bytes) : std::string("null"));
      out += ",\"base64\":\"" + base64Encode(a.bytes) + "\"";
    } else {
      out += ",\"value\":" + std::to_string(a.integer) + ",\"hex\":\"" + a.raw + "\"";
    }
    out += '}';
  }
  return out + "]}";
}

std::string malformedToJson(const std::string& raw, const std::string& error) {
  return "{\"error\":" + jsonString(error) + ",\"raw_base64\":\"" + base64Encode(raw) + "\"}";
}

std::string receivedToJson(const std::string& raw, bool* malformed) {
  ParsedMessage parsed;
  std::string why;
  const bool ok = parseRecorderMessage(raw, &parsed, &why);
  if (malformed != nullptr) *malformed = !ok;
  return ok ? messageToJson(parsed) : malformedToJson(raw, why);
}

}  // namespace talvex
