#include "hooks/data_messages.h"

#include <limits.h>

#include "base/process_identity.h"
#include "diag/debug_log.h"
#include "hooks/complete_capture_rules.h"
#include "hooks/host_vectors.h"
#include "hooks/message_parts.h"
#include "hooks/tls_plaintext.h"
#include "message/address_attributes.h"
#include "message/recorder_message.h"
#include "registry/recording_decision.h"
#include "registry/socket_registry.h"
#include "transport/agent_interface.h"
#include "transport/message_demand.h"

namespace {

// The bytes a receive got: those the system wrote into the caller's buffer, never more than the
// buffer holds (a datagram receive with MSG_TRUNC reports its full size). A result of 0 takes
// the buffer up to its first zero byte, as the string setter reads a count of 0, but never past
// the caller's own length or what can be read.
void setReceivedData(RecorderMessage& message, const void* buffer, size_t length, ssize_t result) {
  const char* bytes = static_cast<const char*>(buffer);
  if (result == 0) {
    if (emptyReceiveCarriesData()) {
      setMessageData(message, bytes, static_cast<size_t>(printableLength(buffer, readableBytes(buffer, length, 0))));
    }
  } else if (result > 0) {
    const size_t written = static_cast<size_t>(result) < length ? static_cast<size_t>(result) : length;
    setMessageData(message, bytes, written);
  }
  // A failed receive got nothing, and its message has no data.
}

}  // namespace

void logNotRecorded(SOCKETINFO* record, const char* name, int cpt, unsigned fd, int reason) {
  si_disp(record, DMK_INFO, "[%d]%s on %lx not logged (%s)", cpt, name, static_cast<unsigned long>(fd),
          ImageShouldBeLogged[reason]);
}

// The message of a send-like call: its head, its bytes, their count, the outcome. A sendto adds
// its destination before the error.
void recordSend(const CallStart& start, int socket, const void* buffer, size_t length, ssize_t result, int error,
                const SendDestination* destination) {
  // A send never takes more than was asked: its data is at most `length` bytes.
  if (!messageWorthBuilding(length)) return;
  // The handshake that ties a socket to its thread's session is the first of its records.
  const bool handshake = result > 0 && tlsHandshakeStartsOn(socket, buffer, static_cast<size_t>(result));
  if (handshake && !tlsWireWanted()) return;
  WireMessages wire(handshake);
  RecorderMessage message(dataKind(RMT_SEND), start.cpt);
  setSendHead(message, start, socket);
  const SentBytes sent = sentBytes(length, result);
  if (sent.present && length != 0) {
    // As far as they can be read: a failed send may not have looked at the buffer at all.
    const size_t readable = readableBytes(buffer, sent.count, result > 0 ? static_cast<size_t>(result) : 0);
    setMessageData(message, buffer, readable);
  }
  message.set(RMA_LENGTH, static_cast<unsigned>(length));
  message.set(RMA_RETURN, static_cast<int>(result));
  if (destination != nullptr) {
    if (destination->possibleUdp) message.set(RMA_INFO, "POSSIBLE_UDP", 0);
    if (destination->length > 15) {
      // A null address (or one the C library could not read) reads as zero bytes, as if the caller
      // had passed an empty one.
      const sockaddr_storage copy = copyAddress(destination->address, destination->length, result >= 0);
      fillMsgWithName(&message, reinterpret_cast<const sockaddr*>(&copy));
    }
  }
  message.set(RMA_ERROR, error);
  sendToRecorder(message);
}

void recordVectorSend(const CallStart& start, int socket, const HostVectors& vectors, ssize_t result, int error) {
  if (!messageWorthBuilding(vectors.readable())) return;
  const bool handshake =
      result > 0 && vectors.valid() && tlsHandshakeStartsOn(socket, vectors.list(), vectors.count(), result);
  if (handshake && !tlsWireWanted()) return;
  WireMessages wire(handshake);
  RecorderMessage message(dataKind(RMT_SEND), start.cpt);
  setSendHead(message, start, socket);
  const SentBytes sent = sentBytes(static_cast<size_t>(vectors.readable()), result);
  if (!vectors.valid()) {
    if (sent.present) message.set(RMA_DATA, "", 0);
  } else if (sent.present) {
    message.setiovect(RMA_DATA, vectors.list(), vectors.count(), sent.count);
  }
  // The length is the 32-bit total of the lengths asked for, as it has always been reported.
  message.set(RMA_LENGTH, static_cast<int>(static_cast<uint32_t>(vectors.requested())));
  message.set(RMA_RETURN, static_cast<int>(result));
  message.set(RMA_ERROR, error);
  sendToRecorder(message);
}

void recordReceive(int cpt, int ticket, int socket, const void* buffer, size_t length, ssize_t result, int error,
                   const ReceiveSource* source) {
  if (emptyAskIsLeftOut(length, result)) return;
  if (!messageWorthBuilding(result > 0 ? static_cast<uint64_t>(result) : length)) return;
  RecorderMessage message(dataKind(RMT_RECEIVE), cpt);
  setReceiveHead(message, ticket, socket);
  setReceivedData(message, buffer, length, result);
  message.set(RMA_LENGTH, static_cast<int>(result));
  message.set(RMA_RETURN, static_cast<int>(result));
  if (source != nullptr) {
    if (source->possibleUdp) message.set(RMA_INFO, "POSSIBLE_UDP", 0);
    fillMsgWithName(&message, source->address);
  }
  message.set(RMA_ERROR, error);
  sendToRecorder(message);
}

void recordVectorReceive(const CallStart& start, int socket, const HostVectors& vectors, ssize_t result, int error) {
  if (emptyAskIsLeftOut(vectors.requested(), result)) return;
  if (!messageWorthBuilding(result > 0 ? static_cast<uint64_t>(result) : 0)) return;
  RecorderMessage message(dataKind(RMT_RECEIVE), start.cpt);
  setReceiveHead(message, start.ticket, socket);
  // The bytes received, spread over the vectors in order; a failed call received none.
  if (vectors.valid() && (result > 0 || emptyReceiveCarriesData())) {
    message.setiovect(RMA_DATA, vectors.list(), vectors.count(), result > 0 ? static_cast<uint64_t>(result) : 0);
  }
  message.set(RMA_LENGTH, static_cast<int>(result));
  message.set(RMA_RETURN, static_cast<int>(result));
  message.set(RMA_ERROR, error);
  sendToRecorder(message);
}

bool receiveIsRecorded(int flags, int error, ssize_t result) {
  if (error == EAGAIN && result < 1) return false;
  return !peekIsLeftOut(flags);
}
