#include "payload_text.h"

#include <stdio.h>

#include "message_json.h"

namespace talvex {

bool isPrintableText(const std::string& bytes) {
  for (const char ch : bytes) {
    const unsigned char c = static_cast<unsigned char>(ch);
    if ((c < 0x20 && c != '\n' && c != '\r' && c != '\t') || c >= 0x7f) return false;
  }
  return true;
}

std::string textAsUtf8(const std::string& bytes) {
  if (isUtf8(bytes)) return bytes;
  std::string out;
  for (const char ch : bytes) {
    const unsigned char c = static_cast<unsigned char>(ch);
    if (c < 0x80) {
      out += ch;
    } else {
      out += static_cast<char>(0xc0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3f));
    }
  }
  return out;
}

std::string jsonText(const std::string& bytes) { return jsonString(textAsUtf8(bytes)); }

std::string hexDump(const std::string& bytes, const std::string& indent) {
  std::string out;
  char piece[16];
  for (size_t offset = 0; offset < bytes.size(); offset += 16) {
    snprintf(piece, sizeof piece, "%04zx ", offset);
    out += indent + piece;
    std::string ascii;
    for (size_t i = 0; i < 16; ++i) {
      if (offset + i < bytes.size()) {
        const unsigned char c = static_cast<unsigned char>(bytes[offset + i]);
        snprintf(piece, sizeof piece, " %02x", c);
        out += piece;
        ascii += (c >= 0x20 && c < 0x7f) ? static_cast<char>(c) : '.';
      } else {
        out += "   ";
      }
    }
    out += "  |" + ascii + "|\n";
  }
  return out;
}

}  // namespace talvex
