#include "hooks/complete_capture_rules.h"

#include <errno.h>
#include <netinet/in.h>
#include <stdint.h>

#include "config/complete_capture.h"
#include "hooks/handler_support.h"
#include "hooks/socket_event_head.h"
#include "hooks/socket_identity.h"
#include "hooks/unrecorded_sockets.h"
#include "message/address_attributes.h"
#include "message/recorder_message.h"
#include "real/real_functions.h"
#include "registry/socket_registry.h"
#include "transport/agent_interface.h"
#include "transport/message_demand.h"

namespace {

// Descriptors already found not to be connected TCP sockets, so that a program's file and pipe
// I/O costs one bit test rather than system calls on every read and write. A close clears the
// bit; numbers past the table are looked at on every call.
const unsigned kMarkedDescriptors = 65536;
uint32_t notTcpSocket[kMarkedDescriptors / 32];

bool marked(unsigned fd) {
  return fd < kMarkedDescriptors && (__atomic_load_n(&notTcpSocket[fd / 32], __ATOMIC_RELAXED) & (1u << (fd % 32))) != 0;
}

void mark(unsigned fd) {
  if (fd < kMarkedDescriptors) __atomic_fetch_or(&notTcpSocket[fd / 32], 1u << (fd % 32), __ATOMIC_RELAXED);
}

bool socketOption(unsigned fd, int name, int* value) {
  socklen_t length = sizeof *value;
  return True_getsockopt(static_cast<int>(fd), SOL_SOCKET, name, value, &length) == 0;
}

// The family of the socket `fd`, or 0 when it is not an IP one.
unsigned ipFamily(unsigned fd) {
  int domain = 0;
  if (!socketOption(fd, SO_DOMAIN, &domain)) return 0;
  return domain == AF_INET || domain == AF_INET6 ? static_cast<unsigned>(domain) : 0;
}

// A socket of a kind whose traffic is not recorded, met for the first time.
void noticeIfSocket(unsigned fd) {
  int domain = 0;
  int type = 0;
  if (socketOption(fd, SO_DOMAIN, &domain) && socketOption(fd, SO_TYPE, &type)) noticeUnrecordedDescriptor(fd, domain, type);
}

// Tells the recorder of a socket met first in its traffic, as an accept of unknown listener.
void announceAdopted(unsigned fd, const sockaddr_storage& peer) {
  const CallStart start = beginCall();
  RecorderMessage message(RMT_ACCEPT, start.cpt);
  setSocketEventHead(message, start, static_cast<int64_t>(fd));
  message.set(RMA_INFO, "ADOPTED", 0);
  addSocketIdentity(message, static_cast<int>(fd), true);
  fillMsgWithName(&message, reinterpret_cast<const sockaddr*>(&peer));
  sendToRecorder(message);
}

void announceInherited(unsigned fd) {
  const int savedErrno = errno;
  sockaddr_storage peer = {};
  socklen_t length = sizeof peer;
  if (True_getpeername(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&peer), &length) == 0) announceAdopted(fd, peer);
  errno = savedErrno;
}

// Descriptor 0 has no place in the registry, where 0 means "no socket". A connected TCP socket on
// it (inetd, systemd's Accept=yes, sshd -i, socat's EXEC with nofork) is the program's whole
// conversation, so complete capture follows it through a record of its own.
SOCKETINFO standardInput;
// 0: not looked at since its last close, 1: followed, 2: found not to be a connected TCP socket.
int standardInputState;

SOCKETINFO* followStandardInput() {
  int state = __atomic_load_n(&standardInputState, __ATOMIC_ACQUIRE);
  if (state == 1 && messageObservable(0)) {
    // Replaced behind the agent's back (dup2 onto 0): looked at afresh.
    int error = 0;
    if (socketCookie(0, &error) != standardInput.cookie &&
        __atomic_compare_exchange_n(&standardInputState, &state, 0, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
      state = 0;
    }
  }
  if (state == 1) return &standardInput;
  if (state == 2) return nullptr;
  const int savedErrno = errno;
  int type = 0;
  int protocol = 0;
  const unsigned family = ipFamily(0);
  const bool tcpStream = family != 0 && socketOption(0, SO_TYPE, &type) && type == SOCK_STREAM &&
                         socketOption(0, SO_PROTOCOL, &protocol) && protocol == IPPROTO_TCP;
  sockaddr_storage peer = {};
  socklen_t length = sizeof peer;
  SOCKETINFO* record = nullptr;
  if (!tcpStream) {
    // A file, a pipe, or a socket of another kind, as usual.
    noticeIfSocket(0);
    __atomic_compare_exchange_n(&standardInputState, &state, 2, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
  } else if (True_getpeername(0, reinterpret_cast<sockaddr*>(&peer), &length) == 0) {
    // Claimed by one thread; another racing here finds it followed already. One not connected yet
    // (a listener) is looked at again on its next use.
    if (__atomic_compare_exchange_n(&standardInputState, &state, 1, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
      int error = 0;
      standardInput.family = family;
      standardInput.type = SOCK_STREAM;
      standardInput.protocol = IPPROTO_TCP;
      standardInput.cookie = socketCookie(0, &error);
      __atomic_store_n(&standardInput.flags, static_cast<uint8_t>(SIF_ACCEPTED), __ATOMIC_RELEASE);
      announceAdopted(0, peer);
    }
    record = &standardInput;
  }
  errno = savedErrno;
  return record;
}

SOCKETINFO* adopt(unsigned fd) {
  const int savedErrno = errno;
  SOCKETINFO* record = nullptr;
  int type = 0;
  int protocol = 0;
  const unsigned family = ipFamily(fd);
  if (family == 0 || !socketOption(fd, SO_TYPE, &type) || type != SOCK_STREAM ||
      !socketOption(fd, SO_PROTOCOL, &protocol) || protocol != IPPROTO_TCP) {
    mark(fd);
    noticeIfSocket(fd);
  } else {
    sockaddr_storage peer = {};
    socklen_t length = sizeof peer;
    // One not connected yet is looked at again on its next use.
    if (True_getpeername(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&peer), &length) == 0) {
      record = createSocketInfo(fd, family, SOCK_STREAM, 0, IPPROTO_TCP);
      if (record != nullptr) {
        createMemoAcceptedSocket(record);
        announceAdopted(fd, peer);
      }
    }
  }
  errno = savedErrno;
  return record;
}

}  // namespace

SentBytes sentBytes(size_t asked, ssize_t result) {
  if (!completeCaptureOn()) return {true, asked};
  if (result <= 0) return {false, 0};
  return {true, static_cast<size_t>(result) < asked ? static_cast<size_t>(result) : asked};
}

bool emptyReceiveCarriesData() { return !completeCaptureOn(); }

bool peekIsLeftOut(int flags) { return (flags & MSG_PEEK) != 0 && completeCaptureOn(); }

SOCKETINFO* socketForCall(unsigned fd) {
  // The check that the descriptor is still the socket of its record costs a system call on every
  // call; it matters only for what is recorded, and while nothing can be seen (unplugged, no DATA
  // lines) it is left out.
  SOCKETINFO* record = messageObservable(0) ? getCurrentSocketInfo(fd) : getSocketInfo(fd);
  if (record != nullptr) {
    // A connection inherited from the parent process: said once to be the same socket.
    if ((__atomic_load_n(&record->flags, __ATOMIC_RELAXED) & SIF_INHERITED) != 0 &&
        takeSocketMark(record, SIF_INHERITED)) {
      announceInherited(fd);
    }
    return record;
  }
  if (!completeCaptureOn() || marked(fd)) return record;
  if (fd == 0) return followStandardInput();
  return adopt(fd);
}

SOCKETINFO* socketForClose(unsigned fd) {
  if (fd != 0 || !completeCaptureOn()) return getCurrentSocketInfo(fd);
  int followed = 1;
  // Its close is recorded once, by the thread that takes it from being followed.
  if (__atomic_compare_exchange_n(&standardInputState, &followed, 0, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
    return &standardInput;
  }
  __atomic_store_n(&standardInputState, 0, __ATOMIC_RELEASE);
  return nullptr;
}

void forgetDescriptor(unsigned fd) {
  if (fd < kMarkedDescriptors) __atomic_fetch_and(&notTcpSocket[fd / 32], ~(1u << (fd % 32)), __ATOMIC_RELAXED);
}

bool everyAcceptRecorded() { return completeCaptureOn(); }

void followAcceptedSocket(int socket, SOCKETINFO* listener, unsigned family, int acceptFlags) {
  const int savedErrno = errno;
  if (family != AF_INET && family != AF_INET6) family = ipFamily(static_cast<unsigned>(socket));
  const unsigned protocol = getProtocol(listener) != 0 ? getProtocol(listener) : static_cast<unsigned>(IPPROTO_TCP);
  SOCKETINFO* record = createSocketInfo(static_cast<unsigned>(socket), family, SOCK_STREAM,
                                        (acceptFlags & static_cast<int>(SOCK_NONBLOCK)) != 0 ? 1 : 0, protocol);
  if (record != nullptr) createMemoAcceptedSocket(record);
  errno = savedErrno;
}
