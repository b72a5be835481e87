// The handlers of the complete-capture extension's own entry points (see complete_capture.h).
// Each returns the real result and leaves errno as the real call left it.
#pragma once

#include "real/capture_export_list.h"

ssize_t Mywritev(int fd, const iovec* vectors, int count);
ssize_t Myreadv(int fd, const iovec* vectors, int count);
ssize_t Mysendfile(int out, int in, off_t* offset, size_t count);
ssize_t Mysendfile64(int out, int in, off64_t* offset, size_t count);
int Myaccept4(int fd, sockaddr* address, socklen_t* length, int flags);
ssize_t My__recv_chk(int fd, void* buffer, size_t length, size_t bufferLength, int flags);
ssize_t My__recvfrom_chk(int fd, void* buffer, size_t length, size_t bufferLength, int flags, sockaddr* address,
                         socklen_t* addressLength);
ssize_t My__read_chk(int fd, void* buffer, size_t count, size_t bufferLength);
