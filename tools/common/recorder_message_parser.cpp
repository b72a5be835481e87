#include "recorder_message_parser.h"

#include <string.h>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "message/escape_classes.h"

namespace talvex {

namespace {

// Each byte's value as a lower-case hexadecimal digit, or -1: the encoder writes lower case only.
struct HexDigits {
  signed char value[256];
};

constexpr HexDigits buildHexDigits() {
  HexDigits table{};
  for (int c = 0; c < 256; ++c) {
    const int value = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    table.value[c] = static_cast<signed char>(value);
  }
  return table;
}

constexpr HexDigits kHexDigits = buildHexDigits();

inline int hexValue(char c) { return kHexDigits.value[static_cast<unsigned char>(c)]; }

// Names and numbers are most of what is read of a message whose payload is stepped over. Where a
// run of them ends is found sixteen bytes at a time where the processor allows: a byte-by-byte
// scan pays for a mispredicted loop exit at the end of every one of them. A run is of bytes in
// either of two ranges (a range may be one byte), fixed at compile time so that the compares'
// constants are too.
template <char kLow1, char kHigh1, char kLow2, char kHigh2>
const char* endOfRun(const char* p, const char* end) {
#ifdef __SSE2__
  // Signed compares, as the bytes' own below: from 0x80 up they are negative, so in no range here.
  auto within = [](__m128i x, char low, char high) {
    return _mm_and_si128(_mm_cmpgt_epi8(x, _mm_set1_epi8(static_cast<char>(low - 1))),
                         _mm_cmplt_epi8(x, _mm_set1_epi8(static_cast<char>(high + 1))));
  };
  for (; end - p >= 16; p += 16) {
    const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i in = _mm_or_si128(within(x, kLow1, kHigh1), within(x, kLow2, kHigh2));
    const unsigned held = static_cast<unsigned>(_mm_movemask_epi8(in));
    if (held != 0xffff) return p + __builtin_ctz(~held);
  }
#endif
  while (p < end && ((*p >= kLow1 && *p <= kHigh1) || (*p >= kLow2 && *p <= kHigh2))) ++p;
  return p;
}

const char* endOfName(const char* p, const char* end) { return endOfRun<'a', 'z', '_', '_'>(p, end); }
const char* endOfHexDigits(const char* p, const char* end) { return endOfRun<'0', '9', 'a', 'f'>(p, end); }

class Parser {
 public:
  // `store` false reads the message for its form alone: nothing is kept, and payloads are
  // stepped over.
  Parser(std::string_view text, std::string* error, bool payloads, bool store = true)
      : text_(text), error_(error), payloads_(payloads && store), store_(store) {}

  // Attribute heads (name, tag, '="') already found well formed, by position in the message:
  // where the text repeats one, it is stepped over whole. Only for reading a message's form.
  void rememberHeads(std::vector<KnownHead>* heads) { heads_ = heads; }

  bool parse(ParsedMessage* message) {
    const size_t start = at_ + 1;
    if (!expect('<') || (scanKind(), at_ == start)) {
      message->attributes.clear();
      return at_ == start ? fail("missing message kind") : false;
    }
    if (store_) message->kind.assign(text_.data() + start, at_ - start);
    // The attributes a message passed in already holds are written over, so that their strings
    // keep their storage from one message to the next; those left over go at the end. Read for
    // its form alone, each attribute goes through the same scratch one.
    std::vector<MessageAttribute>& attributes = message->attributes;
    size_t used = 0;
    bool ok = true;
    while (ok && at_ < text_.size() && text_[at_] == ' ') {
      ++at_;
      if (store_ && used == attributes.size()) attributes.emplace_back();
      MessageAttribute& attribute = store_ ? attributes[used++] : scratch_;
      attribute.raw.clear();
      attribute.bytes.clear();
      attribute.integer = 0;
      ok = parseAttribute(&attribute);
    }
    attributes.resize(used);
    if (!ok || !expect('/') || !expect('>')) return false;
    if (at_ < text_.size() && text_[at_] == '\n') ++at_;
    if (at_ != text_.size()) return fail("unexpected bytes after the end of the message");
    return true;
  }

 private:
  bool fail(const std::string& why) {
    if (error_) *error_ = why + " at byte " + std::to_string(at_);
    return false;
  }

  void scanKind() {
    while (at_ < text_.size() && text_[at_] >= 'a' && text_[at_] <= 'z') ++at_;
  }

  bool expect(char c) {
    if (__builtin_expect(at_ < text_.size() && text_[at_] == c, 1)) {
      ++at_;
      return true;
    }
    return unexpected(c);
  }

  bool unexpected(char c) {
    if (at_ >= text_.size()) return fail(std::string("message ends where '") + c + "' was expected");
    return fail(std::string("expected '") + c + "'");
  }

  // What is read below goes through local copies of the text's start and size: a byte stored
  // into a result string may, as far as the compiler knows, have changed any member.
  bool parseAttribute(MessageAttribute* attribute) {
    const char* const data = text_.data();
    const size_t size = text_.size();
    const size_t start = at_;
    const size_t index = attributeIndex_++;
    if (heads_ != nullptr && index < heads_->size()) {
      const KnownHead& known = (*heads_)[index];
      if (size - start >= known.text.size() && memcmp(data + start, known.text.data(), known.text.size()) == 0) {
        nameStart_ = start;
        nameLength_ = known.nameLength;
        attribute->type = known.type;
        at_ = start + known.text.size();
        return parseValue(attribute);
      }
    }
    at_ = static_cast<size_t>(endOfName(data + at_, data + size) - data);
    // Names are lower case with '_'; the upper-case tag stops the scan just after the last '_'.
    if (at_ - start < 2 || text_[at_ - 1] != '_') return fail("attribute without a name and type tag");
    const size_t nameLength = at_ - start - 1;
    nameStart_ = start;
    nameLength_ = nameLength;
    if (store_) attribute->name.assign(data + start, nameLength);
    if (at_ + 2 > text_.size()) return fail("attribute " + name() + " is cut short");
    const char first = text_[at_], second = text_[at_ + 1];
    if (first == 'I' && second == '4') {
      attribute->type = ValueType::I4;
    } else if (first == 'U' && second == '4') {
      attribute->type = ValueType::U4;
    } else if (first == 'I' && second == '8') {
      attribute->type = ValueType::I8;
    } else if (first == 'A' && second == 'S') {
      attribute->type = ValueType::AS;
    } else if (first == 'U' && second == 'N') {
      attribute->type = ValueType::UN;
    } else {
      return fail("unknown type tag '" + std::string(text_.substr(at_, 2)) + "' of attribute " + name());
    }
    at_ += 2;
    if (!expect('=') || !expect('"')) return false;
    if (heads_ != nullptr && index < kKnownHeads) {
      if (heads_->size() <= index) heads_->resize(index + 1);
      KnownHead& known = (*heads_)[index];
      known.text.assign(data + start, at_ - start);
      known.type = attribute->type;
      known.nameLength = nameLength;
    }
    return parseValue(attribute);
  }

  // The value after its head, whose name is at nameStart_.
  bool parseValue(MessageAttribute* attribute) {
    const char* const data = text_.data();
    const size_t valueStart = at_;
    const bool isText = attribute->type == ValueType::AS || attribute->type == ValueType::UN;
    if (isText && !payloads_ && nameLength_ == 4 && memcmp(data + nameStart_, "data", 4) == 0) {
      // Stepped over: an escaped value holds no quote, so its end is the next one.
      const void* quote = memchr(text_.data() + at_, '"', text_.size() - at_);
      if (quote == nullptr) {
        at_ = text_.size();
        return fail("value of " + name() + " is not closed");
      }
      at_ = static_cast<size_t>(static_cast<const char*>(quote) - text_.data());
      return expect('"');
    }
    if (isText ? !parseText(attribute) : !parseInteger(attribute)) return false;
    if (store_) attribute->raw.assign(data + valueStart, at_ - valueStart);
    return expect('"');
  }

  bool parseInteger(MessageAttribute* attribute) {
    const size_t maxDigits = attribute->type == ValueType::I8 ? 16 : 8;
    const char* const data = text_.data();
    const size_t size = text_.size();
    const size_t start = at_;
    at_ = static_cast<size_t>(endOfHexDigits(data + at_, data + size) - data);
    if (at_ < size && data[at_] != '"') return fail("not a lower-case hexadecimal digit in " + name());
    const size_t digits = at_ - start;
    if (digits == 0) return fail("empty number in " + name());
    if (digits > maxDigits) return fail("too many digits in " + name());
    if (!store_) return true;
    uint64_t bits = 0;
    for (size_t i = start; i < at_; ++i) bits = (bits << 4) | static_cast<uint64_t>(hexValue(data[i]));
    switch (attribute->type) {
      case ValueType::I4: attribute->integer = static_cast<int32_t>(static_cast<uint32_t>(bits)); break;
      case ValueType::U4: attribute->integer = static_cast<int64_t>(static_cast<uint32_t>(bits)); break;
      default: attribute->integer = static_cast<int64_t>(bits); break;
    }
    return true;
  }

  bool parseEscapedHex(size_t length, int* value) {
    if (at_ + length > text_.size()) return fail("escape cut short");
    int v = 0;
    for (size_t i = 0; i < length; ++i) {
      const int d = hexValue(text_[at_ + i]);
      if (d < 0) return fail("bad hexadecimal digit in escape");
      v = v * 16 + d;
    }
    at_ += length;
    *value = v;
    return true;
  }

  // A byte that stands for itself in a value.
  static bool plain(unsigned char c) { return kEscapeClasses.of[c] == kEscapePlain; }

  // Values are most of a message, and binary ones are mostly escapes: the decoder works on raw
  // pointers into a buffer sized for the longest possible result, and falls back to the checked
  // path only where an escape is not the encoder's.
  bool parseText(MessageAttribute* attribute) {
    std::string& out = attribute->bytes;
    const char* const base = text_.data();
    const char* p = base + at_;
    const char* const end = base + text_.size();
    out.resize(static_cast<size_t>(end - p));
    char* o = &out[0];
    const bool unicode = attribute->type == ValueType::UN;
    for (;;) {
      while (p < end && plain(static_cast<unsigned char>(*p))) *o++ = *p++;
      if (p >= end || *p == '"') break;
      if (*p == '\\' && end - p >= 4 && (p[1] == 'x' || (p[1] == 'u' && unicode)) && hexValue(p[2]) >= 0 &&
          hexValue(p[3]) >= 0) {
        *o++ = static_cast<char>(hexValue(p[2]) << 4 | hexValue(p[3]));
        p += 4;
      } else if (*p == '\\' && end - p >= 2 && p[1] == '\\') {
        *o++ = '\\';
        p += 2;
      } else if (*p == '&' && end - p >= 6 && p[1] == '#' && p[2] == 'x' && hexValue(p[3]) >= 0 &&
                 hexValue(p[4]) >= 0 && p[5] == ';') {
        *o++ = static_cast<char>(hexValue(p[3]) << 4 | hexValue(p[4]));
        p += 6;
      } else {
        at_ = static_cast<size_t>(p - base);
        out.resize(static_cast<size_t>(o - &out[0]));
        return parseOddText(attribute);
      }
    }
    at_ = static_cast<size_t>(p - base);
    out.resize(static_cast<size_t>(o - &out[0]));
    if (at_ >= text_.size()) return fail("value of " + name() + " is not closed");
    return true;
  }

  // The byte-by-byte path, which says exactly what is wrong with a value.
  bool parseOddText(MessageAttribute* attribute) {
    std::string& out = attribute->bytes;
    while (at_ < text_.size() && text_[at_] != '"') {
      const unsigned char c = static_cast<unsigned char>(text_[at_]);
      int value = 0;
      if (c == '&') {
        if (text_.compare(at_, 3, "&#x") != 0) return fail("'&' that does not start an escape");
        at_ += 3;
        if (!parseEscapedHex(2, &value) || !expect(';')) return false;
        out.push_back(static_cast<char>(value));
      } else if (c == '\\') {
        ++at_;
        if (at_ >= text_.size()) return fail("escape cut short");
        const char kind = text_[at_++];
        if (kind == '\\') {
          out.push_back('\\');
        } else if (kind == 'x' || (kind == 'u' && attribute->type == ValueType::UN)) {
          if (!parseEscapedHex(2, &value)) return false;
          out.push_back(static_cast<char>(value));
        } else {
          --at_;
          return fail(std::string("unknown escape '\\") + kind + "'");
        }
      } else if (kEscapeClasses.of[c] != kEscapePlain) {
        return fail("unescaped byte " + std::to_string(c) + " in " + name());
      } else {
        out.push_back(static_cast<char>(c));
        ++at_;
      }
    }
    if (at_ >= text_.size()) return fail("value of " + name() + " is not closed");
    return true;
  }

  // The attribute being read, named in what a failure says.
  std::string name() const { return std::string(text_.substr(nameStart_, nameLength_)); }

  const std::string_view text_;
  std::string* error_;
  const bool payloads_;
  const bool store_;
  size_t at_ = 0;
  size_t nameStart_ = 0;
  size_t nameLength_ = 0;
  MessageAttribute scratch_;
  std::vector<KnownHead>* heads_ = nullptr;
  size_t attributeIndex_ = 0;
};

}  // namespace

bool RecorderMessageFormCheck::wellFormed(std::string_view text) {
  ParsedMessage scratch;
  Parser parser(text, nullptr, false, false);
  parser.rememberHeads(&heads_);
  return parser.parse(&scratch);
}

const char* valueTypeTag(ValueType type) {
  switch (type) {
    case ValueType::I4: return "I4";
    case ValueType::U4: return "U4";
    case ValueType::I8: return "I8";
    case ValueType::AS: return "AS";
    case ValueType::UN: return "UN";
  }
  return "??";
}

const MessageAttribute* ParsedMessage::find(const std::string& name) const {
  for (const auto& attribute : attributes) {
    if (attribute.name == name) return &attribute;
  }
  return nullptr;
}

int64_t ParsedMessage::integer(const char* name, int64_t fallback) const {
  const MessageAttribute* a = find(name);
  return a != nullptr ? a->integer : fallback;
}

int64_t ParsedMessage::timeNs() const {
  const MessageAttribute* ns = find("timestamp_ns");
  if (ns != nullptr) return ns->integer;
  // Milliseconds that no clock gives (a peer's garbage) would overflow in nanoseconds: they read
  // as the end of the range they lie beyond.
  const int64_t ms = integer("timestamp");
  const int64_t limit = INT64_MAX / 1000000;
  return ms > limit ? INT64_MAX : ms < -limit ? INT64_MIN : ms * 1000000;
}

std::string ParsedMessage::text(const char* name) const {
  const MessageAttribute* a = find(name);
  return a != nullptr ? a->bytes : std::string();
}

bool parseRecorderMessage(std::string_view text, ParsedMessage* message, std::string* error, bool payloads) {
  // Parsed in place: a reader that passes the same message each time keeps its storage, and
  // allocates nothing once it has seen messages as long.
  message->kind.clear();
  Parser parser(text, error, payloads);
  return parser.parse(message);
}

std::vector<std::string> commandLineArguments(const std::string& value) {
  std::vector<std::string> arguments;
  for (size_t start = 0; start < value.size();) {
    size_t end = value.find('\0', start);
    if (end == std::string::npos) end = value.size();
    arguments.push_back(value.substr(start, end - start));
    start = end + 1;
  }
  return arguments;
}

}  // namespace talvex
