// Everything in the agent is hidden unless marked: only the names a host may bind to are exported.
#pragma once

#define TALVEX_EXPORT __attribute__((visibility("default")))
