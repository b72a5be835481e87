// socket, bind, listen, accept, connect and close: the registry follows every socket, and the
// recorder hears of connections made, accepted and closed.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>

#include "base/name_tables.h"
#include "config/socks_config.h"
#include "diag/debug_log.h"
#include "hooks/complete_capture_rules.h"
#include "hooks/connect_outcome_report.h"
#include "hooks/handler_support.h"
#include "hooks/handlers.h"
#include "hooks/socket_identity.h"
#include "message/address_attributes.h"
#include "message/recorder_message.h"
#include "real/capture_real_functions.h"
#include "real/real_functions.h"
#include "registry/socket_registry.h"
#include "socks/socks_routing.h"
#include "startup/agent_startup.h"
#include "transport/agent_interface.h"

namespace {

const int kTcp = 6;
const int kUdp = 17;

// The common head of connect, accept and close messages.
void setTimeAndIdentity(RecorderMessage& message, const CallStart& start, bool stampNsFirst) {
  if (stampNsFirst && start.stampNs != -1) message.set(RMA_TIMESTAMP_NS, start.stampNs);
  message.set(RMA_PID, currentProcessId);
  message.set(RMA_TIMESTAMP, start.stamp);
  message.setInt(RMA_TICKET, start.ticket);
}

}  // namespace

int Mysocket(int domain, int type, int protocol) {
  const int callerErrno = errno;
  const int cpt = static_cast<int>(getGlobalCpt());
  pre_init_startup();
  x_disp(DMK_CALL, "[%d]socket ", cpt);
  errno = callerErrno;
  const int result = True_socket(domain, type, protocol);
  const int error = readErrorCode();
  const int baseType = type & ~(0x800 | 0x80000);
  const int derived = protocol != 0 ? protocol : (baseType == SOCK_STREAM ? kTcp : baseType == SOCK_DGRAM ? kUdp : 0);
  const char* typeText = logLineWanted(result == -1 ? DMK_WARNING : DMK_RET) ? typeToString(type) : "";
  if (result == -1) {
    x_disp(DMK_WARNING, "[%d]socket (INVALID_SOCKET : %d %s : %s):\t af = (%d)%s,\t type = (%d)%s,\t protocol = (%d)%s",
           cpt, error, getSocketErrorKind(error), getSocketErrorMsg(error), domain, afToString(domain), type,
           typeText, protocol, protocolToString(derived));
  } else {
    createSocketInfo(static_cast<unsigned>(result), static_cast<unsigned>(domain), static_cast<unsigned>(baseType),
                     (type & 0x800) != 0, static_cast<unsigned>(derived));
    x_disp(DMK_RET, "[%d]socket (OK):\tsocket : %lx\t af = (%d)%s,\t type = (%d)%s,\t protocol = (%d)%s", cpt,
           static_cast<unsigned long>(result), domain, afToString(domain), type, typeText, protocol,
           protocolToString(derived));
  }
  restoreErrorCode(error);
  return result;
}

int Mylisten(int socket, int backlog) {
  const CallStart start = beginCall();
  const unsigned fd = static_cast<unsigned>(socket);
  s_disp(fd, DMK_CALL, "[%d]listen %lx", start.cpt, static_cast<unsigned long>(fd));
  s_disp(fd, DMK_INFO, "<NOT_RECORDED_HOOK> %s", "listen");
  const int result = True_listen(socket, backlog);
  const int error = readErrorCode();
  if (result == 0) {
    s_disp(fd, DMK_RET, "[%d]listen (OK):", start.cpt);
  } else {
    s_disp(fd, DMK_RET, "[%d]listen (SOCKET ERROR : %d %s : %s):", start.cpt, error, getSocketErrorKind(error),
           getSocketErrorMsg(error));
  }
  sendNotHookedInfo("listen");
  restoreErrorCode(error);
  return result;
}

int Mybind(int socket, const sockaddr* address, socklen_t length) {
  const CallStart start = beginCall();
  if (!socketInitialized) initializeSocketPointers();
  const unsigned fd = static_cast<unsigned>(socket);
  s_disp(fd, DMK_CALL, "[%d]bind %lx", start.cpt, static_cast<unsigned long>(fd));
  s_disp(fd, DMK_INFO, "<NOT_RECORDED_HOOK> %s", "bind");
  const int result = True_bind(socket, address, length);
  const int error = readErrorCode();
  if (result == 0) {
    s_disp(fd, DMK_RET, "[%d]bind (OK):", start.cpt);
  } else {
    s_disp(fd, DMK_RET, "[%d]bind (SOCKET ERROR : %d %s : %s):", start.cpt, error, getSocketErrorKind(error),
           getSocketErrorMsg(error));
  }
  // Whatever the result, the ports the host binds are remembered, so that its connects back to
  // itself are never sent through a SOCKS server. An address the C library could not read is
  // not read here either.
  if (error != EFAULT || result == 0) {
    const sockaddr_storage bound = copyAddress(address, length);
    char text[48] = "";
    unsigned short port = 0;
    bool known = true;
    if (bound.ss_family == AF_INET) {
      const sockaddr_in* v4 = reinterpret_cast<const sockaddr_in*>(&bound);
      const char* dotted = True_inet_ntoa(v4->sin_addr);
      snprintf(text, sizeof text, "%s", dotted != nullptr ? dotted : "");
      port = True_ntohs(v4->sin_port);
    } else if (bound.ss_family == AF_INET6) {
      const sockaddr_in6* v6 = reinterpret_cast<const sockaddr_in6*>(&bound);
      formatIpv6Groups(v6->sin6_addr.s6_addr, text, sizeof text);
      port = True_ntohs(v6->sin6_port);
    } else {
      known = false;
    }
    if (known) {
      if (port == 0) port = getLocalPort(socket, bound.ss_family);
      const char* family = familyToString(bound.ss_family);
      x_disp(DMK_INFO, "[%d] familly %s \tip %s\t port %d", start.cpt, family != nullptr ? family : "", text, port);
      createBindedPortMemo(socket, port);
    }
  }
  sendNotHookedInfo("bind");
  restoreErrorCode(error);
  return result;
}

int Myaccept(int socket, sockaddr* address, socklen_t* length) {
  return acceptConnection(socket, address, length, AcceptCall{false, 0});
}

int acceptConnection(int socket, sockaddr* address, socklen_t* length, AcceptCall call) {
  const CallStart start = beginCall();
  const unsigned fd = static_cast<unsigned>(socket);
  // The peer's address is always wanted. Without a caller's buffer the agent's own takes the
  // kernel's answer; with one, the caller's arguments go to the C library unchanged (a buffer the
  // agent swapped in could not give the caller the C library's own answer), and the peer is
  // asked for afterwards.
  sockaddr_storage peer;
  memset(&peer, 0, sizeof peer);
  socklen_t peerLength = sizeof peer;
  sockaddr* callAddress = address != nullptr ? address : reinterpret_cast<sockaddr*>(&peer);
  socklen_t* callLength = address != nullptr ? length : &peerLength;
  socklen_t callerCapacity = 0;
  if (address != nullptr && length != nullptr) copyHostBytes(&callerCapacity, length, sizeof callerCapacity, 0);
  s_disp(fd, DMK_CALL, "[%d]accept \tsocket : %lx", start.cpt, static_cast<unsigned long>(fd));
  const int result = call.four ? True_accept4(socket, callAddress, callLength, call.flags)
                               : True_accept(socket, callAddress, callLength);
  const int error = readErrorCode();
  if (result == -1) {
    s_disp(fd, DMK_WARNING, "[%d]accept (INVALID_SOCKET : %d %s : %s):\tsocket : %lx\t addrlen %d, addr = (0x" TALVEX_HEX_ADDRESS_LOWER ")",
           start.cpt, error, getSocketErrorKind(error), getSocketErrorMsg(error), static_cast<unsigned long>(fd),
           static_cast<int>(reinterpret_cast<uintptr_t>(callLength)),
           logAddress(callAddress));
    restoreErrorCode(error);
    return result;
  }
  s_disp(fd, DMK_RET, "[%d]accept (OK):\tsocket : %lx\t addrlen %d, addr = (0x" TALVEX_HEX_ADDRESS_LOWER ")", start.cpt,
         static_cast<unsigned long>(fd), static_cast<int>(reinterpret_cast<uintptr_t>(callLength)),
         logAddress(callAddress));
  SOCKETINFO* listener = getSocketInfo(fd);
  // Only the first connection accepted on a listener is recorded; the recorder learns the rest
  // from the traffic itself (unless every accept is).
  const bool followed = everyAcceptRecorded();
  if (!isAcceptedSocket(listener) || followed) {
    if (address != nullptr && True_getpeername(result, reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0) {
      // The peer may already be gone; the caller's buffer then holds what the kernel gave, as
      // far as it fitted: the length the kernel reports is the full one, maybe past the buffer.
      socklen_t reported = 0;
      if (length != nullptr) copyHostBytes(&reported, length, sizeof reported, sizeof reported);
      // An address cut short by the buffer is not the peer's address: it then has none.
      if (reported <= callerCapacity) peer = copyAddress(address, reported);
    }
    RecorderMessage message(RMT_ACCEPT, start.cpt);
    setTimeAndIdentity(message, start, true);
    message.setInt64(RMA_FROM, socket);
    message.setInt64(RMA_SOCKET, result);
    addSocketIdentity(message, result, true);
    fillMsgWithName(&message, reinterpret_cast<sockaddr*>(&peer));
    sendToRecorder(message);
    createMemoAcceptedSocket(listener);
    if (followed) followAcceptedSocket(result, listener, peer.ss_family, call.flags);
  }
  restoreErrorCode(error);
  return result;
}

int Myconnect(int socket, const sockaddr* address, socklen_t length) {
  const CallStart start = beginCall();
  const int callerErrno = errno;
  const unsigned fd = static_cast<unsigned>(socket);
  int socksError = 0;
  int loopback = 0;
  int error = 0;
  bool toReconnect = true;
  int socksStatus = 0;
  int result = -1;
  pre_init_startup();
  const sockaddr_storage destination = copyAddress(address, length);
  const sockaddr* destinationAddress = address != nullptr ? reinterpret_cast<const sockaddr*>(&destination) : nullptr;
  SOCKETINFO* record = getCurrentSocketInfo(fd);
  si_disp(record, DMK_CALL, "[%d]connect \tsocket : %lx", start.cpt, static_cast<unsigned long>(fd));
  if (getProtocol(record) != kUdp) {
    lock_connection(record, start.cpt);
    socksStatus = SocksConnect(record, destinationAddress, static_cast<int>(length), &socksError);
    result = checkSocksStatus(socket, socksStatus, &toReconnect, &loopback, &error);
    si_disp(record, DMK_WARNING,
            "[%d]SocksConnect (SOCKS:  :socksStatus %d socksError %d toReconnect %d loopback %d ret %d", start.cpt,
            socksStatus, socksError, toReconnect ? 1 : 0, loopback, result);
    unlock_connection(record, start.cpt);
  }
  if (toReconnect) {
    errno = callerErrno;
    result = True_connect(socket, address, length);
    error = readErrorCode();
  }
  const unsigned short family = destination.ss_family;
  unsigned short localPort = 0;
  if (result == -1 && error != 0 && error != EINPROGRESS) {
    si_disp(record, DMK_WARNING, "[%d]connect (SOCKET ERROR : %d %s : %s):\tsocket : %lx\t name = 0x" TALVEX_HEX_ADDRESS ",\t namelen = %d",
            start.cpt, error, getSocketErrorKind(error), getSocketErrorMsg(error), static_cast<unsigned long>(fd),
            logAddress(address), static_cast<int>(length));
  } else {
    setFamily(record, family);
    localPort = getLocalPort(socket, family);
    createMemoOpenedSocket(record);
    si_disp(record, DMK_RET, "[%d]connect (OK):\tsocket : %lx\t name = 0x" TALVEX_HEX_ADDRESS ",\t namelen = %d", start.cpt,
            static_cast<unsigned long>(fd), logAddress(address),
            static_cast<int>(length));
  }
  if ((family == AF_INET || family == AF_INET6) && getProtocol(record) != kUdp) {
    const int64_t end = getTimeStamp();
    int64_t durationNs = -1;
    if (start.stampNs != -1) {
      const int64_t endNs = getTimeStampNs();
      if (endNs != -1) durationNs = endNs - start.stampNs;
    }
    RecorderMessage message(RMT_CONNECT, start.cpt);
    if (start.stampNs != -1) message.set(RMA_TIMESTAMP_NS, start.stampNs);
    if (localPort != 0) message.set(RMA_LOCALPORT, static_cast<int>(localPort));
    if (loopback != 0) message.set(RMA_LOOPBACK, loopback);
    if (socksStatus != SOCKS_TARGET_REFUSED && socksModeActive) message.set(RMA_SOCKSERROR, socksError);
    setTimeAndIdentity(message, start, false);
    message.setInt64(RMA_SOCKET, socket);
    addSocketIdentity(message, socket, false);
    message.setInt(RMA_DURATION, static_cast<int>(end - start.stamp));
    if (durationNs != -1) message.set(RMA_DURATION_NS, durationNs);
    message.set(RMA_RETURN, result);
    fillMsgWithName(&message, destinationAddress);
    message.set(RMA_ERROR, socksStatus == SOCKS_TARGET_REFUSED ? socksError : error);
    sendToRecorder(message);
    noteConnectResult(record, result, error);
  }
  restoreErrorCode(error);
  return result;
}

int Myclose(int socket) {
  const CallStart start = beginCall();
  const unsigned fd = static_cast<unsigned>(socket);
  SOCKETINFO* record = socketForClose(fd);
  si_disp(record, DMK_CALL, "[%d]closesocket \tsocket : %lx", start.cpt, static_cast<unsigned long>(fd));
  // The record is released before the descriptor is: once the real close returns, another
  // thread's socket() may be handed the same number, and its fresh record must not be released
  // here. A close that fails has released the descriptor anyway (Linux), or there was none.
  int opened = 0;
  int accepted = 0;
  if (record != nullptr) {
    opened = freeMemoOpenedSocket(record);
    accepted = freeMemoAcceptedSocket(record);
    removeSockaddrElem(record);
    freeSocketInfo(fd);
  }
  errno = start.callerErrno;
  const int result = True_close(socket);
  const int error = readErrorCode();
  forgetDescriptor(fd);
  if (record == nullptr) {
    restoreErrorCode(error);
    return result;
  }
  if (result != -1) {
    // Written for local sockets too: a close is worth seeing whatever the family.
    x_disp(DMK_RET, "[%d]closesocket (OK):\tsocket : %lx", start.cpt, static_cast<unsigned long>(fd));
    freeBindedPortMemo(socket);
    if (!opened && !accepted) {
      si_disp(record, DMK_INFO, "[%d]closesocket on %lx not logged (no connect or accept)", start.cpt,
              static_cast<unsigned long>(fd));
    } else {
      RecorderMessage message(RMT_CLOSE, start.cpt);
      if (start.stampNs != -1) message.set(RMA_TIMESTAMP_NS, start.stampNs);
      setTimeAndIdentity(message, start, false);
      message.setInt64(RMA_SOCKET, socket);
      message.set(RMA_RETURN, result);
      message.set(RMA_ERROR, error);
      sendToRecorder(message);
      si_disp(record, DMK_INFO, opened ? "[%d]closesocket on %lx (connect)" : "[%d]closesocket on %lx (accept)",
              start.cpt, static_cast<unsigned long>(fd));
    }
  } else {
    si_disp(record, DMK_WARNING, "[%d]closesocket (SOCKET ERROR : %d %s : %s):\tsocket : %lx", start.cpt, error,
            getSocketErrorKind(error), getSocketErrorMsg(error), static_cast<unsigned long>(fd));
    freeBindedPortMemo(socket);
    si_disp(record, DMK_INFO, "[%d]closesocket on %lx not logged (no connect or accept)", start.cpt,
            static_cast<unsigned long>(fd));
  }
  restoreErrorCode(error);
  return result;
}
