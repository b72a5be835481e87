#include "config/tls_keylog_file.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "base/variable_names.h"

namespace {

// Copied, not pointed at: the program may change its environment later.
char keylogFile[PATH_MAX];
bool keylogOn;

}  // namespace

void readTlsKeylogFile() {
  const char* value = getenv(TALVEX_VAR_TLS_KEYLOG);
  const size_t length = value != nullptr ? strnlen(value, sizeof keylogFile) : 0;
  bool on = length > 0 && length < sizeof keylogFile;
  if (on) memcpy(keylogFile, value, length + 1);
  __atomic_store_n(&keylogOn, on, __ATOMIC_RELEASE);
}

const char* tlsKeylogFile() { return __atomic_load_n(&keylogOn, __ATOMIC_ACQUIRE) ? keylogFile : nullptr; }
