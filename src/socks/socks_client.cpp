#include "socks/socks_client.h"
#include "base/symbol_versions.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>

#include "base/monotonic_clock.h"
#include "base/name_tables.h"
#include "config/socks_config.h"
#include "diag/debug_log.h"
#include "message/address_attributes.h"
#include "real/real_functions.h"

// The oldest version, for older 32-bit C libraries; it reads and sets file status flags the same.
__asm__(".symver fcntl,fcntl@" TALVEX_GLIBC_FIRST);

namespace {

const unsigned char kVersion = 0x05;
const unsigned char kNoAuthentication = 0x00;
const unsigned char kConnect = 0x01;
const unsigned char kReserved = 0x00;
const unsigned char kIpv4 = 0x01;
const unsigned char kDomainName = 0x03;
const unsigned char kIpv6 = 0x04;

int64_t nowMs() { return monotonicNs() / 1000000; }

void logSocketError(const char* format, int code) {
  x_disp(DMK_ERROR, format, code, getSocketErrorKind(code), getSocketErrorMsg(code));
}

// Waits for something to read until the deadline; false when it passed first.
bool waitReadable(int socket, int64_t deadline) {
  for (;;) {
    const int64_t left = deadline - nowMs();
    if (left <= 0) return false;
    pollfd p = {socket, POLLIN, 0};
    const int ready = poll(&p, 1, static_cast<int>(left > 1000000 ? 1000000 : left));
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return true;  // let the receive report what is wrong
  }
}

// Restores the socket's file status flags when the handshake ends, whichever way it ends.
struct BlockingScope {
  explicit BlockingScope(int socket) : socket(socket), flags(fcntl(socket, F_GETFL, 0)) {
    if (flags != -1 && (flags & O_NONBLOCK)) fcntl(socket, F_SETFL, flags & ~O_NONBLOCK);
  }
  ~BlockingScope() {
    if (flags != -1 && (flags & O_NONBLOCK)) {
      const int saved = errno;
      fcntl(socket, F_SETFL, flags);
      errno = saved;
    }
  }
  int socket;
  int flags;
};

// A blocking connect to a server that drops packets would wait for the kernel's own time-out;
// the send time-out bounds it by what is left of the exchange's, and the caller's value comes
// back after.
struct ConnectTimeoutScope {
  ConnectTimeoutScope(int socket, int64_t deadline) : socket(socket) {
    socklen_t length = sizeof saved;
    ok = True_getsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &saved, &length) == 0;
    if (!ok) return;
    int64_t left = deadline - nowMs();
    if (left < 1) left = 1;  // 0 would mean no time-out at all
    timeval bound = {static_cast<time_t>(left / 1000), static_cast<suseconds_t>((left % 1000) * 1000)};
    if (setsockopt_ptr != nullptr) setsockopt_ptr(socket, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound);
  }
  ~ConnectTimeoutScope() {
    const int savedErrno = errno;
    if (ok && setsockopt_ptr != nullptr) setsockopt_ptr(socket, SOL_SOCKET, SO_SNDTIMEO, &saved, sizeof saved);
    errno = savedErrno;
  }
  int socket;
  timeval saved;
  bool ok;
};

void hexBytes(const unsigned char* bytes, int count, const char* format, char* out, size_t size) {
  size_t used = 0;
  out[0] = '\0';
  for (int i = 0; i < count && used < size; ++i) {
    const int written = snprintf(out + used, size - used, format, bytes[i]);
    if (written < 0) break;
    used += static_cast<size_t>(written);
  }
}

void logIpv6Server(const sockaddr_in6& server) {
  x_disp(DMK_INFO, "==> Connecting socket IPV6 : ");
  const char* family = familyToString(server.sin6_family);
  x_disp(DMK_INFO, "\t familly : %s %d", family != nullptr ? family : "", server.sin6_family);
  x_disp(DMK_INFO, "\t port : %d", True_ntohs(server.sin6_port));
  x_disp(DMK_INFO, "\t flowinfo : %d", static_cast<int>(server.sin6_flowinfo));
  x_disp(DMK_INFO, "\t scope_id : %d", static_cast<int>(server.sin6_scope_id));
  char bytes[16 * 3 + 1];
  hexBytes(server.sin6_addr.s6_addr, 16, "%02X ", bytes, sizeof bytes);
  x_disp(DMK_INFO, "\t sin6_addr.u.Byte : [%s]", bytes);
  char words[8 * 5 + 1];
  size_t used = 0;
  words[0] = '\0';
  for (int i = 0; i < 8; ++i) {
    uint16_t word;
    memcpy(&word, server.sin6_addr.s6_addr + 2 * i, sizeof word);
    used += static_cast<size_t>(snprintf(words + used, sizeof words - used, "%04X ", True_ntohs(word)));
  }
  x_disp(DMK_INFO, "\t sin6_addr.u.Word : [%s]", words);
}

}  // namespace

int64_t socksDeadline() { return nowMs() + static_cast<int64_t>(effectiveSocksTimeout()) * 1000; }

int socksHandShake(int socket, int* socksError, unsigned short family) {
  return socksHandShake(socket, socksError, family, socksDeadline());
}

int dissolveConnection(int socket) {
  const int saved = errno;
  sockaddr unspecified;
  memset(&unspecified, 0, sizeof unspecified);
  unspecified.sa_family = AF_UNSPEC;
  const int code = True_connect(socket, &unspecified, sizeof unspecified) == 0 ? 0 : errno;
  errno = saved;
  return code;
}

int socksHandShake(int socket, int* socksError, unsigned short family, int64_t deadline) {
  if (!socksModeActive) return 0;
  const int savedErrno = errno;
  *socksError = 0;
  x_disp(DMK_INFO, "**************** starting socks connection ******************");
  x_disp(DMK_INFO, "* socks server : %s (%d)", orNull(socksIpv4Val), socksPort4Val);
  x_disp(DMK_INFO, "* socks server : %s (%d)", orNull(socksIpv6Val), socksPort6Val);
  x_disp(DMK_INFO, "************************");
  x_disp(DMK_INFO, "** starting handshake **");
  x_disp(DMK_INFO, "************************");
  const sockaddr* server = nullptr;
  socklen_t serverLength = 0;
  bool usable = false;
  const char* configured = nullptr;
  if (family == AF_INET) {
    server = reinterpret_cast<const sockaddr*>(&serverIPV4);
    serverLength = sizeof serverIPV4;
    usable = serverIPV4Usable;
    configured = socksIpv4Val;
    x_disp(DMK_INFO, "==> Connecting socket IPV4");
  } else if (family == AF_INET6) {
    server = reinterpret_cast<const sockaddr*>(&serverIPV6);
    serverLength = sizeof serverIPV6;
    usable = serverIPV6Usable;
    configured = socksIpv6Val;
    logIpv6Server(serverIPV6);
  } else {
    x_disp(DMK_ERROR, "unknown familly for socks connect");
    errno = ECONNREFUSED;
    return -1;
  }
  if (!usable) {
    if (configured == nullptr) {
      // No server of this family: its endpoint has no family at all, and a connect to that
      // would not fail but undo the socket's association. It is a server that cannot be reached.
      logSocketError("connect() failed with error code (SOCKET ERROR : %d %s : %s):", EAFNOSUPPORT);
      *socksError = EAFNOSUPPORT;
    } else {
      // A configured text that is not an address would otherwise become a broadcast address.
      x_disp(DMK_ERROR, "socks server address %s is not an address: server not reached", configured);
      *socksError = EADDRNOTAVAIL;
    }
    errno = savedErrno;
    return -1;
  }
  BlockingScope blocking(socket);
  int connected;
  {
    ConnectTimeoutScope bounded(socket, deadline);
    connected = True_connect(socket, server, serverLength);
  }
  if (connected != 0) {
    const int code = errno;
    if (code != EINPROGRESS && code != EAGAIN) {
      logSocketError("connect() failed with error code (SOCKET ERROR : %d %s : %s):", code);
      *socksError = code;
      errno = savedErrno;
      return -1;
    }
    // The blocking connect ran into the send time-out: the time for the exchange is used up.
    // Waiting on (a plain sleep, as this used to) would only hold the host up for nothing.
    // A connect the kernel goes on with after the agent gave up on it would connect the host's
    // socket to the SOCKS server behind the host's back, and the direct connect that follows
    // would then "succeed" there.
    dissolveConnection(socket);
    x_disp(DMK_ERROR, "connect() timeout expired (%d)", 0);
    *socksError = ETIMEDOUT;
    errno = ECONNREFUSED;
    return -1;
  }
  const int afterConnect = errno;
  x_disp(DMK_INFO, "connect() done on SOCKS server");
  x_disp(DMK_INFO, "==> Sending supported authentification methods");
  const unsigned char greeting[3] = {kVersion, 0x01, kNoAuthentication};
  if (True_send(socket, greeting, sizeof greeting, MSG_NOSIGNAL) == -1) {
    const int code = errno;
    logSocketError("failed to send client greeting (SOCKET ERROR : %d %s : %s)", code);
    *socksError = code;
    errno = afterConnect;
    return 3;
  }
  x_disp(DMK_INFO, "send client greeting OK");
  x_disp(DMK_INFO, "==> Waiting selected method");
  // Bytes a server cannot mean: a reply cut short fails instead of passing as "no authentication".
  unsigned char reply[2] = {0xff, 0xff};
  if (!receiveSomeData(socket, reply, 2, socksError, "selected method", deadline)) return 3;
  if (reply[0] == kVersion && reply[1] == kNoAuthentication) {
    x_disp(DMK_INFO, "***************************");
    x_disp(DMK_INFO, "** handshake successfull **");
    x_disp(DMK_INFO, "***************************");
    errno = afterConnect;
    return 1;
  }
  x_disp(DMK_ERROR, "unexpected received message from server");
  *socksError = EPROTONOSUPPORT;
  errno = afterConnect;
  return 3;
}

bool receiveSomeData(int socket, unsigned char* buffer, int length, int* socksError, const char* what,
                     int64_t deadline) {
  if (length < 1 || buffer == nullptr) return false;
  buffer[0] = 0;
  bool retried = false;
  ssize_t received = 0;
  for (;;) {
    if (!waitReadable(socket, deadline)) {
      // A server that stays silent, or sends a field cut short and then nothing, is given up at
      // the time-out, as one that failed.
      x_disp(DMK_ERROR, "failed to receive %s (SOCKET ERROR : %d %s : %s)", what, ETIMEDOUT,
             getSocketErrorKind(ETIMEDOUT), getSocketErrorMsg(ETIMEDOUT));
      *socksError = ETIMEDOUT;
      errno = ECONNREFUSED;
      return false;
    }
    const ssize_t got = True_recv(socket, buffer + received, static_cast<size_t>(length - received), MSG_DONTWAIT);
    if (got == -1 && (errno == EAGAIN || errno == EINTR)) {
      retried = true;
      continue;
    }
    if (got == -1) {
      received = -1;
      break;
    }
    received += got;
    // A field that came in pieces is read on until whole; a server that closed leaves it short.
    if (got == 0 || received == length) break;
    retried = true;
  }
  if (received == -1) {
    const int code = errno;
    x_disp(DMK_ERROR, "failed to receive %s (SOCKET ERROR : %d %s : %s)", what, code, getSocketErrorKind(code),
           getSocketErrorMsg(code));
    *socksError = code;
    errno = ECONNREFUSED;
    return false;
  }
  char* dump = static_cast<char*>(malloc(static_cast<size_t>(received) * 3 + 1));
  if (dump == nullptr) {
    x_disp(DMK_ERROR, "malloc error in \"receiveSomeData\"");
    return false;
  }
  hexBytes(buffer, static_cast<int>(received), "%02X ", dump, static_cast<size_t>(received) * 3 + 1);
  if (retried) {
    x_disp(DMK_INFO, "recv %s OK after some time... : %s", what, dump);
  } else {
    x_disp(DMK_INFO, "recv %s OK : %s", what, dump);
  }
  free(dump);
  return true;
}

namespace {

struct ReplyCode {
  const char* text;
  int socksError;
  int error;
};

// What each reply code means for the host: 7 and above report one error to the recorder and a
// refused connect to the host.
const ReplyCode kReplyCodes[9] = {
    {"Request succeeded", 0, 0},
    {"General SOCKS server failure", ECONNREFUSED, ECONNREFUSED},
    {"Connection not allowed by ruleset", ECONNREFUSED, ECONNREFUSED},
    {"Network unreachable", ENETUNREACH, ENETUNREACH},
    {"Host unreachable", EHOSTUNREACH, EHOSTUNREACH},
    {"Connection refused", ECONNREFUSED, ECONNREFUSED},
    {"TTL expired", ETIMEDOUT, ETIMEDOUT},
    {"Command not supported", EOPNOTSUPP, ECONNREFUSED},
    {"Address type not supported", EADDRNOTAVAIL, EADDRNOTAVAIL},
};

int failRequest(int* socksError, int code) {
  *socksError = code;
  errno = ECONNREFUSED;
  return 3;
}

}  // namespace

int socksRequest(int socket, const sockaddr* destination, int* socksError, int64_t deadline) {
  x_disp(DMK_INFO, "****************************");
  x_disp(DMK_INFO, "** starting socks request **");
  x_disp(DMK_INFO, "****************************");
  unsigned char request[22] = {kVersion, kConnect, kReserved, 0};
  size_t requestLength = 0;
  if (destination != nullptr && destination->sa_family == AF_INET) {
    const sockaddr_in* v4 = reinterpret_cast<const sockaddr_in*>(destination);
    request[3] = kIpv4;
    memcpy(request + 4, &v4->sin_addr, 4);
    memcpy(request + 8, &v4->sin_port, 2);
    requestLength = 10;
    const char* dotted = True_inet_ntoa(v4->sin_addr);
    x_disp(DMK_INFO, "* socks server request IPV4 %s(%d)", dotted != nullptr ? dotted : "", True_ntohs(v4->sin_port));
  } else if (destination != nullptr && destination->sa_family == AF_INET6) {
    const sockaddr_in6* v6 = reinterpret_cast<const sockaddr_in6*>(destination);
    request[3] = kIpv6;
    memcpy(request + 4, &v6->sin6_addr, 16);
    memcpy(request + 20, &v6->sin6_port, 2);
    requestLength = 22;
    char text[48];
    formatIpv6Groups(v6->sin6_addr.s6_addr, text, sizeof text);
    x_disp(DMK_INFO, "* socks server request IPV6 %s(%d)", text, True_ntohs(v6->sin6_port));
  } else {
    x_disp(DMK_ERROR, "unsupported way of connect");
    return failRequest(socksError, EAFNOSUPPORT);
  }
  char image[128];
  snprintf(image, sizeof image, "0x%02X", request[0]);
  hexBytes(request + 1, static_cast<int>(requestLength) - 1, ",0x%02X", image + strlen(image),
           sizeof image - strlen(image));
  x_disp(DMK_INFO, "Client request : [%s]", image);
  if (True_send(socket, request, requestLength, MSG_NOSIGNAL) == -1) {
    const int code = errno;
    logSocketError("failed to send client request (SOCKET ERROR : %d %s : %s)", code);
    return failRequest(socksError, code);
  }
  x_disp(DMK_INFO, "send client request OK");
  x_disp(DMK_INFO, "==> Waiting server reply");

  unsigned char field[16] = {0};
  if (!receiveSomeData(socket, field, 1, socksError, "protocol version", deadline)) return 3;
  if (field[0] != request[0]) {
    x_disp(DMK_ERROR, "bad protocol version (expected : %d received %d)", request[0], field[0]);
    return failRequest(socksError, EPROTONOSUPPORT);
  }
  if (!receiveSomeData(socket, field, 1, socksError, "connect status", deadline)) return 3;
  const unsigned char code = field[0];
  if (code == 0) {
    x_disp(DMK_INFO, "%s", kReplyCodes[0].text);
  } else {
    const bool known = code <= 8;
    x_disp(DMK_ERROR, "%s", known ? kReplyCodes[code].text : "Unknown error");
    *socksError = known ? kReplyCodes[code].socksError : ECONNABORTED;
    errno = known ? kReplyCodes[code].error : ECONNREFUSED;
    return 4;
  }
  if (!receiveSomeData(socket, field, 1, socksError, "reserved field", deadline)) return 3;
  if (field[0] != request[2]) {
    x_disp(DMK_ERROR, "bad reserved field");
    return failRequest(socksError, EPROTONOSUPPORT);
  }
  if (!receiveSomeData(socket, field, 1, socksError, "format", deadline)) return 3;
  if (field[0] == kIpv4) {
    if (!receiveSomeData(socket, field, 4, socksError, "redirect IPV4 address", deadline)) return 3;
  } else if (field[0] == kIpv6) {
    if (!receiveSomeData(socket, field, 16, socksError, "redirect IPV6 address", deadline)) return 3;
  } else {
    x_disp(DMK_ERROR, field[0] == kDomainName ? "Domain name address (unsupported)" : "Invalid ATYP field");
    return failRequest(socksError, EPROTONOSUPPORT);
  }
  unsigned char port[2] = {0, 0};
  if (!receiveSomeData(socket, port, 2, socksError, "redirect port", deadline)) return 3;
  x_disp(DMK_INFO, "* socks server routed  (%d)", port[0] * 256 + port[1]);
  x_disp(DMK_INFO, "*******************************");
  x_disp(DMK_INFO, "** socks request successfull **");
  x_disp(DMK_INFO, "*******************************");
  return 1;
}
