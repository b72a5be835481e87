// Reads one recorder message line back into its kind and typed attributes.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace talvex {

enum class ValueType { I4, U4, I8, AS, UN };

const char* valueTypeTag(ValueType type);

struct MessageAttribute {
  std::string name;
  ValueType type = ValueType::AS;
  std::string raw;      // the value as it stood between the quotes
  int64_t integer = 0;  // I4 and I8 sign-extended, U4 as unsigned
  std::string bytes;    // AS and UN: the decoded bytes (UN: the low 8 bits of each character)
};

struct ParsedMessage {
  std::string kind;
  std::vector<MessageAttribute> attributes;

  // The first attribute of that name, or null.
  const MessageAttribute* find(const std::string& name) const;
};

// Accepts exactly one message, with or without its closing line feed. On failure returns false
// and says where and why in `error`.
bool parseRecorderMessage(const std::string& text, ParsedMessage* message, std::string* error);

}  // namespace talvex
