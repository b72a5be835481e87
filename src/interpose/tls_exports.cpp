// The TLS libraries' functions the host binds to instead of the libraries' own (see
// hooks/tls_plaintext.h). With the extension off each one only passes the call on; a program that
// loads no TLS library never reaches them.
#include <errno.h>
#include <stddef.h>
#include <sys/types.h>

#include "base/export_visibility.h"
#include "base/process_identity.h"
#include "hooks/tls_keylog.h"
#include "hooks/tls_plaintext.h"
#include "interpose/reentry_guard.h"
#include "interpose/tls_stand_ins.h"
#include "real/dlsym_bootstrap.h"
#include "real/tls_functions.h"
#include "startup/agent_startup.h"

namespace {

// Whether a call into a TLS library may be looked at: not one made while the agent is at work on
// this thread. The process's first call the agent sees starts it.
bool agentReady() {
  if (insideAgent()) return false;
  if (globalInit == 0 || socketInitialized == 0) {
    AgentScope scope;
    const int callerErrno = errno;
    if (globalInit == 0) {
      GlobalInit();
      waitForStartupElsewhere();
    }
    if (socketInitialized == 0) initializeSocketPointers();
    errno = callerErrno;
  }
  return true;
}

bool tlsCallRecorded() { return agentReady() && tlsPlaintextWanted(); }
bool keysLogged() { return agentReady() && tlsKeylogWanted(); }

// The agent's own work after a library call: inside the agent, the program's errno kept.
template <class Work>
void asAgent(Work work) {
  const int error = errno;
  AgentScope scope;
  work();
  errno = error;
}

// Every stand-in: the library's own function, called straight when the call is not recorded, and
// otherwise inside a TlsCall, after which `record` looks at the result. A library the agent cannot
// find (no program calls a function its scope lacks) gives -1, an error in both libraries.
template <class Result, TlsFunction function, class Record, class... Arguments>
Result throughLibrary(const void* caller, const void* session, TlsLibrary library, Record record,
                      Arguments... arguments) {
  typedef Result (*Real)(Arguments...);
  Real real = reinterpret_cast<Real>(tlsFunction(function, caller));
  if (real == nullptr) return static_cast<Result>(-1);
  tlsLibraryEntered = reinterpret_cast<const void*>(real);
  if (!tlsCallRecorded()) return real(arguments...);
  // The library's other functions are looked up beside the one called.
  TlsCall call(session, library, reinterpret_cast<const void*>(real));
  const Result result = real(arguments...);
  if (call.recording()) asAgent([&] { record(call, result); });
  return result;
}

// A setter of the program's key-log callback (on an OpenSSL context, a GnuTLS session): while
// keys are logged, the program's callback is chained behind the agent's.
template <TlsFunction function>
void setKeylogCallback(const void* caller, void* owner, void* callback, void (*chain)(void*, void*, const void*)) {
  typedef void (*Setter)(void*, void*);
  Setter real = reinterpret_cast<Setter>(tlsFunction(function, caller));
  if (real == nullptr) return;
  if (!keysLogged()) return real(owner, callback);
  asAgent([&] { chain(owner, callback, reinterpret_cast<const void*>(real)); });
}

// The matching getter: the program's own callback, not the agent's.
template <TlsFunction function>
void* keylogCallback(const void* caller, const void* owner, void* (*programs)(const void*, void*)) {
  typedef void* (*Getter)(const void*);
  Getter real = reinterpret_cast<Getter>(tlsFunction(function, caller));
  return real != nullptr ? programs(owner, real(owner)) : nullptr;
}

// A call that moves only records (a handshake, a peek, an alert): its socket calls are left out.
template <class Result>
void nothingToRecord(TlsCall&, Result) {}

// The byte count an OpenSSL _ex call left in the caller's variable, read only once it succeeded.
size_t countOf(int result, const size_t* count) { return result == 1 && count != nullptr ? *count : 0; }

// GnuTLS's GNUTLS_E_PREMATURE_TERMINATION.
const ssize_t kPrematureTermination = -110;

// What a GnuTLS receive gave: bytes, or with 0 the end of the peer's side (its closing alert, or
// the stream's end where the session allows one without), as with GNUTLS_E_PREMATURE_TERMINATION
// (the stream's end where it does not).
void gnuTlsReceived(TlsCall& call, const void* data, ssize_t result) {
  if (result > 0) {
    call.received(data, static_cast<size_t>(result));
  } else if (result == 0 || result == kPrematureTermination) {
    call.ended();
  }
}

#define TALVEX_CALLER __builtin_return_address(0)

// Each stand-in is a hidden function with the exported name as its alias, as the socket exports
// are: the twin's address is the agent's own, which the exported dlsym hands out.
#define TALVEX_TLS_TWIN __attribute__((visibility("hidden")))

}  // namespace

extern "C" {

TALVEX_TLS_TWIN int talvexTls_SSL_write(void* ssl, const void* buffer, int count) {
  return throughLibrary<int, TLS_FN_SSL_write>(
      TALVEX_CALLER, ssl, TLS_OPENSSL,
      [&](TlsCall& call, int result) {
        if (result > 0) call.sent(buffer, static_cast<size_t>(count), static_cast<size_t>(result));
      },
      ssl, buffer, count);
}

TALVEX_TLS_TWIN int talvexTls_SSL_write_ex(void* ssl, const void* buffer, size_t count, size_t* written) {
  return throughLibrary<int, TLS_FN_SSL_write_ex>(
      TALVEX_CALLER, ssl, TLS_OPENSSL,
      [&](TlsCall& call, int result) { call.sent(buffer, count, countOf(result, written)); }, ssl, buffer, count,
      written);
}

TALVEX_TLS_TWIN int talvexTls_SSL_write_early_data(void* ssl, const void* buffer, size_t count, size_t* written) {
  return throughLibrary<int, TLS_FN_SSL_write_early_data>(
      TALVEX_CALLER, ssl, TLS_OPENSSL,
      [&](TlsCall& call, int result) { call.sent(buffer, count, countOf(result, written)); }, ssl, buffer, count,
      written);
}

TALVEX_TLS_TWIN int talvexTls_SSL_read(void* ssl, void* buffer, int count) {
  return throughLibrary<int, TLS_FN_SSL_read>(
      TALVEX_CALLER, ssl, TLS_OPENSSL,
      [&](TlsCall& call, int result) {
        if (result > 0) {
          call.received(buffer, static_cast<size_t>(result));
        } else if (openSslReadEnded(ssl, result, call.library())) {
          call.ended();
        }
      },
      ssl, buffer, count);
}

TALVEX_TLS_TWIN int talvexTls_SSL_read_ex(void* ssl, void* buffer, size_t count, size_t* got) {
  return throughLibrary<int, TLS_FN_SSL_read_ex>(
      TALVEX_CALLER, ssl, TLS_OPENSSL,
      [&](TlsCall& call, int result) {
        if (result == 1) {
          call.received(buffer, countOf(result, got));
        } else if (openSslReadEnded(ssl, result, call.library())) {
          call.ended();
        }
      },
      ssl, buffer, count, got);
}

// 1 is SSL_READ_EARLY_DATA_SUCCESS: bytes were read. The other outcomes read none.
TALVEX_TLS_TWIN int talvexTls_SSL_read_early_data(void* ssl, void* buffer, size_t count, size_t* got) {
  return throughLibrary<int, TLS_FN_SSL_read_early_data>(
      TALVEX_CALLER, ssl, TLS_OPENSSL,
      [&](TlsCall& call, int result) { call.received(buffer, countOf(result, got)); }, ssl, buffer, count, got);
}

// A peek leaves the bytes for the read that consumes them: only that read records them.
TALVEX_TLS_TWIN int talvexTls_SSL_peek(void* ssl, void* buffer, int count) {
  return throughLibrary<int, TLS_FN_SSL_peek>(TALVEX_CALLER, ssl, TLS_OPENSSL, nothingToRecord<int>, ssl, buffer,
                                             count);
}

TALVEX_TLS_TWIN int talvexTls_SSL_peek_ex(void* ssl, void* buffer, size_t count, size_t* got) {
  return throughLibrary<int, TLS_FN_SSL_peek_ex>(TALVEX_CALLER, ssl, TLS_OPENSSL, nothingToRecord<int>, ssl, buffer,
                                                count, got);
}

TALVEX_TLS_TWIN int talvexTls_SSL_do_handshake(void* ssl) {
  return throughLibrary<int, TLS_FN_SSL_do_handshake>(TALVEX_CALLER, ssl, TLS_OPENSSL, nothingToRecord<int>, ssl);
}

TALVEX_TLS_TWIN int talvexTls_SSL_connect(void* ssl) {
  return throughLibrary<int, TLS_FN_SSL_connect>(TALVEX_CALLER, ssl, TLS_OPENSSL, nothingToRecord<int>, ssl);
}

TALVEX_TLS_TWIN int talvexTls_SSL_accept(void* ssl) {
  return throughLibrary<int, TLS_FN_SSL_accept>(TALVEX_CALLER, ssl, TLS_OPENSSL, nothingToRecord<int>, ssl);
}

TALVEX_TLS_TWIN int talvexTls_SSL_shutdown(void* ssl) {
  return throughLibrary<int, TLS_FN_SSL_shutdown>(TALVEX_CALLER, ssl, TLS_OPENSSL, nothingToRecord<int>, ssl);
}

TALVEX_TLS_TWIN ssize_t talvexTls_gnutls_record_send(void* session, const void* data, size_t size) {
  return throughLibrary<ssize_t, TLS_FN_gnutls_record_send>(
      TALVEX_CALLER, session, TLS_GNUTLS,
      [&](TlsCall& call, ssize_t result) {
        if (result > 0) call.sent(data, size, static_cast<size_t>(result));
      },
      session, data, size);
}

TALVEX_TLS_TWIN ssize_t talvexTls_gnutls_record_send2(void* session, const void* data, size_t size, size_t pad, unsigned flags) {
  return throughLibrary<ssize_t, TLS_FN_gnutls_record_send2>(
      TALVEX_CALLER, session, TLS_GNUTLS,
      [&](TlsCall& call, ssize_t result) {
        if (result > 0) call.sent(data, size, static_cast<size_t>(result));
      },
      session, data, size, pad, flags);
}

TALVEX_TLS_TWIN ssize_t talvexTls_gnutls_record_send_range(void* session, const void* data, size_t size, const void* range) {
  return throughLibrary<ssize_t, TLS_FN_gnutls_record_send_range>(
      TALVEX_CALLER, session, TLS_GNUTLS,
      [&](TlsCall& call, ssize_t result) {
        if (result > 0) call.sent(data, size, static_cast<size_t>(result));
      },
      session, data, size, range);
}

TALVEX_TLS_TWIN ssize_t talvexTls_gnutls_record_recv(void* session, void* data, size_t size) {
  return throughLibrary<ssize_t, TLS_FN_gnutls_record_recv>(
      TALVEX_CALLER, session, TLS_GNUTLS,
      [&](TlsCall& call, ssize_t result) { gnuTlsReceived(call, data, result); },
      session, data, size);
}

TALVEX_TLS_TWIN ssize_t talvexTls_gnutls_record_recv_seq(void* session, void* data, size_t size, unsigned char* sequence) {
  return throughLibrary<ssize_t, TLS_FN_gnutls_record_recv_seq>(
      TALVEX_CALLER, session, TLS_GNUTLS,
      [&](TlsCall& call, ssize_t result) { gnuTlsReceived(call, data, result); },
      session, data, size, sequence);
}

TALVEX_TLS_TWIN int talvexTls_gnutls_handshake(void* session) {
  return throughLibrary<int, TLS_FN_gnutls_handshake>(TALVEX_CALLER, session, TLS_GNUTLS, nothingToRecord<int>,
                                                      session);
}

TALVEX_TLS_TWIN int talvexTls_gnutls_bye(void* session, int how) {
  return throughLibrary<int, TLS_FN_gnutls_bye>(TALVEX_CALLER, session, TLS_GNUTLS, nothingToRecord<int>, session,
                                                how);
}

// Corked sends were recorded when the program made them; uncorking only moves their records.
TALVEX_TLS_TWIN int talvexTls_gnutls_record_uncork(void* session, unsigned flags) {
  return throughLibrary<int, TLS_FN_gnutls_record_uncork>(TALVEX_CALLER, session, TLS_GNUTLS,
                                                          nothingToRecord<int>, session, flags);
}

TALVEX_TLS_TWIN int talvexTls_gnutls_rehandshake(void* session) {
  return throughLibrary<int, TLS_FN_gnutls_rehandshake>(TALVEX_CALLER, session, TLS_GNUTLS, nothingToRecord<int>,
                                                        session);
}

TALVEX_TLS_TWIN int talvexTls_gnutls_reauth(void* session, unsigned flags) {
  return throughLibrary<int, TLS_FN_gnutls_reauth>(TALVEX_CALLER, session, TLS_GNUTLS, nothingToRecord<int>,
                                                   session, flags);
}

TALVEX_TLS_TWIN int talvexTls_gnutls_session_key_update(void* session, unsigned flags) {
  return throughLibrary<int, TLS_FN_gnutls_session_key_update>(TALVEX_CALLER, session, TLS_GNUTLS,
                                                               nothingToRecord<int>, session, flags);
}

TALVEX_TLS_TWIN int talvexTls_gnutls_alert_send(void* session, int level, int description) {
  return throughLibrary<int, TLS_FN_gnutls_alert_send>(TALVEX_CALLER, session, TLS_GNUTLS, nothingToRecord<int>,
                                                       session, level, description);
}

// The key log's stand-ins: the agent's callback goes on every context a session is made from and
// on every GnuTLS session, and the program's own is chained behind it (see hooks/tls_keylog.h).
TALVEX_TLS_TWIN void* talvexTls_SSL_new(void* context) {
  const void* caller = TALVEX_CALLER;
  SSL_new_type real = realTls<TLS_FN_SSL_new, SSL_new_type>(caller);
  if (real == nullptr) return nullptr;
  void* ssl = real(context);
  if (ssl != nullptr && keysLogged()) asAgent([&] { watchOpenSslContext(context, reinterpret_cast<const void*>(real)); });
  return ssl;
}

TALVEX_TLS_TWIN void talvexTls_SSL_CTX_set_keylog_callback(void* context, void* callback) {
  setKeylogCallback<TLS_FN_SSL_CTX_set_keylog_callback>(TALVEX_CALLER, context, callback, &chainOpenSslCallback);
}

TALVEX_TLS_TWIN void* talvexTls_SSL_CTX_get_keylog_callback(const void* context) {
  return keylogCallback<TLS_FN_SSL_CTX_get_keylog_callback>(TALVEX_CALLER, context, &programOpenSslCallback);
}

TALVEX_TLS_TWIN int talvexTls_gnutls_init(void** session, unsigned flags) {
  const void* caller = TALVEX_CALLER;
  gnutls_init_type real = realTls<TLS_FN_gnutls_init, gnutls_init_type>(caller);
  if (real == nullptr) return -1;
  const int result = real(session, flags);
  if (result == 0 && session != nullptr && keysLogged()) {
    asAgent([&] { watchGnuTlsSession(*session, reinterpret_cast<const void*>(real)); });
  }
  return result;
}

TALVEX_TLS_TWIN void talvexTls_gnutls_session_set_keylog_function(void* session, void* function) {
  setKeylogCallback<TLS_FN_gnutls_session_set_keylog_function>(TALVEX_CALLER, session, function, &chainGnuTlsFunction);
}

TALVEX_TLS_TWIN void* talvexTls_gnutls_session_get_keylog_function(const void* session) {
  return keylogCallback<TLS_FN_gnutls_session_get_keylog_function>(TALVEX_CALLER, session, &programGnuTlsFunction);
}

#define TALVEX_TLS_ALIAS(result, name, parameters, arguments) \
  TALVEX_EXPORT result name parameters __attribute__((alias("talvexTls_" #name)));
TALVEX_TLS_STAND_INS(TALVEX_TLS_ALIAS)
#undef TALVEX_TLS_ALIAS

}  // extern "C"

namespace {

struct StandIn {
  const char* name;
  void* address;
};

#define TALVEX_TLS_STAND_IN(result, name, parameters, arguments) {#name, reinterpret_cast<void*>(&talvexTls_##name)},
const StandIn standIns[] = {TALVEX_TLS_STAND_INS(TALVEX_TLS_STAND_IN)};
#undef TALVEX_TLS_STAND_IN

}  // namespace

// Compared by hand: the exported dlsym asks, and may run while a sanitizer runtime starts.
TALVEX_BEFORE_SANITIZERS void* tlsStandIn(const char* name) {
  for (const StandIn& standIn : standIns) {
    const char* a = standIn.name;
    const char* b = name;
    while (*a != '\0' && *a == *b) {
      ++a;
      ++b;
    }
    if (*a == *b) return standIn.address;
  }
  return nullptr;
}
