// The agent's own stand-ins for the TLS libraries' functions, by name, for the exported dlsym.
#pragma once

#include "real/dlsym_bootstrap.h"

// The stand-in for `name`, or null when the agent has none.
TALVEX_BEFORE_SANITIZERS void* tlsStandIn(const char* name);
