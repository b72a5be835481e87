#include "recorder_message_parser.h"

#include <string.h>

namespace talvex {

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;  // the encoder writes lower case only
}

class Parser {
 public:
  Parser(const std::string& text, std::string* error, bool payloads)
      : text_(text), error_(error), payloads_(payloads) {}

  bool parse(ParsedMessage* message) {
    if (!expect('<')) return false;
    const size_t start = at_;
    while (at_ < text_.size() && text_[at_] >= 'a' && text_[at_] <= 'z') ++at_;
    if (at_ == start) return fail("missing message kind");
    message->kind.assign(text_, start, at_ - start);
    message->attributes.reserve(16);
    while (at_ < text_.size() && text_[at_] == ' ') {
      ++at_;
      message->attributes.emplace_back();
      if (!parseAttribute(&message->attributes.back())) return false;
    }
    if (!expect('/') || !expect('>')) return false;
    if (at_ < text_.size() && text_[at_] == '\n') ++at_;
    if (at_ != text_.size()) return fail("unexpected bytes after the end of the message");
    return true;
  }

 private:
  bool fail(const std::string& why) {
    if (error_) *error_ = why + " at byte " + std::to_string(at_);
    return false;
  }

  bool expect(char c) {
    if (at_ >= text_.size()) return fail(std::string("message ends where '") + c + "' was expected");
    if (text_[at_] != c) return fail(std::string("expected '") + c + "'");
    ++at_;
    return true;
  }

  bool parseAttribute(MessageAttribute* attribute) {
    const size_t start = at_;
    while (at_ < text_.size() && ((text_[at_] >= 'a' && text_[at_] <= 'z') || text_[at_] == '_')) ++at_;
    // Names are lower case with '_'; the upper-case tag stops the scan just after the last '_'.
    if (at_ - start < 2 || text_[at_ - 1] != '_') return fail("attribute without a name and type tag");
    attribute->name.assign(text_, start, at_ - start - 1);
    if (at_ + 2 > text_.size()) return fail("attribute " + attribute->name + " is cut short");
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
      return fail("unknown type tag '" + text_.substr(at_, 2) + "' of attribute " + attribute->name);
    }
    at_ += 2;
    if (!expect('=') || !expect('"')) return false;
    const size_t valueStart = at_;
    const bool isText = attribute->type == ValueType::AS || attribute->type == ValueType::UN;
    if (isText && !payloads_ && attribute->name == "data") {
      // Stepped over: an escaped value holds no quote, so its end is the next one.
      const void* quote = memchr(text_.data() + at_, '"', text_.size() - at_);
      if (quote == nullptr) {
        at_ = text_.size();
        return fail("value of " + attribute->name + " is not closed");
      }
      at_ = static_cast<size_t>(static_cast<const char*>(quote) - text_.data());
      return expect('"');
    }
    if (isText ? !parseText(attribute) : !parseInteger(attribute)) return false;
    attribute->raw.assign(text_, valueStart, at_ - valueStart);
    return expect('"');
  }

  bool parseInteger(MessageAttribute* attribute) {
    const size_t maxDigits = attribute->type == ValueType::I8 ? 16 : 8;
    uint64_t bits = 0;
    size_t digits = 0;
    while (at_ < text_.size() && text_[at_] != '"') {
      const int v = hexValue(text_[at_]);
      if (v < 0) return fail("not a lower-case hexadecimal digit in " + attribute->name);
      bits = (bits << 4) | static_cast<uint64_t>(v);
      ++digits;
      ++at_;
    }
    if (digits == 0) return fail("empty number in " + attribute->name);
    if (digits > maxDigits) return fail("too many digits in " + attribute->name);
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
  static bool plain(unsigned char c) { return c >= 0x20 && c <= 0x7e && c != '"' && c != '&' && c != '\\' && c != '<'; }

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
    if (at_ >= text_.size()) return fail("value of " + attribute->name + " is not closed");
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
      } else if (c < 0x20 || c > 0x7e || c == '<') {
        return fail("unescaped byte " + std::to_string(c) + " in " + attribute->name);
      } else {
        out.push_back(static_cast<char>(c));
        ++at_;
      }
    }
    if (at_ >= text_.size()) return fail("value of " + attribute->name + " is not closed");
    return true;
  }

  const std::string& text_;
  std::string* error_;
  const bool payloads_;
  size_t at_ = 0;
};

}  // namespace

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
  return ns != nullptr ? ns->integer : integer("timestamp") * 1000000;
}

std::string ParsedMessage::text(const char* name) const {
  const MessageAttribute* a = find(name);
  return a != nullptr ? a->bytes : std::string();
}

bool parseRecorderMessage(const std::string& text, ParsedMessage* message, std::string* error, bool payloads) {
  ParsedMessage parsed;
  Parser parser(text, error, payloads);
  if (!parser.parse(&parsed)) return false;
  *message = std::move(parsed);
  return true;
}

}  // namespace talvex
