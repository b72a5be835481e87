#include "tls_decryption.h"

#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <stdint.h>
#include <stdio.h>

#include <memory>
#include <vector>

namespace talvex {

namespace {

// The cipher suites read: TLS 1.3's, and TLS 1.2's with the same AEADs. The hash of their key
// schedule, their AEAD, its key length, and the length of the IV the key schedule gives (TLS 1.2's
// AES-GCM takes 4 bytes from it and 8 from each record).
struct Suite {
  uint16_t id;
  bool tls13;
  const EVP_MD* (*hash)();
  const EVP_CIPHER* (*cipher)();
  size_t keyLength;
  size_t ivLength;
};

const Suite kSuites[] = {
    {0x1301, true, &EVP_sha256, &EVP_aes_128_gcm, 16, 12},
    {0x1302, true, &EVP_sha384, &EVP_aes_256_gcm, 32, 12},
    {0x1303, true, &EVP_sha256, &EVP_chacha20_poly1305, 32, 12},
    {0xc02b, false, &EVP_sha256, &EVP_aes_128_gcm, 16, 4},  // ECDHE-ECDSA-AES128-GCM-SHA256
    {0xc02f, false, &EVP_sha256, &EVP_aes_128_gcm, 16, 4},  // ECDHE-RSA-AES128-GCM-SHA256
    {0x009e, false, &EVP_sha256, &EVP_aes_128_gcm, 16, 4},  // DHE-RSA-AES128-GCM-SHA256
    {0xc02c, false, &EVP_sha384, &EVP_aes_256_gcm, 32, 4},  // ECDHE-ECDSA-AES256-GCM-SHA384
    {0xc030, false, &EVP_sha384, &EVP_aes_256_gcm, 32, 4},  // ECDHE-RSA-AES256-GCM-SHA384
    {0x009f, false, &EVP_sha384, &EVP_aes_256_gcm, 32, 4},  // DHE-RSA-AES256-GCM-SHA384
    {0xcca8, false, &EVP_sha256, &EVP_chacha20_poly1305, 32, 12},  // ECDHE-RSA-CHACHA20-POLY1305
    {0xcca9, false, &EVP_sha256, &EVP_chacha20_poly1305, 32, 12},  // ECDHE-ECDSA-CHACHA20-POLY1305
    {0xccaa, false, &EVP_sha256, &EVP_chacha20_poly1305, 32, 12},  // DHE-RSA-CHACHA20-POLY1305
};

const size_t kRecordHeader = 5;
const size_t kRandomLength = 32;
const size_t kTagLength = 16;
const size_t kIvLength = 12;
const unsigned char kChangeCipherSpec = 20;
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

// TLS 1.2's key block: PRF(master secret, "key expansion", server random + client random).
bool keyBlock(const EVP_MD* hash, const std::string& master, const std::string& seed, size_t length, std::string* out) {
  const std::string label = "key expansion";
  std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(EVP_PKEY_CTX_new_id(EVP_PKEY_TLS1_PRF, nullptr),
                                                                      &EVP_PKEY_CTX_free);
  out->assign(length, '\0');
  size_t written = length;
  return context != nullptr && EVP_PKEY_derive_init(context.get()) > 0 &&
         EVP_PKEY_CTX_set_tls1_prf_md(context.get(), hash) > 0 &&
         EVP_PKEY_CTX_set1_tls1_prf_secret(context.get(), bytesOf(master), static_cast<int>(master.size())) > 0 &&
         EVP_PKEY_CTX_add1_tls1_prf_seed(context.get(), bytesOf(label), static_cast<int>(label.size())) > 0 &&
         EVP_PKEY_CTX_add1_tls1_prf_seed(context.get(), bytesOf(seed), static_cast<int>(seed.size())) > 0 &&
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

// The nonce of a record: the IV with the record's sequence number folded into its last bytes.
std::string sequencedNonce(const std::string& iv, uint64_t sequence) {
  std::string nonce = iv;
  for (int i = 0; i < 8; ++i) nonce[nonce.size() - 1 - i] ^= static_cast<char>((sequence >> (8 * i)) & 0xff);
  return nonce;
}

// AEAD decryption of `sealed` with its `tag`, or false when it does not authenticate.
bool openAead(const Suite& suite, const std::string& key, const std::string& nonce, const std::string& aad,
              const std::string& sealed, std::string tag, std::string* plain) {
  std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free);
  plain->assign(sealed.size() + 16, '\0');
  int length = 0, last = 0;
  unsigned char* out = reinterpret_cast<unsigned char*>(&(*plain)[0]);
  const bool opened =
      context != nullptr && EVP_DecryptInit_ex(context.get(), suite.cipher(), nullptr, nullptr, nullptr) > 0 &&
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_IVLEN, static_cast<int>(nonce.size()), nullptr) > 0 &&
      EVP_DecryptInit_ex(context.get(), nullptr, nullptr, bytesOf(key), bytesOf(nonce)) > 0 &&
      EVP_DecryptUpdate(context.get(), nullptr, &length, bytesOf(aad), static_cast<int>(aad.size())) > 0 &&
      EVP_DecryptUpdate(context.get(), out, &length, bytesOf(sealed), static_cast<int>(sealed.size())) > 0 &&
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(kTagLength), &tag[0]) > 0 &&
      EVP_DecryptFinal_ex(context.get(), out + length, &last) > 0;
  if (!opened) return false;
  plain->resize(static_cast<size_t>(length + last));
  return true;
}

// A TLS 1.2 record's plaintext: its explicit nonce (AES-GCM) or its sequence number (ChaCha20)
// make the nonce, and its sequence number, type, version and plaintext length the associated data.
bool openRecord12(const Suite& suite, TrafficKeys& keys, const std::string& record, std::string* plain) {
  const size_t explicitNonce = suite.ivLength == 4 ? 8 : 0;
  if (!keys.ready || record.size() < kRecordHeader + explicitNonce + kTagLength) return false;
  const std::string nonce = explicitNonce != 0 ? keys.iv + record.substr(kRecordHeader, explicitNonce)
                                               : sequencedNonce(keys.iv, keys.sequence);
  const size_t sealedLength = record.size() - kRecordHeader - explicitNonce - kTagLength;
  std::string aad;
  for (int i = 7; i >= 0; --i) aad += static_cast<char>((keys.sequence >> (8 * i)) & 0xff);
  aad += record.substr(0, 3);
  aad += static_cast<char>(sealedLength >> 8);
  aad += static_cast<char>(sealedLength & 0xff);
  if (!openAead(suite, keys.key, nonce, aad, record.substr(kRecordHeader + explicitNonce, sealedLength),
                record.substr(record.size() - kTagLength), plain)) {
    return false;
  }
  ++keys.sequence;
  return true;
}

// A TLS 1.3 record's inner plaintext (its content, then its type, then padding), or false when the
// keys do not open it.
bool openRecord(const Suite& suite, TrafficKeys& keys, const std::string& record, std::string* inner) {
  if (!keys.ready || record.size() < kRecordHeader + kTagLength) return false;
  if (!openAead(suite, keys.key, sequencedNonce(keys.iv, keys.sequence), record.substr(0, kRecordHeader),
                record.substr(kRecordHeader, record.size() - kRecordHeader - kTagLength),
                record.substr(record.size() - kTagLength), inner)) {
    return false;
  }
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
  bool inApplicationPhase = false;  // TLS 1.3: the handshake's own records are over
  bool encrypted = false;           // TLS 1.2: its ChangeCipherSpec has passed
};

// The application data of one whole record, appended to `data`. False when a record under
// encryption cannot be opened.
bool readRecord(const Suite& suite, Direction& direction, const std::string& record, std::string* data) {
  const unsigned char outerType = static_cast<unsigned char>(record[0]);
  if (!suite.tls13) {
    // Everything after the sender's ChangeCipherSpec is encrypted, its Finished first.
    if (outerType == kChangeCipherSpec) {
      direction.encrypted = true;
      return true;
    }
    if (!direction.encrypted) return true;
    std::string plain;
    if (!openRecord12(suite, direction.application, record, &plain)) return false;
    if (outerType == kApplicationData) *data += plain;
    return true;
  }
  if (outerType != kApplicationData) return true;  // in the clear: the hellos, alerts
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
    *why = "a cipher suite other than the AEADs of TLS 1.3 and 1.2";
    return false;
  }
  Direction client, server;
  if (!suite->tls13) {
    // TLS 1.2: the master secret, and from it one key and IV a direction.
    const std::string master = keys.secret(clientRandom, "CLIENT_RANDOM");
    const std::string serverRandom = serverHello.substr(randomAt, kRandomLength);
    std::string block;
    const size_t k = suite->keyLength, v = suite->ivLength;
    if (master.empty() || !keyBlock(suite->hash(), master, serverRandom + clientRandom, 2 * k + 2 * v, &block)) {
      *why = "the key log has no secrets of its session";
      return false;
    }
    client.application.key = block.substr(0, k);
    server.application.key = block.substr(k, k);
    client.application.iv = block.substr(2 * k, v);
    server.application.iv = block.substr(2 * k + v, v);
    client.application.ready = server.application.ready = true;
  } else if (!client.handshake.derive(*suite, keys.secret(clientRandom, "CLIENT_HANDSHAKE_TRAFFIC_SECRET")) ||
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
