// send, sendto, write, sendmsg, recv, recvfrom, read and recvmsg: the bytes of every recorded
// call go to the recorder.
#include <string.h>
#include <sys/uio.h>

#include "base/name_tables.h"
#include "diag/debug_log.h"
#include "hooks/complete_capture_rules.h"
#include "hooks/data_messages.h"
#include "hooks/handler_support.h"
#include "hooks/handlers.h"
#include "hooks/host_vectors.h"
#include "real/real_functions.h"
#include "registry/socket_registry.h"
#include "socks/socks_routing.h"
#include "startup/agent_startup.h"

namespace {
const unsigned kUdp = 17;
}  // namespace

ssize_t Mysend(int socket, const void* buffer, size_t length, int flags) {
  const unsigned fd = static_cast<unsigned>(socket);
  SOCKETINFO* record = socketForCall(fd);
  const CallStart start = startDataCall(record, "send", fd);
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
  recordOrSayWhyNot(record, "send", start.cpt, fd, error, [&] {
    recordSend(start, socket, buffer, length, result, error);
  });
  return result;
}

ssize_t Mysendto(int socket, const void* buffer, size_t length, int flags, const sockaddr* address,
                 socklen_t addressLength) {
  const unsigned fd = static_cast<unsigned>(socket);
  SOCKETINFO* record = socketForCall(fd);
  const CallStart start = startDataCall(record, "sendto", fd);
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
  recordOrSayWhyNot(record, "sendto", start.cpt, fd, error, [&] {
    const SendDestination destination = {getProtocol(record) == kUdp, address, addressLength};
    recordSend(start, socket, buffer, length, result, error, &destination);
  });
  return result;
}

ssize_t Mywrite(int descriptor, const void* buffer, size_t count) {
  // Files, pipes and terminals cost one lookup and nothing else.
  const unsigned fd = static_cast<unsigned>(descriptor);
  SOCKETINFO* record = socketForCall(fd);
  if (record == nullptr) return True_write(descriptor, buffer, count);
  const CallStart start = startDataCall(record, "write", fd);
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
  recordOrSayWhyNot(record, "write", start.cpt, fd, error, [&] {
    recordSend(start, descriptor, buffer, count, result, error);
  });
  return result;
}

ssize_t Mysendmsg(int socket, const msghdr* header, int flags) {
  const unsigned fd = static_cast<unsigned>(socket);
  SOCKETINFO* record = socketForCall(fd);
  if (record == nullptr) return True_sendmsg(socket, header, flags);
  const CallStart start = startDataCall(record, "sendmsg", fd);
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
  recordOrSayWhyNot(record, "sendmsg", start.cpt, fd, error, [&] {
    const HostVectors vectors(header, result);
    recordVectorSend(start, socket, vectors, result, error);
  });
  return result;
}

ssize_t Myrecv(int socket, void* buffer, size_t length, int flags) {
  const unsigned fd = static_cast<unsigned>(socket);
  SOCKETINFO* record = socketForCall(fd);
  const CallStart start = startDataCall(record, "recv", fd);
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
  recordOrSayWhyNot(record, "recv", start.cpt, fd, error, [&] {
    // Stamped and ticketed when the data arrived, not when the call began.
    if (receiveIsRecorded(flags, error, result)) {
      recordReceive(start.cpt, static_cast<int>(getTicket()), socket, buffer, length, result, error);
    }
  });
  return result;
}

ssize_t Myrecvfrom(int socket, void* buffer, size_t length, int flags, sockaddr* address, socklen_t* addressLength) {
  const int callerErrno = errno;
  const unsigned fd = static_cast<unsigned>(socket);
  SOCKETINFO* record = socketForCall(fd);
  const int cpt = static_cast<int>(getGlobalCpt());
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
  recordOrSayWhyNot(record, "recvfrom", cpt, fd, error, [&] {
    if (receiveIsRecorded(flags, error, result)) {
      const ReceiveSource from = {getProtocol(record) == kUdp, reinterpret_cast<sockaddr*>(&source)};
      recordReceive(cpt, static_cast<int>(getTicket()), socket, buffer, length, result, error, &from);
    }
  });
  return result;
}

ssize_t Myread(int descriptor, void* buffer, size_t count) {
  const unsigned fd = static_cast<unsigned>(descriptor);
  SOCKETINFO* record = socketForCall(fd);
  if (record == nullptr) return True_read(descriptor, buffer, count);
  const CallStart start = startDataCall(record, "read", fd);
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
  recordOrSayWhyNot(record, "read", start.cpt, fd, error, [&] {
    // read keeps the ticket of its start, unlike recv: recorders have always ordered it so.
    if (receiveIsRecorded(0, error, result)) recordReceive(start.cpt, start.ticket, descriptor, buffer, count, result, error);
  });
  return result;
}

ssize_t Myrecvmsg(int socket, msghdr* header, int flags) {
  const unsigned fd = static_cast<unsigned>(socket);
  SOCKETINFO* record = socketForCall(fd);
  if (record == nullptr) return True_recvmsg(socket, header, flags);
  const CallStart start = startDataCall(record, "recvmsg", fd);
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
  recordOrSayWhyNot(record, "recvmsg", start.cpt, fd, error, [&] {
    if (receiveIsRecorded(flags, error, result)) {
      // Stamped now, ticketed at its start, as recvmsg has always been.
      const HostVectors vectors(header, result);
      recordVectorReceive(start, socket, vectors, result, error);
    }
  });
  return result;
}
