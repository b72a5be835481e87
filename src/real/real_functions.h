// The C library's own functions, reached without passing through the agent's exports.
#pragma once

#include <netdb.h>
#include <stdint.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <arpa/inet.h>
#include <errno.h>
#include <unistd.h>

#include "real/real_function_list.h"

#define TALVEX_DECLARE_REAL_POINTER(result, name, parameters, arguments) extern result(*name##_ptr) parameters;
TALVEX_REAL_FUNCTIONS(TALVEX_DECLARE_REAL_POINTER)
#undef TALVEX_DECLARE_REAL_POINTER

int WSAGetLastError();
void WSASetLastError(int code);

void* MyGetProcAddr(const char* name);
void* GetProcAddress(void* handle, const char* name);
typedef void* (*GetProcAddressFunction)(void*, const char*);
GetProcAddressFunction getfGetProcAddress();
void* LoadSymbolFromLibrary(const char* path, const char* name);

// Fills the pointers the agent's own work needs, whatever they held (start-up, once).
void initializeRealFunctionPointers();

#define TALVEX_DECLARE_TRUE_WRAPPER(result, name, parameters, arguments) result True_##name parameters;
TALVEX_REAL_FUNCTIONS(TALVEX_DECLARE_TRUE_WRAPPER)
#undef TALVEX_DECLARE_TRUE_WRAPPER

// The error code a real call left, read and put back the way every handler does it; before
// start-up has set the accessors (a call made while the agent starts) errno is used directly.
inline int readErrorCode() { return WSAGetLastError_ptr != nullptr ? WSAGetLastError_ptr() : errno; }
inline void restoreErrorCode(int code) {
  if (WSASetLastError_ptr != nullptr) {
    WSASetLastError_ptr(code);
  } else {
    errno = code;
  }
}

// Calls through a real-function pointer, looking it up first when it is still null. A name the C
// library lacks gives the neutral value of the result type (0, null) and leaves errno alone.
template <class Function, class... Arguments>
inline auto callReal(Function& pointer, const char* name, Arguments... arguments)
    -> decltype(pointer(arguments...)) {
  if (pointer == nullptr) {
    pointer = reinterpret_cast<Function>(MyGetProcAddr(name));
    if (pointer == nullptr) return decltype(pointer(arguments...))();
  }
  return pointer(arguments...);
}
