#include "socks/socks_exchange.h"

#include <errno.h>

#include "diag/debug_log.h"
#include "socks/socks_routing.h"

// The SOCKS client is not built yet, and SOCKS mode cannot be switched on without it: should this
// ever run, the server counts as unreachable and the connect goes straight to its destination.
int runSocksExchange(SOCKETINFO* record, const sockaddr* destination, int length, int* socksError) {
  (void)record;
  (void)destination;
  (void)length;
  *socksError = ECONNREFUSED;
  x_disp(DMK_ERROR, "Socks connect failed (socks server unreachable)");
  return SOCKS_UNREACHABLE;
}
