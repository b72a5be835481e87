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

typedef int (*ErrorGetter)();
typedef void (*ErrorSetter)(int);

extern decltype(&::socket) socket_ptr;
extern decltype(&::connect) connect_ptr;
extern decltype(&::getaddrinfo) getaddrinfo_ptr;
extern decltype(&::getsockname) getsockname_ptr;
extern decltype(&::bind) bind_ptr;
extern decltype(&::getpeername) getpeername_ptr;
extern decltype(&::send) send_ptr;
extern decltype(&::recv) recv_ptr;
extern decltype(&::sendto) sendto_ptr;
extern decltype(&::recvfrom) recvfrom_ptr;
extern decltype(&::recvmsg) recvmsg_ptr;
extern decltype(&::sendmsg) sendmsg_ptr;
extern decltype(&::setsockopt) setsockopt_ptr;
extern decltype(&::getsockopt) getsockopt_ptr;
extern decltype(&::listen) listen_ptr;
extern decltype(&::accept) accept_ptr;
extern decltype(&::close) close_ptr;
extern decltype(&::select) select_ptr;
extern decltype(&::read) read_ptr;
extern decltype(&::write) write_ptr;
extern decltype(&::pselect) pselect_ptr;
extern decltype(&::gethostbyname) gethostbyname_ptr;
extern decltype(&::gethostname) gethostname_ptr;
extern decltype(&::getservbyname) getservbyname_ptr;
extern decltype(&::getservbyport) getservbyport_ptr;
extern uint32_t (*htonl_ptr)(uint32_t);
extern uint16_t (*htons_ptr)(uint16_t);
extern uint16_t (*ntohs_ptr)(uint16_t);
extern decltype(&::inet_addr) inet_addr_ptr;
extern decltype(&::inet_pton) inet_pton_ptr;
extern decltype(&::inet_ntoa) inet_ntoa_ptr;
extern ErrorGetter WSAGetLastError_ptr;
extern ErrorSetter WSASetLastError_ptr;

int WSAGetLastError();
void WSASetLastError(int code);

void* MyGetProcAddr(const char* name);
void* GetProcAddress(void* handle, const char* name);
typedef void* (*GetProcAddressFunction)(void*, const char*);
GetProcAddressFunction getfGetProcAddress();
void* LoadSymbolFromLibrary(const char* path, const char* name);

// Fills the pointers the agent's own work needs, whatever they held (start-up, once).
void initializeRealFunctionPointers();

int True_socket(int domain, int type, int protocol);
int True_connect(int socket, const sockaddr* address, socklen_t length);
int True_getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result);
int True_getsockname(int socket, sockaddr* address, socklen_t* length);
int True_bind(int socket, const sockaddr* address, socklen_t length);
int True_getpeername(int socket, sockaddr* address, socklen_t* length);
ssize_t True_send(int socket, const void* buffer, size_t length, int flags);
ssize_t True_recv(int socket, void* buffer, size_t length, int flags);
ssize_t True_sendto(int socket, const void* buffer, size_t length, int flags, const sockaddr* address,
                    socklen_t addressLength);
ssize_t True_recvfrom(int socket, void* buffer, size_t length, int flags, sockaddr* address,
                      socklen_t* addressLength);
ssize_t True_recvmsg(int socket, msghdr* message, int flags);
ssize_t True_sendmsg(int socket, const msghdr* message, int flags);
int True_getsockopt(int socket, int level, int name, void* value, socklen_t* length);
int True_listen(int socket, int backlog);
int True_accept(int socket, sockaddr* address, socklen_t* length);
int True_close(int descriptor);
int True_select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, timeval* timeout);
ssize_t True_read(int descriptor, void* buffer, size_t count);
ssize_t True_write(int descriptor, const void* buffer, size_t count);
hostent* True_gethostbyname(const char* name);
int True_gethostname(char* name, size_t length);
servent* True_getservbyname(const char* name, const char* protocol);
servent* True_getservbyport(int port, const char* protocol);
uint32_t True_htonl(uint32_t value);
uint16_t True_htons(uint16_t value);
uint16_t True_ntohs(uint16_t value);
in_addr_t True_inet_addr(const char* text);
int True_inet_pton(int family, const char* text, void* destination);
char* True_inet_ntoa(in_addr address);
int True_WSAGetLastError();
void True_WSASetLastError(int code);

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
