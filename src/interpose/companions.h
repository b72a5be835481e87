// Init<name> and Direct<name>: side doors to the real functions for other modules of the host,
// exported under their C++ names. They never start the agent, log or record.
#pragma once

#include "base/export_visibility.h"
#include "hooks/handlers.h"
#include "interpose/socket_export_list.h"
#include "real/dlsym_bootstrap.h"

#define TALVEX_DECLARE_COMPANIONS(result, name, parameters, arguments, throws) \
  TALVEX_EXPORT void Init##name();                                             \
  TALVEX_EXPORT result Direct##name parameters;
TALVEX_SOCKET_EXPORTS(TALVEX_DECLARE_COMPANIONS)
#undef TALVEX_DECLARE_COMPANIONS
