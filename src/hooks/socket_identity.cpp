#include "hooks/socket_identity.h"

#include <errno.h>
#include <netinet/in.h>
#include <stdint.h>
#include <string.h>

#include "config/extension_switches.h"
#include "message/address_attributes.h"
#include "message/recorder_message.h"
#include "real/real_functions.h"
#include "registry/socket_registry.h"

namespace {

// An unbound end (a connect refused at once) has no local address worth naming.
bool unspecified(const sockaddr_storage& address) {
  static const unsigned char zeros[16] = {0};
  if (address.ss_family == AF_INET) {
    return reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr == 0;
  }
  return memcmp(reinterpret_cast<const sockaddr_in6&>(address).sin6_addr.s6_addr, zeros, sizeof zeros) == 0;
}

}  // namespace

void addSocketIdentity(RecorderMessage& message, int socket, bool withLocalPort) {
  if (!extensionOn(EXT_SOCKET_IDENTITY)) return;
  const int savedErrno = errno;
  int error = 0;
  const uint64_t cookie = socketCookie(static_cast<unsigned>(socket), &error);
  if (cookie != 0) message.setInt64(RMA_COOKIE, static_cast<int64_t>(cookie));
  sockaddr_storage local = {};
  socklen_t length = sizeof local;
  char text[48];
  if (True_getsockname(socket, reinterpret_cast<sockaddr*>(&local), &length) == 0 && !unspecified(local) &&
      formatAddressText(reinterpret_cast<const sockaddr*>(&local), text, sizeof text)) {
    message.set(RMA_LOCALIP, text, 0);
    if (withLocalPort) {
      const in_port_t port = local.ss_family == AF_INET ? reinterpret_cast<const sockaddr_in&>(local).sin_port
                                                        : reinterpret_cast<const sockaddr_in6&>(local).sin6_port;
      message.set(RMA_LOCALPORT, static_cast<int>(ntohs(port)));
    }
  }
  errno = savedErrno;
}
