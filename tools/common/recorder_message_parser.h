// Reads one recorder message line back into its kind and typed attributes.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>
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
  // Its integer value, or `fallback` when there is none.
  int64_t integer(const char* name, int64_t fallback = 0) const;
  // Its decoded text, or empty when there is none.
  std::string text(const char* name) const;
  // When the event happened, in nanoseconds: "timestamp_ns" where the clock gave it, else the
  // milliseconds of "timestamp" (0 when there is neither).
  int64_t timeNs() const;
};

// Accepts exactly one message, with or without its closing line feed. On failure returns false
// and says where and why in `error`; `message` then holds what was read before the fault.
// `payloads` false steps over the "data" value without decoding or checking it (it is then
// absent): for readers that need only who talked to whom.
bool parseRecorderMessage(std::string_view text, ParsedMessage* message, std::string* error, bool payloads = true);

// The arguments of a process message's "commandline", in which each one ends with a zero byte.
std::vector<std::string> commandLineArguments(const std::string& value);

// How many attribute heads of a message a form check remembers.
const size_t kKnownHeads = 32;

// The head of an attribute (`name_TT="`) found well formed in an earlier message.
struct KnownHead {
  std::string text;
  ValueType type = ValueType::AS;
  size_t nameLength = 0;
};

// Says whether parseRecorderMessage with `payloads` false would accept a message, without
// keeping anything of it: for a reader that passes messages on as they came and only counts the
// bad ones. A program's messages of one kind repeat the same attribute heads in the same places,
// so the check remembers the heads of the messages it has seen (the first kKnownHeads of each)
// and steps over a repeated one with a single comparison.
class RecorderMessageFormCheck {
 public:
  bool wellFormed(std::string_view text);

 private:
  std::vector<KnownHead> heads_;
};

}  // namespace talvex
