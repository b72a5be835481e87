#include "config/optional_hooks.h"

#include "base/environment.h"
#include "base/variable_names.h"

namespace {
// -1 until first asked; a race can only store the same answer twice.
int optionalSocketHook = -1;
int optionalSocketHook2 = -1;

int cachedPresence(int* cache, const char* name) {
  if (*cache == -1) *cache = isVariableSet(name) ? 1 : 0;
  return *cache;
}
}  // namespace

int isOptionalSocketHook() { return cachedPresence(&optionalSocketHook, TALVEX_VAR_OPT_HOOK); }
int isOptionalSocketHook2() { return cachedPresence(&optionalSocketHook2, TALVEX_VAR_OPT_HOOK_2); }
