// The send and receive messages every data handler builds, whichever entry point moved the
// bytes: send, write and writev are all sends to the recorder, recv, read and readv receives.
#pragma once

#include <stddef.h>
#include <sys/socket.h>
#include <sys/types.h>

#include "hooks/handler_support.h"
#include "hooks/tls_plaintext.h"
#include "hooks/unrecorded_sockets.h"
#include "real/real_functions.h"
#include "registry/recording_decision.h"
#include "socks/socks_routing.h"

class HostVectors;
struct SOCKETINFO;

void logNotRecorded(SOCKETINFO* record, const char* name, int cpt, unsigned fd, int reason);

// How every data handler begins on a socket: its start drawn, any SOCKS connect of the socket
// waited for, and its call line written.
inline CallStart startDataCall(SOCKETINFO* record, const char* name, unsigned fd) {
  const CallStart start = beginCall();
  waitConnectionDone(record, start.cpt);
  si_disp(record, DMK_CALL, "[%d]%s \tsocket : %lx", start.cpt, name, static_cast<unsigned long>(fd));
  return start;
}

// How every data handler ends, after its outcome line: a call that is to be recorded goes to
// `recordIt`, one that is not says why in the log; then the host gets the C library's errno back.
template <class Record>
void recordOrSayWhyNot(SOCKETINFO* record, const char* name, int cpt, unsigned fd, int error, Record recordIt) {
  const int reason = shouldBeLogged(record);
  if (reason == SBL_SHOULDBELOGGED) {
    // A socket's share of a TLS conversation is its plaintext, recorded where the program hands it
    // to the library (see tls_plaintext.h), not the records the library makes of it.
    if (!tlsRecordsLeftOut(record, name, cpt, fd)) {
      recordIt();
    } else if (tlsWireWanted()) {
      WireMessages wire(true);
      recordIt();
    }
  } else {
    logNotRecorded(record, name, cpt, fd, reason);
    noticeUnrecordedSocket(record, fd, reason);
  }
  restoreErrorCode(error);
}

// A send-like call's destination, for sendto.
struct SendDestination {
  bool possibleUdp;
  const sockaddr* address;
  socklen_t length;
};

// A receive-like call's source, for recvfrom.
struct ReceiveSource {
  bool possibleUdp;
  const sockaddr* address;
};

// A send of `length` bytes at `buffer` whose real call gave `result` and `error`.
void recordSend(const CallStart& start, int socket, const void* buffer, size_t length, ssize_t result, int error,
                const SendDestination* destination = nullptr);
// A send whose bytes are spread over the host's vectors (sendmsg, writev).
void recordVectorSend(const CallStart& start, int socket, const HostVectors& vectors, ssize_t result, int error);
// A receive into `buffer`, stamped now: its data arrived when the call returned.
void recordReceive(int cpt, int ticket, int socket, const void* buffer, size_t length, ssize_t result, int error,
                   const ReceiveSource* source = nullptr);
// A receive spread over the host's vectors (recvmsg, readv).
void recordVectorReceive(const CallStart& start, int socket, const HostVectors& vectors, ssize_t result, int error);

// Whether a receive with these flags and this outcome is an event for the recorder: an empty
// poll of a non-blocking socket is not.
bool receiveIsRecorded(int flags, int error, ssize_t result);
