// The entry points that only the complete-capture extension records, with the C library's exact
// signatures: X(result, name, parameters, arguments, exception specifier). With the extension
// off they go straight to the C library.
#pragma once

#include <sys/cdefs.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

// The fortified receives a program built with _FORTIFY_SOURCE calls instead of recv, recvfrom
// and read; the C library declares them only for such programs.
extern "C" {
ssize_t __recv_chk(int fd, void* buffer, size_t length, size_t bufferLength, int flags);
ssize_t __recvfrom_chk(int fd, void* buffer, size_t length, size_t bufferLength, int flags, sockaddr* address,
                       socklen_t* addressLength);
ssize_t __read_chk(int fd, void* buffer, size_t count, size_t bufferLength);
}

#define TALVEX_CAPTURE_EXPORTS(X)                                                                        \
  X(ssize_t, writev, (int fd, const iovec* vectors, int count), (fd, vectors, count), )                \
  X(ssize_t, readv, (int fd, const iovec* vectors, int count), (fd, vectors, count), )                 \
  X(ssize_t, sendfile, (int out, int in, off_t* offset, size_t count), (out, in, offset, count), __THROW) \
  X(ssize_t, sendfile64, (int out, int in, off64_t* offset, size_t count), (out, in, offset, count), __THROW) \
  X(int, accept4, (int fd, sockaddr* address, socklen_t* length, int flags), (fd, address, length, flags), ) \
  X(ssize_t, __recv_chk, (int fd, void* buffer, size_t length, size_t bufferLength, int flags),          \
    (fd, buffer, length, bufferLength, flags), )                                                       \
  X(ssize_t, __recvfrom_chk,                                                                           \
    (int fd, void* buffer, size_t length, size_t bufferLength, int flags, sockaddr* address,           \
     socklen_t* addressLength),                                                                        \
    (fd, buffer, length, bufferLength, flags, address, addressLength), )                               \
  X(ssize_t, __read_chk, (int fd, void* buffer, size_t count, size_t bufferLength), (fd, buffer, count, bufferLength), )
