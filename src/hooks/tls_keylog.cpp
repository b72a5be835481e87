#include "hooks/tls_keylog.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "config/tls_keylog_file.h"
#include "message/recorder_vocabulary.h"
#include "real/real_functions.h"

namespace {

// The program's own callbacks, by the context or session they were set on: a table without a
// lock, as the library may call back from any thread and a signal handler may make a session.
// A full neighbourhood leaves the agent's callback off that owner, and the program's in place.
struct ChainSlot {
  const void* owner;
  void* callback;
};
const unsigned kSlots = 1024;
const unsigned kProbes = 16;
ChainSlot chain[kSlots];

unsigned slotIndex(const void* owner, unsigned probe) {
  const uintptr_t bits = reinterpret_cast<uintptr_t>(owner);
  return static_cast<unsigned>((bits >> 4 ^ bits >> 14) + probe) % kSlots;
}

ChainSlot* findSlot(const void* owner, bool claim) {
  for (unsigned probe = 0; probe < kProbes; ++probe) {
    ChainSlot& slot = chain[slotIndex(owner, probe)];
    const void* held = __atomic_load_n(&slot.owner, __ATOMIC_ACQUIRE);
    if (held == owner) return &slot;
    if (held == nullptr && claim) {
      const void* expected = nullptr;
      if (__atomic_compare_exchange_n(&slot.owner, &expected, owner, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE) ||
          expected == owner) {
        return &slot;
      }
    }
  }
  return nullptr;
}

bool remember(const void* owner, void* callback) {
  ChainSlot* slot = findSlot(owner, true);
  if (slot == nullptr) return false;
  __atomic_store_n(&slot->callback, callback, __ATOMIC_RELEASE);
  return true;
}

void* recall(const void* owner) {
  ChainSlot* slot = findSlot(owner, false);
  return slot != nullptr ? __atomic_load_n(&slot->callback, __ATOMIC_ACQUIRE) : nullptr;
}

// One line appended to the key log, opened for it alone: the agent keeps no descriptor that the
// program could meet. O_APPEND keeps lines of several processes and threads whole.
void appendLine(const char* text, size_t length) {
  const char* file = tlsKeylogFile();
  if (file == nullptr) return;
  const int error = errno;
  const int fd = open(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600);
  if (fd >= 0) {
    True_write(fd, text, length);
    True_close(fd);
  }
  errno = error;
}

typedef void (*OpenSslKeylogCallback)(const void* ssl, const char* line);
typedef int (*GnuTlsKeylogFunction)(void* session, const char* label, const void* secret);

// GnuTLS's gnutls_datum_t.
struct Datum {
  unsigned char* data;
  unsigned int size;
};

// The library calls the agent's callbacks from its own code: the functions they need are looked
// up in the scope of the library that called, as the stand-ins look theirs up in their caller's.
void openSslLine(const void* ssl, const char* line) {
  const void* library = __builtin_return_address(0);
  char text[1024];
  const size_t length = strnlen(line, sizeof text - 1);
  memcpy(text, line, length);
  text[length] = '\n';
  appendLine(text, length + 1);
  SSL_get_SSL_CTX_type context = realTls<TLS_FN_SSL_get_SSL_CTX, SSL_get_SSL_CTX_type>(library);
  OpenSslKeylogCallback program =
      context != nullptr ? reinterpret_cast<OpenSslKeylogCallback>(recall(context(ssl))) : nullptr;
  if (program != nullptr) program(ssl, line);
}

void appendHex(char*& out, const unsigned char* bytes, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    *out++ = HexaTable[bytes[i] >> 4];
    *out++ = HexaTable[bytes[i] & 15];
  }
}

int gnuTlsSecret(void* session, const char* label, const void* secret) {
  gnutls_session_get_random_type random = realTls<TLS_FN_gnutls_session_get_random, gnutls_session_get_random_type>(
      __builtin_return_address(0));
  const Datum* value = static_cast<const Datum*>(secret);
  if (random != nullptr && value != nullptr && label != nullptr) {
    Datum client = {nullptr, 0};
    Datum server = {nullptr, 0};
    random(session, &client, &server);
    // A label, the client's 32 random bytes and a secret of at most 64 bytes, in hexadecimal.
    char text[64 + 1 + 2 * 32 + 1 + 2 * 64 + 1];
    const size_t labelLength = strnlen(label, 64);
    if (client.size == 32 && value->size <= 64) {
      char* out = text;
      memcpy(out, label, labelLength);
      out += labelLength;
      *out++ = ' ';
      appendHex(out, client.data, client.size);
      *out++ = ' ';
      appendHex(out, value->data, value->size);
      *out++ = '\n';
      appendLine(text, static_cast<size_t>(out - text));
    }
  }
  GnuTlsKeylogFunction program = reinterpret_cast<GnuTlsKeylogFunction>(recall(session));
  return program != nullptr ? program(session, label, secret) : 0;
}

void* const kOpenSslLine = reinterpret_cast<void*>(&openSslLine);
void* const kGnuTlsSecret = reinterpret_cast<void*>(&gnuTlsSecret);

}  // namespace

bool tlsKeylogWanted() { return tlsKeylogFile() != nullptr; }

void watchOpenSslContext(void* context, const void* library) {
  auto get = realTls<TLS_FN_SSL_CTX_get_keylog_callback, SSL_CTX_get_keylog_callback_type>(library);
  auto set = realTls<TLS_FN_SSL_CTX_set_keylog_callback, SSL_CTX_set_keylog_callback_type>(library);
  if (context == nullptr || get == nullptr || set == nullptr ||
      realTls<TLS_FN_SSL_get_SSL_CTX, SSL_get_SSL_CTX_type>(library) == nullptr) {
    return;
  }
  void* held = get(context);
  if (held == kOpenSslLine) return;
  // A context made at an address a freed one had starts with the callback the program gave it.
  if (remember(context, held)) set(context, kOpenSslLine);
}

void chainOpenSslCallback(void* context, void* callback, const void* library) {
  auto set = realTls<TLS_FN_SSL_CTX_set_keylog_callback, SSL_CTX_set_keylog_callback_type>(library);
  if (set == nullptr) return;
  set(context, remember(context, callback) ? kOpenSslLine : callback);
}

void* programOpenSslCallback(const void* context, void* held) { return held == kOpenSslLine ? recall(context) : held; }

void watchGnuTlsSession(void* session, const void* library) {
  auto get = realTls<TLS_FN_gnutls_session_get_keylog_function, gnutls_session_get_keylog_function_type>(library);
  auto set = realTls<TLS_FN_gnutls_session_set_keylog_function, gnutls_session_set_keylog_function_type>(library);
  if (session == nullptr || get == nullptr || set == nullptr ||
      realTls<TLS_FN_gnutls_session_get_random, gnutls_session_get_random_type>(library) == nullptr) {
    return;
  }
  void* held = get(session);
  if (held == kGnuTlsSecret) return;
  if (remember(session, held)) set(session, kGnuTlsSecret);
}

void chainGnuTlsFunction(void* session, void* function, const void* library) {
  auto set = realTls<TLS_FN_gnutls_session_set_keylog_function, gnutls_session_set_keylog_function_type>(library);
  if (set == nullptr) return;
  set(session, remember(session, function) ? kGnuTlsSecret : function);
}

void* programGnuTlsFunction(const void* session, void* held) { return held == kGnuTlsSecret ? recall(session) : held; }
