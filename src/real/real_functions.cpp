#include "real/real_functions.h"
#include "base/symbol_versions.h"

#include <dlfcn.h>
#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "base/file_status.h"
#include "base/process_identity.h"
#include "diag/debug_log.h"
#include "real/dlsym_bootstrap.h"

__asm__(".symver dlopen,dlopen@" TALVEX_GLIBC_2_1);

#define TALVEX_DEFINE_REAL_POINTER(result, name, parameters, arguments) result(*name##_ptr) parameters = nullptr;
TALVEX_REAL_FUNCTIONS(TALVEX_DEFINE_REAL_POINTER)
#undef TALVEX_DEFINE_REAL_POINTER

int WSAGetLastError() { return errno; }
void WSASetLastError(int code) { errno = code; }

void* MyGetProcAddr(const char* name) {
  void* address = Truedlsym(RTLD_NEXT, name);
  if (address == nullptr) address = Truedlsym(RTLD_DEFAULT, name);
  x_disp(DMK_INFO, "Get_addr(%s)=> %08lx", name, reinterpret_cast<unsigned long>(address));
  return address;
}

void* GetProcAddress(void* handle, const char* name) {
  void* address = Truedlsym(handle, name);
  if (address == nullptr) address = Truedlsym(RTLD_DEFAULT, name);
  return address;
}

GetProcAddressFunction getfGetProcAddress() { return &GetProcAddress; }

void* LoadSymbolFromLibrary(const char* path, const char* name) {
  // A path that does not exist canonicalises to null, and dlopen(null) is the main program: the
  // lookup then runs in the global scope. The caller only judges null or not.
  char* canonical = realpath(path, nullptr);
  // Only a regular file is opened: the loader would wait for ever on a FIFO's writer, and
  // start-up with it.
  FileStatus status;
  if (canonical != nullptr && statusOfPath(canonical, &status) && !S_ISREG(status.mode)) {
    x_disp(DMK_ERROR, "%s is not a regular file: not loaded", canonical);
    free(canonical);
    return nullptr;
  }
  void* handle = realDlopen(canonical, RTLD_NOW);
  free(canonical);
  return Truedlsym(handle, name);
}

namespace {

template <class Function>
void fill(GetProcAddressFunction lookup, Function& pointer, const char* name) {
  pointer = reinterpret_cast<Function>(lookup(RTLD_NEXT, name));
}

}  // namespace

void initializeRealFunctionPointers() {
  const GetProcAddressFunction lookup = getfGetProcAddress();
  fill(lookup, accept_ptr, "accept");
  fill(lookup, close_ptr, "close");
  fill(lookup, connect_ptr, "connect");
  fill(lookup, getaddrinfo_ptr, "getaddrinfo");
  fill(lookup, gethostbyname_ptr, "gethostbyname");
  fill(lookup, gethostname_ptr, "gethostname");
  fill(lookup, getpeername_ptr, "getpeername");
  fill(lookup, getservbyname_ptr, "getservbyname");
  fill(lookup, getservbyport_ptr, "getservbyport");
  fill(lookup, getsockname_ptr, "getsockname");
  fill(lookup, getsockopt_ptr, "getsockopt");
  fill(lookup, htonl_ptr, "htonl");
  fill(lookup, htons_ptr, "htons");
  fill(lookup, inet_addr_ptr, "inet_addr");
  fill(lookup, inet_pton_ptr, "inet_pton");
  fill(lookup, inet_ntoa_ptr, "inet_ntoa");
  fill(lookup, listen_ptr, "listen");
  fill(lookup, bind_ptr, "bind");
  fill(lookup, ntohs_ptr, "ntohs");
  fill(lookup, recv_ptr, "recv");
  fill(lookup, recvfrom_ptr, "recvfrom");
  fill(lookup, select_ptr, "select");
  fill(lookup, send_ptr, "send");
  fill(lookup, sendto_ptr, "sendto");
  WSAGetLastError_ptr = &WSAGetLastError;
  WSASetLastError_ptr = &WSASetLastError;
  socketInitialized = 1;
  // socket last: its pointer is what tells a racing thread that the table is complete.
  fill(lookup, socket_ptr, "socket");
}

// The arguments come in parentheses; the comma before them goes where there are none.
#define TALVEX_UNPACK(...) __VA_ARGS__
#define TALVEX_CALL_REAL(pointer, name, ...) callReal(pointer, name __VA_OPT__(, ) __VA_ARGS__)
#define TALVEX_DEFINE_TRUE_WRAPPER(result, name, parameters, arguments) \
  result True_##name parameters { return TALVEX_CALL_REAL(name##_ptr, #name, TALVEX_UNPACK arguments); }
TALVEX_REAL_FUNCTIONS(TALVEX_DEFINE_TRUE_WRAPPER)
#undef TALVEX_DEFINE_TRUE_WRAPPER
#undef TALVEX_CALL_REAL
#undef TALVEX_UNPACK
