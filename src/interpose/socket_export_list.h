// The twenty-one socket and I/O functions the agent stands in for, with the C library's exact
// signatures: X(result, name, parameters, arguments, exception specifier).
#pragma once

#include <sys/cdefs.h>

#define TALVEX_SOCKET_EXPORTS(X)                                                                       \
  X(int, socket, (int domain, int type, int protocol), (domain, type, protocol), __THROW)             \
  X(int, bind, (int fd, const sockaddr* address, socklen_t length), (fd, address, length), __THROW)  \
  X(int, listen, (int fd, int backlog), (fd, backlog), __THROW)                                       \
  X(int, accept, (int fd, sockaddr* address, socklen_t* length), (fd, address, length), )            \
  X(int, connect, (int fd, const sockaddr* address, socklen_t length), (fd, address, length), )      \
  X(int, close, (int fd), (fd), )                                                                     \
  X(ssize_t, send, (int fd, const void* buffer, size_t length, int flags), (fd, buffer, length, flags), ) \
  X(ssize_t, sendto,                                                                                  \
    (int fd, const void* buffer, size_t length, int flags, const sockaddr* address, socklen_t addressLength), \
    (fd, buffer, length, flags, address, addressLength), )                                            \
  X(ssize_t, sendmsg, (int fd, const msghdr* message, int flags), (fd, message, flags), )             \
  X(ssize_t, write, (int fd, const void* buffer, size_t count), (fd, buffer, count), )                \
  X(ssize_t, recv, (int fd, void* buffer, size_t length, int flags), (fd, buffer, length, flags), )   \
  X(ssize_t, recvfrom,                                                                                \
    (int fd, void* buffer, size_t length, int flags, sockaddr* address, socklen_t* addressLength),   \
    (fd, buffer, length, flags, address, addressLength), )                                            \
  X(ssize_t, recvmsg, (int fd, msghdr* message, int flags), (fd, message, flags), )                   \
  X(ssize_t, read, (int fd, void* buffer, size_t count), (fd, buffer, count), )                       \
  X(int, getaddrinfo, (const char* node, const char* service, const addrinfo* hints, addrinfo** result), \
    (node, service, hints, result), )                                                                 \
  X(int, getsockname, (int fd, sockaddr* address, socklen_t* length), (fd, address, length), __THROW) \
  X(int, getpeername, (int fd, sockaddr* address, socklen_t* length), (fd, address, length), __THROW) \
  X(int, getsockopt, (int fd, int level, int name, void* value, socklen_t* length),                   \
    (fd, level, name, value, length), __THROW)                                                        \
  X(int, setsockopt, (int fd, int level, int name, const void* value, socklen_t length),              \
    (fd, level, name, value, length), __THROW)                                                        \
  X(int, select, (int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, timeval* timeout),  \
    (nfds, readfds, writefds, exceptfds, timeout), )                                                  \
  X(int, pselect,                                                                                     \
    (int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, const timespec* timeout,         \
     const sigset_t* sigmask),                                                                        \
    (nfds, readfds, writefds, exceptfds, timeout, sigmask), )
