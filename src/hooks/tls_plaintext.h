// The TLS plaintext extension (TALVEX_SOCKET_AGENT_TLS_PLAINTEXT): on a TLS connection the send
// and receive messages carry what the program handed to its TLS library and what it got back,
// with a "tls" attribute naming the library, instead of the records on the wire.
//
// The agent stands in for the library's calls (interpose/tls_exports.cpp). Around the outermost
// one on a thread it keeps the session the thread is in; a socket call the library makes meanwhile
// ties the socket to that session (registry/tls_ties.h) and is not recorded: it moves records.
// The plaintext then goes out as the tied socket's message. A session over memory buffers makes
// no socket call of its own: the socket its thread next sends a handshake record on carries it.
#pragma once

#include <stddef.h>
#include <sys/types.h>
#include <sys/uio.h>

#include "base/counters.h"
#include "message/recorder_vocabulary.h"
#include "hooks/handler_support.h"
#include "registry/tls_ties.h"

struct SOCKETINFO;

enum TlsLibrary { TLS_OPENSSL, TLS_GNUTLS };

// The outermost TLS call this thread is in: its session, the socket it was seen to use (-1: none
// yet), how deep the library's calls into its own hooked functions go.
struct TlsCallState {
  const void* session;
  int carrier;
  unsigned depth;
};

// Whether this process has made a TLS call the agent records: until then no socket carries a
// session, and the data handlers' question below costs one load.
extern bool tlsSessionsSeen;

// initial-exec, as the re-entry guard's: the agent is preloaded.
extern __thread TlsCallState tlsCallState __attribute__((tls_model("initial-exec")));
// A session of this thread whose socket is not known yet.
extern __thread const void* untiedTlsSession __attribute__((tls_model("initial-exec")));

bool tlsPlaintextWanted();
// Whether the records left out are recorded as well, as "wiresend" and "wirereceive" messages
// (TALVEX_SOCKET_AGENT_TLS_WIRE): for a reader who wants both the conversation and the wire.
bool tlsWireWanted();

// Set while a data handler records a TLS connection's records: its messages take the wire kinds.
extern __thread bool wireMessages __attribute__((tls_model("initial-exec")));

class WireMessages {
 public:
  explicit WireMessages(bool on) : on_(on) {
    if (on_) wireMessages = true;
  }
  ~WireMessages() {
    if (on_) wireMessages = false;
  }
  WireMessages(const WireMessages&) = delete;
  WireMessages& operator=(const WireMessages&) = delete;

 private:
  bool on_;
};

// The kind of a data message: a send or receive, or, for records, their wire kinds.
inline RecorderMessageKind dataKind(RecorderMessageKind kind) {
  if (!wireMessages) return kind;
  return kind == RMT_SEND ? RMT_WIRESEND : RMT_WIRERECEIVE;
}

// For a data call on a socket the agent records: whether its bytes are TLS records, to be left
// out (the library's own socket call, or one on a socket that carries a session). Says so in the
// log and learns the tie. Inline, for the cost of every recorded call when TLS is not involved.
bool leaveOutTlsRecords(SOCKETINFO* record, const char* name, int cpt, unsigned fd);
inline bool tlsRecordsLeftOut(SOCKETINFO* record, const char* name, int cpt, unsigned fd) {
  if (!__atomic_load_n(&tlsSessionsSeen, __ATOMIC_RELAXED)) return false;
  if (tlsCallState.depth == 0 && tlsSessionOf(record) == nullptr) return false;
  return leaveOutTlsRecords(record, name, cpt, fd);
}

// For a send outside any TLS call: whether it begins a handshake of this thread's untied session
// (its bytes then tie the socket to it and are not recorded).
bool tieToUntiedSession(int socket, const void* bytes, size_t count);
inline bool tlsHandshakeStartsOn(int socket, const void* bytes, size_t count) {
  return untiedTlsSession != nullptr && tieToUntiedSession(socket, bytes, count);
}
inline bool tlsHandshakeStartsOn(int socket, const iovec* vectors, int count, ssize_t sent) {
  if (untiedTlsSession == nullptr || vectors == nullptr || count < 1) return false;
  const size_t first = vectors[0].iov_len < static_cast<size_t>(sent) ? vectors[0].iov_len : static_cast<size_t>(sent);
  return tieToUntiedSession(socket, vectors[0].iov_base, first);
}

// One call into a TLS library, from the agent's stand-in for it. Only the outermost one of a
// thread records (`recording()`); the library's calls into its own hooked functions pass through.
// Neither the library's result nor errno is touched by what it records. What records runs inside
// the agent (the caller holds its scope): a signal handler's socket call meanwhile must not wait
// on the transport it uses.
class TlsCall {
 public:
  // `library`: the library's function being called, beside which its others are looked up.
  TlsCall(const void* session, TlsLibrary kind, const void* library);
  ~TlsCall();
  TlsCall(const TlsCall&) = delete;
  TlsCall& operator=(const TlsCall&) = delete;

  bool recording() const { return outermost_; }
  const void* library() const { return library_; }
  // The library took `sent` bytes of the `asked` at `buffer`.
  void sent(const void* buffer, size_t asked, size_t sent);
  // The library gave `got` bytes into `buffer`.
  void received(const void* buffer, size_t got);
  // The peer ended its side of the conversation (a closing alert, or the end of the stream).
  void ended();

 private:
  int carrier();
  void receiveMessage(const void* buffer, size_t got);

  const void* session_;
  TlsLibrary kind_;
  const void* library_;
  bool outermost_;
  CallStart start_;
};

// Whether an OpenSSL read that gave `result` (0 or less) ended the peer's side; `library` as
// TlsCall's.
bool openSslReadEnded(const void* ssl, int result, const void* library);
