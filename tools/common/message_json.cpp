#include "message_json.h"

#include <stdio.h>

#include <set>

#include "address_text.h"
#include "error_text.h"

namespace talvex {

std::string base64Encode(std::string_view bytes) {
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
        if (c < 0x20 || c == 0x7f) {
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

bool isUtf8(const std::string& bytes) {
  size_t i = 0;
  while (i < bytes.size()) {
    const unsigned char c = static_cast<unsigned char>(bytes[i]);
    size_t more = 0;
    unsigned lowest = 0;
    if (c < 0x80) {
      ++i;
      continue;
    } else if ((c & 0xe0) == 0xc0) {
      more = 1;
      lowest = 0x80;
    } else if ((c & 0xf0) == 0xe0) {
      more = 2;
      lowest = 0x800;
    } else if ((c & 0xf8) == 0xf0) {
      more = 3;
      lowest = 0x10000;
    } else {
      return false;
    }
    if (i + more >= bytes.size()) return false;
    unsigned value = c & (0x3f >> more);
    for (size_t k = 1; k <= more; ++k) {
      const unsigned char next = static_cast<unsigned char>(bytes[i + k]);
      if ((next & 0xc0) != 0x80) return false;
      value = value << 6 | (next & 0x3f);
    }
    // Overlong forms, surrogates and values past Unicode are not text.
    if (value < lowest || (value >= 0xd800 && value <= 0xdfff) || value > 0x10ffff) return false;
    i += more + 1;
  }
  return true;
}

namespace {

const int64_t kLargestExactDouble = int64_t(1) << 53;

std::string jsonInteger(int64_t value) {
  const std::string digits = std::to_string(value);
  return value > kLargestExactDouble || value < -kLargestExactDouble ? "\"" + digits + "\"" : digits;
}

class FlatObject {
 public:
  explicit FlatObject(const std::string& kind) : out_("{\"kind\":" + jsonString(kind)) { keys_.insert("kind"); }
  bool has(const std::string& key) const { return keys_.count(key) != 0; }
  // Later values of a key already written are left out: a JSON object has one of each.
  void add(const std::string& key, const std::string& json) {
    if (!keys_.insert(key).second) return;
    out_ += "," + jsonString(key) + ":" + json;
  }
  std::string done() const { return out_ + "}"; }

 private:
  std::string out_;
  std::set<std::string> keys_;
};

}  // namespace

namespace {

// The one name of an attribute in JSON Lines.
std::string keyOf(const std::string& kind, const std::string& name) {
  if (name == "ip") return kind == "addrinfo" ? "address" : "remote_ip";
  if (name == "port") return "remote_port";
  if (name == "localport") return "local_port";
  if (name == "localip") return "local_ip";
  if (name == "workingdir") return "working_directory";
  if (name == "sockserror") return "socks_error";
  if (name == "gaierror") return "resolver_error";
  if (name == "kind") return "socket_kind";  // "kind" is the message's
  return name;
}

std::string argumentArray(const std::string& commandLine) {
  std::string out = "[";
  for (const std::string& argument : commandLineArguments(commandLine)) {
    if (out.size() > 1) out += ",";
    out += isUtf8(argument) ? jsonString(argument) : "null";
  }
  return out + "]";
}

void addContext(FlatObject& object, const MessageContext& context) {
  if (context.pid != 0) object.add("pid", jsonInteger(context.pid));
  if (context.ends != nullptr) {
    const ConnectionEnds& ends = *context.ends;
    if (!ends.family.empty()) object.add("family", jsonString(ends.family));
    if (!ends.localIp.empty()) object.add("local_ip", jsonString(ends.localIp));
    if (ends.localPort != 0) object.add("local_port", std::to_string(ends.localPort));
    if (!ends.remoteIp.empty()) object.add("remote_ip", jsonString(ends.remoteIp));
    if (ends.remotePort != 0) object.add("remote_port", std::to_string(ends.remotePort));
  }
  if (context.connection != 0) object.add("connection", jsonInteger(static_cast<int64_t>(context.connection)));
  if (context.state != nullptr) object.add("connection_state", jsonString(context.state));
  if (context.state != nullptr && std::string(context.state) == "failed") {
    object.add("connection_error", jsonInteger(context.connectionError));
    object.add("connection_error_name",
               jsonString(context.connectionError == 0 ? "closed before it connected" : errorName(context.connectionError)));
  }
}

}  // namespace

std::string messageToJson(const ParsedMessage& message, const MessageContext* context) {
  FlatObject object(message.kind);
  // An entry's own address, where the agent sent it, is the address; "ip" is then the first
  // entry's, which the reader has in that entry.
  const bool ownAddress = message.kind == "addrinfo" && message.find("address") != nullptr;
  for (const MessageAttribute& a : message.attributes) {
    if (ownAddress && a.name == "ip") continue;
    const std::string key = keyOf(message.kind, a.name);
    if (a.type != ValueType::AS && a.type != ValueType::UN) {
      int64_t value = a.integer;
      // The agent stamps its process message 0; its time is the nanosecond stamp's.
      if (message.kind == "process" && a.name == "timestamp" && message.find("timestamp_ns") != nullptr) {
        value = message.integer("timestamp_ns") / 1000000;
      }
      object.add(key, jsonInteger(value));
      if (a.name == "error" || (a.name == "sockserror" && a.integer != 0)) {
        object.add(key + "_name", jsonString(errorName(a.integer)));
      }
      if (a.name == "gaierror") object.add(key + "_name", jsonString(resolverErrorName(a.integer)));
      continue;
    }
    if (a.name == "commandline") {
      object.add("command_line", argumentArray(a.bytes));
      continue;
    }
    std::string text = a.bytes;
    if (a.name == "family") text = familyName(text);
    if (a.name == "ip" || a.name == "localip" || a.name == "address") text = normalIp(text);
    const bool utf8 = isUtf8(text);
    object.add(key, utf8 ? jsonString(text) : "null");
    if (a.name == "data" || !utf8) object.add(key + "_b64", "\"" + base64Encode(a.bytes) + "\"");
  }
  if (context != nullptr) addContext(object, *context);
  return object.done();
}

std::string malformedToJson(std::string_view raw, const std::string& reason) {
  return "{\"kind\":\"malformed\",\"reason\":" + jsonString(reason) + ",\"raw_b64\":\"" + base64Encode(raw) + "\"}";
}

std::string receivedToJson(std::string_view raw, bool* malformed) {
  ParsedMessage parsed;
  std::string why;
  const bool ok = parseRecorderMessage(raw, &parsed, &why);
  if (malformed != nullptr) *malformed = !ok;
  return ok ? messageToJson(parsed) : malformedToJson(raw, why);
}

}  // namespace talvex
