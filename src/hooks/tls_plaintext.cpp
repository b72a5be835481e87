#include "hooks/tls_plaintext.h"

#include <errno.h>

#include "config/extension_switches.h"
#include "diag/debug_log.h"
#include "hooks/message_parts.h"
#include "message/recorder_message.h"
#include "real/tls_functions.h"
#include "registry/recording_decision.h"
#include "registry/socket_registry.h"
#include "transport/agent_interface.h"
#include "transport/message_demand.h"

bool tlsSessionsSeen;
__thread TlsCallState tlsCallState __attribute__((tls_model("initial-exec")));
__thread const void* untiedTlsSession __attribute__((tls_model("initial-exec")));
__thread bool wireMessages __attribute__((tls_model("initial-exec")));

namespace {

const char* const kLibraryNames[] = {"OpenSSL", "GnuTLS"};

// OpenSSL's SSL_ERROR_SSL, SSL_ERROR_SYSCALL and SSL_ERROR_ZERO_RETURN, and the reason code of
// SSL_R_UNEXPECTED_EOF_WHILE_READING in an OpenSSL 3 error code.
const int kSslErrorSsl = 1;
const int kSslErrorSyscall = 5;
const int kSslErrorZeroReturn = 6;
const unsigned long kOpenSslReasonMask = 0x7fffff;
const unsigned long kUnexpectedEofWhileReading = 294;

// A TLS record header: content type (change cipher spec, alert, handshake, application data),
// then major version 3. A handshake record begins every conversation.
const unsigned char kHandshakeRecord = 0x16;

// The descriptor the library itself was given, when it is a socket the agent knows.
int libraryDescriptor(const void* session, TlsLibrary kind, const void* library) {
  int descriptor = -1;
  if (kind == TLS_OPENSSL) {
    SSL_get_fd_type getFd = realTls<TLS_FN_SSL_get_fd, SSL_get_fd_type>(library);
    if (getFd != nullptr) descriptor = getFd(session);
  } else {
    // A session given pointers rather than a descriptor answers with the pointer's low bits: only
    // a socket the registry knows is believed.
    gnutls_transport_get_int_type getInt = realTls<TLS_FN_gnutls_transport_get_int, gnutls_transport_get_int_type>(library);
    if (getInt != nullptr) descriptor = getInt(const_cast<void*>(session));
  }
  if (descriptor <= 0 || getSocketInfo(static_cast<unsigned>(descriptor)) == nullptr) return -1;
  return descriptor;
}

// Whether the socket's plaintext is recorded, as its records would have been. A session tied to
// no socket is recorded as a connection of its own.
bool plaintextRecorded(int socket) {
  if (socket < 0) return true;
  return shouldBeLogged(getSocketInfo(static_cast<unsigned>(socket))) == SBL_SHOULDBELOGGED;
}

}  // namespace

bool tlsPlaintextWanted() { return extensionOn(EXT_TLS_PLAINTEXT); }
bool tlsWireWanted() { return extensionOn(EXT_TLS_WIRE); }

bool leaveOutTlsRecords(SOCKETINFO* record, const char* name, int cpt, unsigned fd) {
  TlsCallState& call = tlsCallState;
  if (call.depth != 0) {
    if (tlsSessionOf(record) != call.session) tieTlsSession(record, call.session);
    call.carrier = static_cast<int>(fd);
    if (untiedTlsSession == call.session) untiedTlsSession = nullptr;
  }
  if (!tlsWireWanted()) {
    si_disp(record, DMK_INFO, "[%d]%s on %lx not logged (TLS records)", cpt, name, static_cast<unsigned long>(fd));
  }
  return true;
}

bool tieToUntiedSession(int socket, const void* bytes, size_t count) {
  if (count < 3 || socket <= 0) return false;
  unsigned char head[3];
  if (copyHostBytes(head, bytes, sizeof head, sizeof head) < sizeof head) return false;
  if (head[0] != kHandshakeRecord || head[1] != 3 || head[2] > 4) return false;
  SOCKETINFO* record = getSocketInfo(static_cast<unsigned>(socket));
  if (record == nullptr || tlsSessionOf(record) != nullptr) return false;
  tieTlsSession(record, untiedTlsSession);
  untiedTlsSession = nullptr;
  return true;
}

TlsCall::TlsCall(const void* session, TlsLibrary kind, const void* library)
    : session_(session), kind_(kind), library_(library), outermost_(tlsCallState.depth == 0), start_() {
  if (outermost_) {
    // Before the library's first socket call, which must find it set.
    if (!__atomic_load_n(&tlsSessionsSeen, __ATOMIC_RELAXED)) __atomic_store_n(&tlsSessionsSeen, true, __ATOMIC_RELAXED);
    tlsCallState.session = session;
    tlsCallState.carrier = -1;
    start_ = beginCall();
  }
  ++tlsCallState.depth;
}

TlsCall::~TlsCall() {
  --tlsCallState.depth;
  if (!outermost_) return;
  tlsCallState.session = nullptr;
  // A session that used no socket in this call and has none known may be over memory buffers:
  // its records leave through the socket this thread sends them on next.
  if (tlsCallState.carrier < 0 && socketOfTlsSession(session_) < 0) {
    const int error = errno;
    if (libraryDescriptor(session_, kind_, library_) < 0) untiedTlsSession = session_;
    errno = error;
  }
}

int TlsCall::carrier() {
  if (tlsCallState.carrier > 0) return tlsCallState.carrier;
  int socket = socketOfTlsSession(session_);
  if (socket > 0) return socket;
  socket = libraryDescriptor(session_, kind_, library_);
  if (socket > 0) tieTlsSession(getSocketInfo(static_cast<unsigned>(socket)), session_);
  return socket;
}

void TlsCall::sent(const void* buffer, size_t asked, size_t sent) {
  if (!outermost_ || sent == 0) return;
  const int error = errno;
  const int socket = carrier();
  if (messageWorthBuilding(sent) && plaintextRecorded(socket)) {
    RecorderMessage message(RMT_SEND, start_.cpt);
    setSendHead(message, start_, socket);
    setMessageData(message, buffer, sent);
    message.set(RMA_LENGTH, static_cast<unsigned>(asked));
    message.set(RMA_RETURN, static_cast<int>(sent));
    message.set(RMA_ERROR, 0);
    message.set(RMA_TLS, kLibraryNames[kind_], 0);
    sendToRecorder(message);
  }
  errno = error;
}

void TlsCall::received(const void* buffer, size_t got) {
  if (got != 0) receiveMessage(buffer, got);
}

void TlsCall::ended() { receiveMessage(nullptr, 0); }

// A receive of `got` bytes; of none, the end of the peer's side.
void TlsCall::receiveMessage(const void* buffer, size_t got) {
  if (!outermost_) return;
  const int error = errno;
  const int socket = carrier();
  if (messageWorthBuilding(got) && plaintextRecorded(socket)) {
    RecorderMessage message(RMT_RECEIVE, start_.cpt);
    setReceiveHead(message, start_.ticket, socket);
    if (got != 0) setMessageData(message, buffer, got);
    message.set(RMA_LENGTH, static_cast<int>(got));
    message.set(RMA_RETURN, static_cast<int>(got));
    message.set(RMA_ERROR, 0);
    message.set(RMA_TLS, kLibraryNames[kind_], 0);
    sendToRecorder(message);
  }
  errno = error;
}

bool openSslReadEnded(const void* ssl, int result, const void* library) {
  if (result > 0) return false;
  const int error = errno;
  SSL_get_error_type getError = realTls<TLS_FN_SSL_get_error, SSL_get_error_type>(library);
  const int kind = getError != nullptr ? getError(ssl, result) : 0;
  bool ended = kind == kSslErrorZeroReturn || (kind == kSslErrorSyscall && error == 0);
  if (kind == kSslErrorSsl) {
    // OpenSSL 3 reports the stream's end without a closing alert as an error of its own, which it
    // leaves on its queue: looked at, not taken.
    ERR_peek_error_type peek = realTls<TLS_FN_ERR_peek_error, ERR_peek_error_type>(library);
    ended = peek != nullptr && (peek() & kOpenSslReasonMask) == kUnexpectedEofWhileReading;
  }
  errno = error;
  return ended;
}
