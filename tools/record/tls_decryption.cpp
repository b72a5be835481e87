#include "tls_decryption.h"

#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <stdint.h>
#include <stdio.h>

#include <memory>
#include <vector>

namespace talvex {

namespace {

// TLS 1.3's cipher suites: the hash of their key schedule, their AEAD and its key length.
struct Suite {
  uint16_t id;
  const EVP_MD* (*hash)();
  const EVP_CIPHER* (*cipher)();
  size_t keyLength;
};

const Suite kSuites[] = {{0x1301, &EVP_sha256, &EVP_aes_128_gcm, 16},
                         {0x1302, &EVP_sha384, &EVP_aes_256_gcm, 32},
                         {0x1303, &EVP_sha256, &EVP_chacha20_poly1305, 32}};

const size_t kRecordHeader = 5;
const size_t kRandomLength = 32;
const size_t kTagLength = 16;
const size_t kIvLength = 12;
const unsigned char kApplicationData = 23;
const unsigned char kHandshake = 22;
const unsigned char kKeyUpdate = 24;

std::string hexOf(const std::string& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string hex;
  for (unsigned char c : bytes) {
    hex += digits[c >> 4];
    hex += digits[c & 15];
  }
  return hex;
}

int digitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The bytes of a hexadecimal text, or empty when it is not one.
std::string bytesOfHex(const std::string& hex) {
  if (hex.size() % 2 != 0) return "";
  std::string bytes;
  for (size_t i = 0; i < hex.size(); i += 2) {
    const int high = digitValue(hex[i]);
    const int low = digitValue(hex[i + 1]);
    if (high < 0 || low < 0) return "";
    bytes += static_cast<char>(high * 16 + low);
  }
  return bytes;
}

const unsigned char* bytesOf(const std::string& text) { return reinterpret_cast<const unsigned char*>(text.data()); }

// HKDF-Expand-Label of TLS 1.3 (RFC 8446, 7.1), with an empty context.
bool expandLabel(const EVP_MD* hash, const std::string& secret, const std::string& label, size_t length,
                 std::string* out) {
  const std::string fullLabel = "tls13 " + label;
  std::string info;
  info += static_cast<char>(length >> 8);
  info += static_cast<char>(length & 0xff);
  info += static_cast<char>(fullLabel.size());
  info += fullLabel;
  info += '\0';
  std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(EVP_PKEY_CTX_new_id(EVP_PKEY_HKDF, nullptr),
                                                                      &EVP_PKEY_CTX_free);
  out->assign(length, '\0');
  size_t written = length;
  return context != nullptr && EVP_PKEY_derive_init(context.get()) > 0 &&
         EVP_PKEY_CTX_set_hkdf_mode(context.get(), EVP_PKEY_HKDEF_MODE_EXPAND_ONLY) > 0 &&
         EVP_PKEY_CTX_set_hkdf_md(context.get(), hash) > 0 &&
         EVP_PKEY_CTX_set1_hkdf_key(context.get(), bytesOf(secret), static_cast<int>(secret.size())) > 0 &&
         EVP_PKEY_CTX_add1_hkdf_info(context.get(), bytesOf(info), static_cast<int>(info.size())) > 0 &&
         EVP_PKEY_derive(context.get(), reinterpret_cast<unsigned char*>(&(*out)[0]), &written) > 0 &&
         written == length;
}

// The keys of one direction in one phase, from its traffic secret.
struct TrafficKeys {
  std::string secret, key, iv;
  uint64_t sequence = 0;
  bool ready = false;

  bool derive(const Suite& suite, const std::string& trafficSecret) {
    secret = trafficSecret;
    sequence = 0;
    ready = !secret.empty() && expandLabel(suite.hash(), secret, "key", suite.keyLength, &key) &&
            expandLabel(suite.hash(), secret, "iv", kIvLength, &iv);
    return ready;
  }
};

// One record's inner plaintext (its content, then its type, then padding), or false when the keys
// do not open it.
bool openRecord(const Suite& suite, TrafficKeys& keys, const std::string& record, std::string* inner) {
  if (!keys.ready || record.size() < kRecordHeader + kTagLength) return false;
  std::string nonce = keys.iv;
  for (int i = 0; i < 8; ++i) nonce[kIvLength - 1 - i] ^= static_cast<char>((keys.sequence >> (8 * i)) & 0xff);
  const std::string header = record.substr(0, kRecordHeader);
  const std::string sealed = record.substr(kRecordHeader, record.size() - kRecordHeader - kTagLength);
  std::string tag = record.substr(record.size() - kTagLength);
  std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free);
  inner->assign(sealed.size() + 16, '\0');
  int length = 0, last = 0;
  unsigned char* out = reinterpret_cast<unsigned char*>(&(*inner)[0]);
  const bool opened =
      context != nullptr && EVP_DecryptInit_ex(context.get(), suite.cipher(), nullptr, nullptr, nullptr) > 0 &&
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_IVLEN, static_cast<int>(kIvLength), nullptr) > 0 &&
      EVP_DecryptInit_ex(context.get(), nullptr, nullptr, bytesOf(keys.key), bytesOf(nonce)) > 0 &&
      EVP_DecryptUpdate(context.get(), nullptr, &length, bytesOf(header), static_cast<int>(header.size())) > 0 &&
      EVP_DecryptUpdate(context.get(), out, &length, bytesOf(sealed), static_cast<int>(sealed.size())) > 0 &&
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(kTagLength), &tag[0]) > 0 &&
      EVP_DecryptFinal_ex(context.get(), out + length, &last) > 0;
  if (!opened) return false;
  inner->resize(static_cast<size_t>(length + last));
  ++keys.sequence;
  return true;
}

// The first whole record of a byte stream, or empty.
std::string firstRecord(const std::string& stream) {
  if (stream.size() < kRecordHeader) return "";
  const size_t length = static_cast<unsigned char>(stream[3]) * 256u + static_cast<unsigned char>(stream[4]);
  return stream.size() >= kRecordHeader + length ? stream.substr(0, kRecordHeader + length) : "";
}

// One direction of the conversation: its bytes cut into records, and its keys.
struct Direction {
  std::string pending;  // the start of a record not yet whole
  TrafficKeys handshake, application;
  bool inApplicationPhase = false;
};

// The application data of one whole record, appended to `data`. False when a record under
// encryption cannot be opened.
bool readRecord(const Suite& suite, Direction& direction, const std::string& record, std::string* data) {
  if (static_cast<unsigned char>(record[0]) != kApplicationData) return true;  // in the clear: the hellos, alerts
  std::string inner;
  if (!direction.inApplicationPhase) {
    if (!openRecord(suite, direction.handshake, record, &inner)) {
      // The handshake's records are over: the first that its keys do not open is the application's.
      direction.inApplicationPhase = true;
    }
  }
  if (direction.inApplicationPhase && !openRecord(suite, direction.application, record, &inner)) return false;
  while (!inner.empty() && inner.back() == '\0') inner.pop_back();
  if (inner.empty()) return true;
  const unsigned char type = static_cast<unsigned char>(inner.back());
  inner.pop_back();
  if (type == kApplicationData && direction.inApplicationPhase) {
    *data += inner;
  } else if (type == kHandshake && direction.inApplicationPhase && !inner.empty() &&
             static_cast<unsigned char>(inner[0]) == kKeyUpdate) {
    // The sender's next keys come from its current secret (RFC 8446, 7.2).
    std::string next;
    if (!expandLabel(suite.hash(), direction.application.secret, "traffic upd",
                     static_cast<size_t>(EVP_MD_get_size(suite.hash())), &next) ||
        !direction.application.derive(suite, next)) {
      return false;
    }
  }
  return true;
}

}  // namespace

void KeyLog::load(const std::string& path) {
  FILE* file = fopen(path.c_str(), "r");
  if (file == nullptr) return;
  char line[1024];
  while (fgets(line, sizeof line, file) != nullptr) {
    char label[128], random[129], secret[257];
    if (sscanf(line, "%127s %128s %256s", label, random, secret) != 3) continue;
    const std::string bytes = bytesOfHex(secret);
    if (!bytes.empty() && bytesOfHex(random).size() == kRandomLength) secrets_[random][label] = bytes;
  }
  fclose(file);
}

std::string KeyLog::secret(const std::string& clientRandom, const std::string& label) const {
  const auto session = secrets_.find(hexOf(clientRandom));
  if (session == secrets_.end()) return "";
  const auto found = session->second.find(label);
  return found != session->second.end() ? found->second : "";
}

bool decryptConversation(Conversation& c, const KeyLog& keys, std::string* why) {
  // The hellos: the client's random, which names the session in the key log, and the server's
  // choice of cipher.
  std::string sent, received;
  for (const Event& e : c.events) (e.kind == "send" ? sent : received) += e.failed ? "" : e.data;
  const std::string clientHello = firstRecord(sent);
  const std::string serverHello = firstRecord(received);
  const size_t randomAt = kRecordHeader + 6;
  if (clientHello.size() < randomAt + kRandomLength || serverHello.size() < randomAt + kRandomLength + 1) {
    *why = "no whole hello of both sides";
    return false;
  }
  const std::string clientRandom = clientHello.substr(randomAt, kRandomLength);
  const size_t sessionIdLength = static_cast<unsigned char>(serverHello[randomAt + kRandomLength]);
  const size_t suiteAt = randomAt + kRandomLength + 1 + sessionIdLength;
  if (serverHello.size() < suiteAt + 2) {
    *why = "no whole hello of both sides";
    return false;
  }
  const uint16_t suiteId = static_cast<uint16_t>(static_cast<unsigned char>(serverHello[suiteAt]) * 256u +
                                                 static_cast<unsigned char>(serverHello[suiteAt + 1]));
  const Suite* suite = nullptr;
  for (const Suite& s : kSuites) {
    if (s.id == suiteId) suite = &s;
  }
  if (suite == nullptr) {
    *why = "not TLS 1.3";
    return false;
  }
  Direction client, server;
  if (!client.handshake.derive(*suite, keys.secret(clientRandom, "CLIENT_HANDSHAKE_TRAFFIC_SECRET")) ||
      !server.handshake.derive(*suite, keys.secret(clientRandom, "SERVER_HANDSHAKE_TRAFFIC_SECRET")) ||
      !client.application.derive(*suite, keys.secret(clientRandom, "CLIENT_TRAFFIC_SECRET_0")) ||
      !server.application.derive(*suite, keys.secret(clientRandom, "SERVER_TRAFFIC_SECRET_0"))) {
    *why = "the key log has no secrets of its session";
    return false;
  }
  // Each event keeps the application data of the records that became whole in it.
  std::vector<Event> events;
  int64_t bytesSent = 0, bytesReceived = 0;
  for (const Event& e : c.events) {
    if ((e.kind != "send" && e.kind != "receive") || e.failed || e.data.empty()) {
      events.push_back(e);
      continue;
    }
    Direction& direction = e.kind == "send" ? client : server;
    direction.pending += e.data;
    std::string data;
    for (std::string record = firstRecord(direction.pending); !record.empty(); record = firstRecord(direction.pending)) {
      direction.pending.erase(0, record.size());
      if (!readRecord(*suite, direction, record, &data)) {
        *why = "a record its keys do not open";
        return false;
      }
    }
    if (data.empty()) continue;
    Event plain = e;
    plain.data = data;
    plain.length = static_cast<int64_t>(data.size());
    (e.kind == "send" ? bytesSent : bytesReceived) += plain.length;
    events.push_back(plain);
  }
  c.events = events;
  c.bytesSent = bytesSent;
  c.bytesReceived = bytesReceived;
  c.encrypted = false;
  c.decrypted = true;
  return true;
}

}  // namespace talvex
