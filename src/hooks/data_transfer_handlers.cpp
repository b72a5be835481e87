// send, sendto, write, sendmsg, recv, recvfrom, read and recvmsg: the bytes of every recorded
// call go to the recorder.
#include <limits.h>
#include <string.h>
#include <sys/uio.h>

#include "agent/agent_startup.h"
#include "agent/recording_decision.h"
#include "diag/debug_log.h"
#include "diag/name_tables.h"
#include "hooks/handler_support.h"
#include "hooks/handlers.h"
#include "hooks/host_vectors.h"
#include "hooks/socket_registry.h"
#include "interpose/real_functions.h"
#include "recorder/address_attributes.h"
#include "recorder/agent_interface.h"
#include "recorder/recorder_message.h"
#include "socks/socks_routing.h"

namespace {

const unsigned kUdp = 17;

void logNotRecorded(SOCKETINFO* record, const char* name, int cpt, unsigned fd, int reason) {
  si_disp(record, DMK_INFO, "[%d]%s on %lx not logged (%s)", cpt, name, static_cast<unsigned long>(fd),
          ImageShouldBeLogged[reason]);
}

// The data attribute over `count` bytes of `bytes`. The string setter counts in an int and reads
// a count of 0 as "up to the first zero byte": an empty one is given an empty text, and one too
// long to count makes the message incomplete, so that it is dropped rather than sent without it.
void setData(RecorderMessage& message, const void* bytes, size_t count) {
  if (count > static_cast<size_t>(INT_MAX)) {
    message.abandon();
    return;
  }
  message.set(RMA_DATA, count > 0 ? static_cast<const char*>(bytes) : "", static_cast<int>(count));
}

// The head of every send message: when, which call, which socket, which process.
void sendHead(RecorderMessage& message, const CallStart& start, int socket) {
  if (start.stampNs != -1) message.set(RMA_TIMESTAMP_NS, start.stampNs);
  message.set(RMA_TIMESTAMP, start.stamp);
  message.setInt(RMA_TICKET, start.ticket);
  message.setInt64(RMA_SOCKET, socket);
  message.set(RMA_PID, currentProcessId);
}

// The head of every receive message, stamped when the data arrived.
void receiveHead(RecorderMessage& message, int ticket, int socket) {
  const int64_t stamp = getTimeStamp();
  const int64_t stampNs = getTimeStampNs();
  if (stampNs != -1) message.set(RMA_TIMESTAMP_NS, stampNs);
  message.set(RMA_PID, currentProcessId);
  message.set(RMA_TIMESTAMP, stamp);
  message.setInt(RMA_TICKET, ticket);
  message.setInt64(RMA_SOCKET, socket);
}

// The bytes a receive got: those the system wrote into the caller's buffer, never more than the
// buffer holds (a datagram receive with MSG_TRUNC reports its full size). A result of 0 takes
// the buffer up to its first zero byte, as the string setter reads a count of 0, but never past
// the caller's own length or what can be read.
void setReceivedData(RecorderMessage& message, const void* buffer, size_t length, ssize_t result) {
  const char* bytes = static_cast<const char*>(buffer);
  if (result == 0) {
    setData(message, bytes, static_cast<size_t>(printableLength(buffer, readableBytes(buffer, length, 0))));
  } else if (result > 0) {
    const size_t written = static_cast<size_t>(result) < length ? static_cast<size_t>(result) : length;
    setData(message, bytes, written);
  }
  // A failed receive got nothing, and its message has no data.
}

// The message of a send-like call: its head, the bytes asked for (not those the system took:
// "return" says how many it did), their count, the outcome. A sendto adds its destination before
// the error.
struct SendDestination {
  bool possibleUdp;
  const sockaddr* address;
  socklen_t length;
};

void recordSend(const CallStart& start, int socket, const void* buffer, size_t length, ssize_t result, int error,
                const SendDestination* destination = nullptr) {
  RecorderMessage message(RMT_SEND, start.cpt);
  sendHead(message, start, socket);
  if (length != 0) {
    // What the caller asked to send, as far as it can be read: a failed send may not have looked
    // at the buffer at all.
    const size_t readable = readableBytes(buffer, length, result > 0 ? static_cast<size_t>(result) : 0);
    setData(message, buffer, readable);
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

// The message of a receive-like call, stamped now. A recvfrom adds its source before the error.
struct ReceiveSource {
  bool possibleUdp;
  const sockaddr* address;
};

void recordReceive(int cpt, int ticket, int socket, const void* buffer, size_t length, ssize_t result, int error,
                   const ReceiveSource* source = nullptr) {
  RecorderMessage message(RMT_RECEIVE, cpt);
  receiveHead(message, ticket, socket);
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

// An empty poll of a non-blocking socket is not an event.
bool isEmptyPoll(int error, ssize_t result) { return error == EAGAIN && result < 1; }

}  // namespace

ssize_t Mysend(int socket, const void* buffer, size_t length, int flags) {
  const CallStart start = beginCall();
  const unsigned fd = static_cast<unsigned>(socket);
  SOCKETINFO* record = getCurrentSocketInfo(fd);
  waitConnectionDone(record, start.cpt);
  si_disp(record, DMK_CALL, "[%d]send \tsocket : %lx", start.cpt, static_cast<unsigned long>(fd));
  const ssize_t result = True_send(socket, buffer, length, flags);
  const int error = readErrorCode();
  if (result == -1) {
    si_disp(record, DMK_WARNING, "[%d]send (SOCKET ERROR : %d %s : %s):\tsocket : %lx\t len = %d,\t flags = %d,\t buf = 0x" TALVEX_HEX_ADDRESS,
            start.cpt, error, getSocketErrorKind(error), getSocketErrorMsg(error), static_cast<unsigned long>(fd),
            static_cast<int>(length), flags, logAddress(buffer));
  } else {
    si_disp(record, DMK_RET, "[%d]send (OK):\tsocket : %lx\t len = %d,\t flags = %d,\t buf = 0x" TALVEX_HEX_ADDRESS " \"%.*s\"", start.cpt,
            static_cast<unsigned long>(fd), static_cast<int>(length), flags,
            logAddress(buffer),
            loggableLength(record, DMK_RET, buffer, length, static_cast<size_t>(result)), static_cast<const char*>(buffer));
  }
  const int reason = shouldBeLogged(record);
  if (reason == SBL_SHOULDBELOGGED) {
    recordSend(start, socket, buffer, length, result, error);
  } else {
    logNotRecorded(record, "send", start.cpt, fd, reason);
  }
  restoreErrorCode(error);
  return result;
}

ssize_t Mysendto(int socket, const void* buffer, size_t length, int flags, const sockaddr* address,
                 socklen_t addressLength) {
  const CallStart start = beginCall();
  const unsigned fd = static_cast<unsigned>(socket);
  SOCKETINFO* record = getCurrentSocketInfo(fd);
  waitConnectionDone(record, start.cpt);
  si_disp(record, DMK_CALL, "[%d]sendto \tsocket : %lx", start.cpt, static_cast<unsigned long>(fd));
  // The caller's address goes to the C library as it is: a substitute for a null one would turn a
  // connected datagram send into an error.
  const ssize_t result = True_sendto(socket, buffer, length, flags, address, addressLength);
  const int error = readErrorCode();
  if (result == -1) {
    si_disp(record, DMK_WARNING, "[%d]sendto (SOCKET ERROR : %d %s : %s):\tsocket : %lx\t len = %d,\t flags = %d,\t buf = 0x" TALVEX_HEX_ADDRESS,
            start.cpt, error, getSocketErrorKind(error), getSocketErrorMsg(error), static_cast<unsigned long>(fd),
            static_cast<int>(length), flags, logAddress(buffer));
  } else {
    si_disp(record, DMK_RET, "[%d]sendto (OK):\tsocket : %lx\t len = %d,\t flags = %d,\t buf = 0x" TALVEX_HEX_ADDRESS, start.cpt,
            static_cast<unsigned long>(fd), static_cast<int>(length), flags,
            logAddress(buffer));
  }
  const int reason = shouldBeLogged(record);
  if (reason == SBL_SHOULDBELOGGED) {
    const SendDestination destination = {getProtocol(record) == kUdp, address, addressLength};
    recordSend(start, socket, buffer, length, result, error, &destination);
  } else {
    logNotRecorded(record, "sendto", start.cpt, fd, reason);
  }
  restoreErrorCode(error);
  return result;
}

ssize_t Mywrite(int descriptor, const void* buffer, size_t count) {
  // Files, pipes and terminals cost one lookup and nothing else.
  const unsigned fd = static_cast<unsigned>(descriptor);
  SOCKETINFO* record = getCurrentSocketInfo(fd);
  if (record == nullptr) return True_write(descriptor, buffer, count);
  const CallStart start = beginCall();
  waitConnectionDone(record, start.cpt);
  si_disp(record, DMK_CALL, "[%d]write \tsocket : %lx", start.cpt, static_cast<unsigned long>(fd));
  const ssize_t result = True_write(descriptor, buffer, count);
  const int error = readErrorCode();
  if (result == -1) {
    si_disp(record, DMK_WARNING, "[%d]write (SOCKET ERROR : %d %s : %s):\tsocket : %lx\t count = %d,\t buf = 0x" TALVEX_HEX_ADDRESS,
            start.cpt, error, getSocketErrorKind(error), getSocketErrorMsg(error), static_cast<unsigned long>(fd),
            static_cast<int>(count), logAddress(buffer));
  } else {
    si_disp(record, DMK_RET, "[%d]write (OK):\tsocket : %lx\t count = %d,\t buf = 0x" TALVEX_HEX_ADDRESS " \"%.*s\"", start.cpt,
            static_cast<unsigned long>(fd), static_cast<int>(count),
            logAddress(buffer),
            loggableLength(record, DMK_RET, buffer, count, static_cast<size_t>(result)), static_cast<const char*>(buffer));
  }
  const int reason = shouldBeLogged(record);
  if (reason == SBL_SHOULDBELOGGED) {
    recordSend(start, descriptor, buffer, count, result, error);
  } else {
    logNotRecorded(record, "write", start.cpt, fd, reason);
  }
  restoreErrorCode(error);
  return result;
}

ssize_t Mysendmsg(int socket, const msghdr* header, int flags) {
  const unsigned fd = static_cast<unsigned>(socket);
  SOCKETINFO* record = getCurrentSocketInfo(fd);
  if (record == nullptr) return True_sendmsg(socket, header, flags);
  const CallStart start = beginCall();
  waitConnectionDone(record, start.cpt);
  si_disp(record, DMK_CALL, "[%d]sendmsg \tsocket : %lx", start.cpt, static_cast<unsigned long>(fd));
  const ssize_t result = True_sendmsg(socket, header, flags);
  const int error = readErrorCode();
  if (result == -1) {
    si_disp(record, DMK_WARNING, "[%d]sendmsg (SOCKET ERROR : %d %s : %s):\tsocket : %lx\t buf = 0x" TALVEX_HEX_ADDRESS, start.cpt,
            error, getSocketErrorKind(error), getSocketErrorMsg(error), static_cast<unsigned long>(fd),
            logAddress(header));
  } else {
    si_disp(record, DMK_RET, "[%d]sendmsg (OK):\tsocket : %lx\t \t buf = 0x" TALVEX_HEX_ADDRESS " ", start.cpt,
            static_cast<unsigned long>(fd), logAddress(header));
  }
  const int reason = shouldBeLogged(record);
  if (reason == SBL_SHOULDBELOGGED) {
    const HostVectors vectors(header, result);
    RecorderMessage message(RMT_SEND, start.cpt);
    sendHead(message, start, socket);
    if (vectors.valid()) {
      message.setiovect(RMA_DATA, vectors.list(), vectors.count(), vectors.readable());
    } else {
      message.set(RMA_DATA, "", 0);
    }
    // The length is the 32-bit total of the lengths asked for, as it has always been reported.
    message.set(RMA_LENGTH, static_cast<int>(static_cast<uint32_t>(vectors.requested())));
    message.set(RMA_RETURN, static_cast<int>(result));
    message.set(RMA_ERROR, error);
    sendToRecorder(message);
  } else {
    logNotRecorded(record, "sendmsg", start.cpt, fd, reason);
  }
  restoreErrorCode(error);
  return result;
}

ssize_t Myrecv(int socket, void* buffer, size_t length, int flags) {
  const CallStart start = beginCall();
  const unsigned fd = static_cast<unsigned>(socket);
  SOCKETINFO* record = getCurrentSocketInfo(fd);
  waitConnectionDone(record, start.cpt);
  si_disp(record, DMK_CALL, "[%d]recv \tsocket : %lx", start.cpt, static_cast<unsigned long>(fd));
  const ssize_t result = True_recv(socket, buffer, length, flags);
  const int error = readErrorCode();
  if (result == -1) {
    si_disp(record, DMK_WARNING, "[%d]recv (SOCKET ERROR : %d %s : %s) :\tsocket : %lx\t len = %d,\t flags = %d,\t buf = 0x" TALVEX_HEX_ADDRESS,
            start.cpt, error, getSocketErrorKind(error), getSocketErrorMsg(error), static_cast<unsigned long>(fd),
            static_cast<int>(length), flags, logAddress(buffer));
  } else {
    si_disp(record, DMK_RET, "[%d]recv (OK) :\tsocket : %lx\t len = %d,\t flags = %d,\t buf = 0x" TALVEX_HEX_ADDRESS, start.cpt,
            static_cast<unsigned long>(fd), static_cast<int>(length), flags,
            logAddress(buffer));
  }
  const int reason = shouldBeLogged(record);
  if (reason == SBL_SHOULDBELOGGED) {
    // Stamped and ticketed when the data arrived, not when the call began.
    if (!isEmptyPoll(error, result)) {
      recordReceive(start.cpt, static_cast<int>(getTicket()), socket, buffer, length, result, error);
    }
  } else {
    logNotRecorded(record, "recv", start.cpt, fd, reason);
  }
  restoreErrorCode(error);
  return result;
}

ssize_t Myrecvfrom(int socket, void* buffer, size_t length, int flags, sockaddr* address, socklen_t* addressLength) {
  const int callerErrno = errno;
  const int cpt = static_cast<int>(getGlobalCpt());
  const unsigned fd = static_cast<unsigned>(socket);
  SOCKETINFO* record = getCurrentSocketInfo(fd);
  waitConnectionDone(record, cpt);
  si_disp(record, DMK_CALL, "[%d]recvfrom \tsocket : %lx", cpt, static_cast<unsigned long>(fd));
  // The source is always wanted. Without a caller's buffer the agent's own takes it; with one,
  // the caller's arguments go to the C library unchanged, so that it truncates and reports
  // lengths for the caller exactly as it would without the agent.
  sockaddr_storage source;
  memset(&source, 0, sizeof source);
  socklen_t sourceLength = sizeof source;
  const bool own = address == nullptr;
  socklen_t callerCapacity = 0;
  if (!own && addressLength != nullptr) copyHostBytes(&callerCapacity, addressLength, sizeof callerCapacity, 0);
  errno = callerErrno;
  const ssize_t result = own ? True_recvfrom(socket, buffer, length, flags, reinterpret_cast<sockaddr*>(&source),
                                             &sourceLength)
                             : True_recvfrom(socket, buffer, length, flags, address, addressLength);
  const int error = readErrorCode();
  socklen_t reported = 0;
  if (!own && addressLength != nullptr) copyHostBytes(&reported, addressLength, sizeof reported, 0);
  if (!own && result >= 0 && addressLength != nullptr) {
    source = copyAddress(address, reported < callerCapacity ? reported : callerCapacity);
  }
  const sockaddr* shownSource = own ? reinterpret_cast<sockaddr*>(&source) : address;
  const int logLength = static_cast<int>(own ? sourceLength : reported);
  if (result == -1) {
    si_disp(record, DMK_WARNING,
            "[%d]recvfrom (SOCKET ERROR : %d %s : %s) :\tsocket : %lx\t len = %d,\t flags = %d,\t buf = 0x" TALVEX_HEX_ADDRESS "\t from = "
            "0x" TALVEX_HEX_ADDRESS "\t fromlen %d",
            cpt, error, getSocketErrorKind(error), getSocketErrorMsg(error), static_cast<unsigned long>(fd),
            static_cast<int>(length), flags, logAddress(buffer),
            logAddress(shownSource), logLength);
  } else {
    si_disp(record, DMK_RET,
            "[%d]recvfrom (OK) :\tsocket : %lx\t len = %d,\t flags = %d,\t buf = 0x" TALVEX_HEX_ADDRESS "\t from = 0x" TALVEX_HEX_ADDRESS "\t fromlen %d",
            cpt, static_cast<unsigned long>(fd), static_cast<int>(length), flags,
            logAddress(buffer),
            logAddress(shownSource), logLength);
  }
  const int reason = shouldBeLogged(record);
  if (reason == SBL_SHOULDBELOGGED) {
    if (!isEmptyPoll(error, result)) {
      const ReceiveSource from = {getProtocol(record) == kUdp, reinterpret_cast<sockaddr*>(&source)};
      recordReceive(cpt, static_cast<int>(getTicket()), socket, buffer, length, result, error, &from);
    }
  } else {
    logNotRecorded(record, "recvfrom", cpt, fd, reason);
  }
  restoreErrorCode(error);
  return result;
}

ssize_t Myread(int descriptor, void* buffer, size_t count) {
  const unsigned fd = static_cast<unsigned>(descriptor);
  SOCKETINFO* record = getCurrentSocketInfo(fd);
  if (record == nullptr) return True_read(descriptor, buffer, count);
  const CallStart start = beginCall();
  waitConnectionDone(record, start.cpt);
  si_disp(record, DMK_CALL, "[%d]read \tsocket : %lx", start.cpt, static_cast<unsigned long>(fd));
  const ssize_t result = True_read(descriptor, buffer, count);
  const int error = readErrorCode();
  if (result == -1) {
    si_disp(record, DMK_WARNING, "[%d]read (SOCKET ERROR : %d %s : %s) :\tsocket : %lx\t len = %d,\t buf = 0x" TALVEX_HEX_ADDRESS,
            start.cpt, error, getSocketErrorKind(error), getSocketErrorMsg(error), static_cast<unsigned long>(fd),
            static_cast<int>(count), logAddress(buffer));
  } else {
    si_disp(record, DMK_RET, "[%d]read (OK) :\tsocket : %lx\t len = %d,\t buf = 0x" TALVEX_HEX_ADDRESS, start.cpt,
            static_cast<unsigned long>(fd), static_cast<int>(count),
            logAddress(buffer));
  }
  const int reason = shouldBeLogged(record);
  if (reason == SBL_SHOULDBELOGGED) {
    // read keeps the ticket of its start, unlike recv: recorders have always ordered it so.
    if (!isEmptyPoll(error, result)) recordReceive(start.cpt, start.ticket, descriptor, buffer, count, result, error);
  } else {
    logNotRecorded(record, "read", start.cpt, fd, reason);
  }
  restoreErrorCode(error);
  return result;
}

ssize_t Myrecvmsg(int socket, msghdr* header, int flags) {
  const unsigned fd = static_cast<unsigned>(socket);
  SOCKETINFO* record = getCurrentSocketInfo(fd);
  if (record == nullptr) return True_recvmsg(socket, header, flags);
  const CallStart start = beginCall();
  waitConnectionDone(record, start.cpt);
  si_disp(record, DMK_CALL, "[%d]recvmsg \tsocket : %lx", start.cpt, static_cast<unsigned long>(fd));
  const ssize_t result = True_recvmsg(socket, header, flags);
  const int error = readErrorCode();
  if (result == -1) {
    si_disp(record, DMK_WARNING, "[%d]recvmsg (SOCKET ERROR : %d %s : %s) :\tsocket : %lx\t buf = 0x" TALVEX_HEX_ADDRESS, start.cpt,
            error, getSocketErrorKind(error), getSocketErrorMsg(error), static_cast<unsigned long>(fd),
            logAddress(header));
  } else {
    si_disp(record, DMK_RET, "[%d]recvmsg (OK) :\tsocket : %lx\t buf = 0x" TALVEX_HEX_ADDRESS, start.cpt,
            static_cast<unsigned long>(fd), logAddress(header));
  }
  const int reason = shouldBeLogged(record);
  if (reason == SBL_SHOULDBELOGGED) {
    if (!isEmptyPoll(error, result)) {
      RecorderMessage message(RMT_RECEIVE, start.cpt);
      receiveHead(message, start.ticket, socket);
      // The bytes received, spread over the vectors in order; a failed call received none.
      const HostVectors vectors(header, result);
      if (vectors.valid()) {
        message.setiovect(RMA_DATA, vectors.list(), vectors.count(), result > 0 ? static_cast<uint64_t>(result) : 0);
      }
      message.set(RMA_LENGTH, static_cast<int>(result));
      message.set(RMA_RETURN, static_cast<int>(result));
      message.set(RMA_ERROR, error);
      sendToRecorder(message);
    }
  } else {
    logNotRecorded(record, "recvmsg", start.cpt, fd, reason);
  }
  restoreErrorCode(error);
  return result;
}
