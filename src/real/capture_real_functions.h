// The C library's own versions of the complete-capture entry points.
#pragma once

#include "real/capture_export_list.h"

#define TALVEX_DECLARE_CAPTURE_POINTER(result, name, parameters, arguments, throws) \
  extern result(*name##_ptr) parameters;
TALVEX_CAPTURE_EXPORTS(TALVEX_DECLARE_CAPTURE_POINTER)
#undef TALVEX_DECLARE_CAPTURE_POINTER

ssize_t True_writev(int fd, const iovec* vectors, int count);
ssize_t True_readv(int fd, const iovec* vectors, int count);
ssize_t True_sendfile(int out, int in, off_t* offset, size_t count);
ssize_t True_sendfile64(int out, int in, off64_t* offset, size_t count);
int True_accept4(int fd, sockaddr* address, socklen_t* length, int flags);
ssize_t True_recv_chk(int fd, void* buffer, size_t length, size_t bufferLength, int flags);
ssize_t True_recvfrom_chk(int fd, void* buffer, size_t length, size_t bufferLength, int flags, sockaddr* address,
                          socklen_t* addressLength);
ssize_t True_read_chk(int fd, void* buffer, size_t count, size_t bufferLength);
