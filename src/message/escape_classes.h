// How each byte of a value is written in a message's text. The encoder's every path, the tools'
// parser and the tests all take the rule from here.
#pragma once

#include <stdint.h>

enum EscapeClass : unsigned char {
  kEscapePlain = 0,      // the byte itself
  kEscapeHex = 1,        // "\xNN": the other control bytes, DEL and every byte above it
  kEscapeEntity = 2,     // "&#xNN;": the bytes the message's own syntax would take otherwise
  kEscapeBackslash = 3,  // "\\": the escape character itself
};

// Printable ASCII stands for itself, but for the entity bytes and the backslash.
inline constexpr unsigned char kFirstPlainByte = 0x20;
inline constexpr unsigned char kLastPlainByte = 0x7e;
// Tab and line feed (a line feed ends a message), '"' (ends a value), '&' and '<'.
inline constexpr unsigned char kEntityBytes[5] = {0x09, 0x0a, 0x22, 0x26, 0x3c};
inline constexpr unsigned char kBackslashByte = 0x5c;

constexpr EscapeClass escapeClassOf(unsigned char c) {
  for (const unsigned char entity : kEntityBytes) {
    if (c == entity) return kEscapeEntity;
  }
  if (c == kBackslashByte) return kEscapeBackslash;
  if (c < kFirstPlainByte || c > kLastPlainByte) return kEscapeHex;
  return kEscapePlain;
}

// The characters a byte of the class takes once escaped.
constexpr unsigned escapeLengthOf(EscapeClass kind) {
  return kind == kEscapePlain ? 1 : kind == kEscapeHex ? 4 : kind == kEscapeEntity ? 6 : 2;
}

// The class of every byte, worked out by the compiler: a hot loop pays one load per byte.
struct EscapeClassTable {
  EscapeClass of[256];
};

constexpr EscapeClassTable buildEscapeClassTable() {
  EscapeClassTable table{};
  for (unsigned c = 0; c < 256; ++c) table.of[c] = escapeClassOf(static_cast<unsigned char>(c));
  return table;
}

inline constexpr EscapeClassTable kEscapeClasses = buildEscapeClassTable();
