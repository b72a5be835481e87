#include "real/real_functions.h"
#include "base/symbol_versions.h"

#include <dlfcn.h>
#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "base/process_identity.h"
#include "diag/debug_log.h"
#include "base/file_status.h"
#include "real/dlsym_bootstrap.h"

__asm__(".symver dlopen,dlopen@" TALVEX_GLIBC_2_1);

decltype(&::socket) socket_ptr = nullptr;
decltype(&::connect) connect_ptr = nullptr;
decltype(&::getaddrinfo) getaddrinfo_ptr = nullptr;
decltype(&::getsockname) getsockname_ptr = nullptr;
decltype(&::bind) bind_ptr = nullptr;
decltype(&::getpeername) getpeername_ptr = nullptr;
decltype(&::send) send_ptr = nullptr;
decltype(&::recv) recv_ptr = nullptr;
decltype(&::sendto) sendto_ptr = nullptr;
decltype(&::recvfrom) recvfrom_ptr = nullptr;
decltype(&::recvmsg) recvmsg_ptr = nullptr;
decltype(&::sendmsg) sendmsg_ptr = nullptr;
decltype(&::setsockopt) setsockopt_ptr = nullptr;
decltype(&::getsockopt) getsockopt_ptr = nullptr;
decltype(&::listen) listen_ptr = nullptr;
decltype(&::accept) accept_ptr = nullptr;
decltype(&::close) close_ptr = nullptr;
decltype(&::select) select_ptr = nullptr;
decltype(&::read) read_ptr = nullptr;
decltype(&::write) write_ptr = nullptr;
decltype(&::pselect) pselect_ptr = nullptr;
decltype(&::gethostbyname) gethostbyname_ptr = nullptr;
decltype(&::gethostname) gethostname_ptr = nullptr;
decltype(&::getservbyname) getservbyname_ptr = nullptr;
decltype(&::getservbyport) getservbyport_ptr = nullptr;
uint32_t (*htonl_ptr)(uint32_t) = nullptr;
uint16_t (*htons_ptr)(uint16_t) = nullptr;
uint16_t (*ntohs_ptr)(uint16_t) = nullptr;
decltype(&::inet_addr) inet_addr_ptr = nullptr;
decltype(&::inet_pton) inet_pton_ptr = nullptr;
decltype(&::inet_ntoa) inet_ntoa_ptr = nullptr;
ErrorGetter WSAGetLastError_ptr = nullptr;
ErrorSetter WSASetLastError_ptr = nullptr;

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

int True_socket(int domain, int type, int protocol) { return callReal(socket_ptr, "socket", domain, type, protocol); }
int True_connect(int socket, const sockaddr* address, socklen_t length) {
  return callReal(connect_ptr, "connect", socket, address, length);
}
int True_getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
  return callReal(getaddrinfo_ptr, "getaddrinfo", node, service, hints, result);
}
int True_getsockname(int socket, sockaddr* address, socklen_t* length) {
  return callReal(getsockname_ptr, "getsockname", socket, address, length);
}
int True_bind(int socket, const sockaddr* address, socklen_t length) {
  return callReal(bind_ptr, "bind", socket, address, length);
}
int True_getpeername(int socket, sockaddr* address, socklen_t* length) {
  return callReal(getpeername_ptr, "getpeername", socket, address, length);
}
ssize_t True_send(int socket, const void* buffer, size_t length, int flags) {
  return callReal(send_ptr, "send", socket, buffer, length, flags);
}
ssize_t True_recv(int socket, void* buffer, size_t length, int flags) {
  return callReal(recv_ptr, "recv", socket, buffer, length, flags);
}
ssize_t True_sendto(int socket, const void* buffer, size_t length, int flags, const sockaddr* address,
                    socklen_t addressLength) {
  return callReal(sendto_ptr, "sendto", socket, buffer, length, flags, address, addressLength);
}
ssize_t True_recvfrom(int socket, void* buffer, size_t length, int flags, sockaddr* address,
                      socklen_t* addressLength) {
  return callReal(recvfrom_ptr, "recvfrom", socket, buffer, length, flags, address, addressLength);
}
ssize_t True_recvmsg(int socket, msghdr* message, int flags) {
  return callReal(recvmsg_ptr, "recvmsg", socket, message, flags);
}
ssize_t True_sendmsg(int socket, const msghdr* message, int flags) {
  return callReal(sendmsg_ptr, "sendmsg", socket, message, flags);
}
int True_getsockopt(int socket, int level, int name, void* value, socklen_t* length) {
  return callReal(getsockopt_ptr, "getsockopt", socket, level, name, value, length);
}
int True_listen(int socket, int backlog) { return callReal(listen_ptr, "listen", socket, backlog); }
int True_accept(int socket, sockaddr* address, socklen_t* length) {
  return callReal(accept_ptr, "accept", socket, address, length);
}
int True_close(int descriptor) { return callReal(close_ptr, "close", descriptor); }
int True_select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, timeval* timeout) {
  return callReal(select_ptr, "select", nfds, readfds, writefds, exceptfds, timeout);
}
ssize_t True_read(int descriptor, void* buffer, size_t count) {
  return callReal(read_ptr, "read", descriptor, buffer, count);
}
ssize_t True_write(int descriptor, const void* buffer, size_t count) {
  return callReal(write_ptr, "write", descriptor, buffer, count);
}
hostent* True_gethostbyname(const char* name) { return callReal(gethostbyname_ptr, "gethostbyname", name); }
int True_gethostname(char* name, size_t length) { return callReal(gethostname_ptr, "gethostname", name, length); }
servent* True_getservbyname(const char* name, const char* protocol) {
  return callReal(getservbyname_ptr, "getservbyname", name, protocol);
}
servent* True_getservbyport(int port, const char* protocol) {
  return callReal(getservbyport_ptr, "getservbyport", port, protocol);
}
uint32_t True_htonl(uint32_t value) { return callReal(htonl_ptr, "htonl", value); }
uint16_t True_htons(uint16_t value) { return callReal(htons_ptr, "htons", value); }
uint16_t True_ntohs(uint16_t value) { return callReal(ntohs_ptr, "ntohs", value); }
in_addr_t True_inet_addr(const char* text) { return callReal(inet_addr_ptr, "inet_addr", text); }
int True_inet_pton(int family, const char* text, void* destination) {
  return callReal(inet_pton_ptr, "inet_pton", family, text, destination);
}
char* True_inet_ntoa(in_addr address) { return callReal(inet_ntoa_ptr, "inet_ntoa", address); }
int True_WSAGetLastError() { return callReal(WSAGetLastError_ptr, "WSAGetLastError"); }
void True_WSASetLastError(int code) { callReal(WSASetLastError_ptr, "WSASetLastError", code); }
