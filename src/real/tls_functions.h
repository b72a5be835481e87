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

// The library's function `function`, for a call that returns to `caller`. The next definition
// after the agent where the library is in the program's global scope; otherwise the one in the
// caller's own scope (a library opened with dlopen in a local scope, as a Python module's libssl,
// is out of reach of RTLD_NEXT, but not of the object that needs it), or in the scope of a
// function of the same library found before. Null when none has it.
void* tlsFunction(TlsFunction function, const void* caller);

// For a program's own lookup of `name` in a library it opened: whether the stand-in calls
// `address` (which it then does from now on, if it had found none yet).
bool adoptTlsFunction(const char* name, void* address);

#define TALVEX_TLS_TYPE(result, name, parameters, arguments) typedef result(*name##_type) parameters;
TALVEX_TLS_FUNCTIONS(TALVEX_TLS_TYPE)
#undef TALVEX_TLS_TYPE

// The function, typed: realTls<TLS_FN_SSL_write, SSL_write_type>(caller).
template <TlsFunction function, class Type>
inline Type realTls(const void* caller) {
  return reinterpret_cast<Type>(tlsFunction(function, caller));
}
