#include "config/extension_switches.h"

#include <stdlib.h>

#include "base/variable_names.h"

namespace {

const char* const kVariables[EXT_COUNT] = {TALVEX_VAR_SOCKET_IDENTITY, TALVEX_VAR_CONNECT_OUTCOME,
                                           TALVEX_VAR_COMMAND_LINE, TALVEX_VAR_ALL_RESOLUTIONS,
                                           TALVEX_VAR_UNRECORDED_SOCKETS, TALVEX_VAR_PID_EVERYWHERE,
                                           TALVEX_VAR_TLS_PLAINTEXT, TALVEX_VAR_TLS_WIRE};
// Bit e set while extension e is on. Written once at start-up, read by every thread after.
unsigned switchedOn;

}  // namespace

void readExtensionSwitches() {
  unsigned on = 0;
  for (int e = 0; e < EXT_COUNT; ++e) {
    if (getenv(kVariables[e]) != nullptr) on |= 1u << e;
  }
  __atomic_store_n(&switchedOn, on, __ATOMIC_RELAXED);
}

bool extensionOn(Extension extension) {
  return (__atomic_load_n(&switchedOn, __ATOMIC_RELAXED) & (1u << extension)) != 0;
}
