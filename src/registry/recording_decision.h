// Whether a socket's traffic is recorded by the agent, and if not, why.
#pragma once

#include "base/export_visibility.h"

struct SOCKETINFO;

enum ShouldBeLoggedReason {
  SBL_SHOULDBELOGGED = 0,
  SBL_SOCKSRECORDED = 1,
  SBL_UDPSOCKET = 2,
  SBL_NONINET = 3,
};

extern const char* ImageShouldBeLogged[4];

extern "C" TALVEX_EXPORT int shouldBeLogged(SOCKETINFO* record);
