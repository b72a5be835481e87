// Two flags other modules of the host may ask the agent about; the agent itself never does.
#pragma once

#include "base/export_visibility.h"

extern "C" {
TALVEX_EXPORT int isOptionalSocketHook();
TALVEX_EXPORT int isOptionalSocketHook2();
}
