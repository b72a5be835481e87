// The TLS libraries' own functions, found at run time: the agent links none of them, and a program
// that loads none pays nothing for them.
#pragma once

#include "real/tls_function_list.h"

enum TlsFunction {
#define TALVEX_TLS_ENUM(result, name, parameters, arguments) TLS_FN_##name,
  TALVEX_TLS_FUNCTIONS(TALVEX_TLS_ENUM)
#undef TALVEX_TLS_ENUM
      TLS_FN_COUNT
};

extern const char* const kTlsFunctionNames[TLS_FN_COUNT];

// The library's function `function`, for a call that returns to `caller`: the definition the
// caller would have been bound to without the agent. The next definition after the agent where
// the library is in the program's global scope; otherwise the one in the caller's own scope (a
// library opened with dlopen in a local scope, as a Python module's libssl, is out of reach of
// RTLD_NEXT, but not of the object that needs it). Null when neither has it.
void* tlsFunction(TlsFunction function, const void* caller);

// The library function the thread's stand-in is calling: where a library jumps to another
// stand-in, leaving the first one's return address, this is the caller that counts.
extern __thread const void* tlsLibraryEntered __attribute__((tls_model("initial-exec")));

// For a lookup of `name` in the handle of a library the program opened itself, made from
// `caller`: whether the stand-in, called from the same object, calls `address` (which it then
// does, if it had no answer for that object yet).
bool adoptTlsFunction(const char* name, void* address, const void* caller);

#define TALVEX_TLS_TYPE(result, name, parameters, arguments) typedef result(*name##_type) parameters;
TALVEX_TLS_FUNCTIONS(TALVEX_TLS_TYPE)
#undef TALVEX_TLS_TYPE

// The function, typed: realTls<TLS_FN_SSL_write, SSL_write_type>(caller).
template <TlsFunction function, class Type>
inline Type realTls(const void* caller) {
  return reinterpret_cast<Type>(tlsFunction(function, caller));
}
