// The C library's functions the agent reaches without passing through its own exports, with
// their exact signatures: X(result, name, parameters, arguments). Each has a pointer <name>_ptr,
// null until it is looked up, and a wrapper True_<name> that looks it up on first use; both are
// generated from this one list (real_functions.h and .cpp). WSAGetLastError and WSASetLastError
// are the agent's own accessors of errno, reached the same way.
#pragma once

#define TALVEX_REAL_FUNCTIONS(X) \
  X(int, socket, (int domain, int type, int protocol), (domain, type, protocol)) \
  X(int, connect, (int socket, const sockaddr* address, socklen_t length), (socket, address, length)) \
  X(int, getaddrinfo, (const char* node, const char* service, const addrinfo* hints, addrinfo** result), (node, service, hints, result)) \
  X(int, getsockname, (int socket, sockaddr* address, socklen_t* length), (socket, address, length)) \
  X(int, bind, (int socket, const sockaddr* address, socklen_t length), (socket, address, length)) \
  X(int, getpeername, (int socket, sockaddr* address, socklen_t* length), (socket, address, length)) \
  X(ssize_t, send, (int socket, const void* buffer, size_t length, int flags), (socket, buffer, length, flags)) \
  X(ssize_t, recv, (int socket, void* buffer, size_t length, int flags), (socket, buffer, length, flags)) \
  X(ssize_t, sendto, (int socket, const void* buffer, size_t length, int flags, const sockaddr* address, socklen_t addressLength), (socket, buffer, length, flags, address, addressLength)) \
  X(ssize_t, recvfrom, (int socket, void* buffer, size_t length, int flags, sockaddr* address, socklen_t* addressLength), (socket, buffer, length, flags, address, addressLength)) \
  X(ssize_t, recvmsg, (int socket, msghdr* message, int flags), (socket, message, flags)) \
  X(ssize_t, sendmsg, (int socket, const msghdr* message, int flags), (socket, message, flags)) \
  X(int, setsockopt, (int socket, int level, int name, const void* value, socklen_t length), (socket, level, name, value, length)) \
  X(int, getsockopt, (int socket, int level, int name, void* value, socklen_t* length), (socket, level, name, value, length)) \
  X(int, listen, (int socket, int backlog), (socket, backlog)) \
  X(int, accept, (int socket, sockaddr* address, socklen_t* length), (socket, address, length)) \
  X(int, close, (int descriptor), (descriptor)) \
  X(int, select, (int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, timeval* timeout), (nfds, readfds, writefds, exceptfds, timeout)) \
  X(ssize_t, read, (int descriptor, void* buffer, size_t count), (descriptor, buffer, count)) \
  X(ssize_t, write, (int descriptor, const void* buffer, size_t count), (descriptor, buffer, count)) \
  X(int, pselect, (int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, const timespec* timeout, const sigset_t* sigmask), (nfds, readfds, writefds, exceptfds, timeout, sigmask)) \
  X(hostent*, gethostbyname, (const char* name), (name)) \
  X(int, gethostname, (char* name, size_t length), (name, length)) \
  X(servent*, getservbyname, (const char* name, const char* protocol), (name, protocol)) \
  X(servent*, getservbyport, (int port, const char* protocol), (port, protocol)) \
  X(uint32_t, htonl, (uint32_t value), (value)) \
  X(uint16_t, htons, (uint16_t value), (value)) \
  X(uint16_t, ntohs, (uint16_t value), (value)) \
  X(in_addr_t, inet_addr, (const char* text), (text)) \
  X(int, inet_pton, (int family, const char* text, void* destination), (family, text, destination)) \
  X(char*, inet_ntoa, (in_addr address), (address)) \
  X(int, WSAGetLastError, (), ()) \
  X(void, WSASetLastError, (int code), (code))
