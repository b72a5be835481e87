#include "registry/recording_decision.h"

#include "base/process_identity.h"
#include "config/socks_config.h"
#include "registry/socket_registry.h"

const char* ImageShouldBeLogged[4] = {"SHOULDBELOGGED", "SOCKSRECORDED", "UDPSOCKET", "NONINET"};

int shouldBeLogged(SOCKETINFO* record) {
  const unsigned family = getFamily(record);
  if (family != 10 && family != 2) return SBL_NONINET;
  if (getProtocol(record) == 17) return SBL_UDPSOCKET;
  // Traffic through the SOCKS server is recorded by the recorder's proxy itself.
  if (!socksModeActive || doubleLogSocks) return SBL_SHOULDBELOGGED;
  return isSocketRerouted(record) == 1 ? SBL_SOCKSRECORDED : SBL_SHOULDBELOGGED;
}
