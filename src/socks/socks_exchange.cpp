#include "socks/socks_exchange.h"

#include <errno.h>

#include "diag/debug_log.h"
#include "registry/socket_registry.h"
#include "socks/socks_client.h"
#include "socks/socks_status.h"

int runSocksExchange(SOCKETINFO* record, const sockaddr* destination, int length, int* socksError) {
  const int socket = getSocket(record);
  // An IPv4 destination always goes to the IPv4 server, an IPv6 one to the IPv6 server.
  const int64_t deadline = socksDeadline();
  const int handshake = socksHandShake(socket, socksError, destination->sa_family, deadline);
  switch (handshake) {
    case 0:
      return SOCKS_NOT_REROUTED;
    case 1:
      break;
    case 3:
      x_disp(DMK_ERROR, "Socks connect failed (wrong handshake)");
      errno = ECONNREFUSED;
      return SOCKS_FAILED;
    case -1:
      x_disp(DMK_ERROR, "Socks connect failed (socks server unreachable)");
      errno = ECONNREFUSED;
      return SOCKS_UNREACHABLE;
    default:
      x_disp(DMK_ERROR, "Socks connect failed (wrong return code : %d)", handshake);
      errno = ECONNREFUSED;
      return SOCKS_FAILED;
  }
  const int request = socksRequest(socket, destination, socksError, deadline);
  if (request != 1) return request;
  createSockaddrElem(record, destination, length);
  return SOCKS_REROUTED;
}
