#include "transport/recorder_socket.h"

#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include "base/variable_names.h"
#include "diag/debug_log.h"

const char* const kRecorderSocketVariable = TALVEX_VAR_RECORDER_SOCKET;

namespace {

sockaddr_un address;
socklen_t addressLength = 0;

}  // namespace

void readRecorderSocket() {
  addressLength = 0;
  const char* name = getenv(kRecorderSocketVariable);
  if (name == nullptr || name[0] == '\0') return;
  // Bounded by the address's own size: a longer value cannot be a socket's name.
  const size_t length = strnlen(name, sizeof address.sun_path + 1);
  if (length >= sizeof address.sun_path) {
    x_disp(DMK_ERROR, "%s is longer than a socket name may be: the channel uses TCP", kRecorderSocketVariable);
    return;
  }
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, name, length);
  if (name[0] == '@') {
    address.sun_path[0] = '\0';
    addressLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
  } else {
    addressLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length + 1);
  }
}

const sockaddr_un* recorderSocketAddress(socklen_t* length) {
  if (addressLength == 0) return nullptr;
  *length = addressLength;
  return &address;
}
