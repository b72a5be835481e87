#include "real/capture_real_functions.h"

#include "real/real_functions.h"

#define TALVEX_DEFINE_CAPTURE_POINTER(result, name, parameters, arguments, throws) \
  result(*name##_ptr) parameters = nullptr;
TALVEX_CAPTURE_EXPORTS(TALVEX_DEFINE_CAPTURE_POINTER)
#undef TALVEX_DEFINE_CAPTURE_POINTER

// A C library without one of these answers as the kernel would for an unknown call.
namespace {
template <class Function, class... Arguments>
auto callOrRefuse(Function& pointer, const char* name, Arguments... arguments) -> decltype(pointer(arguments...)) {
  if (pointer == nullptr) pointer = reinterpret_cast<Function>(MyGetProcAddr(name));
  if (pointer == nullptr) {
    errno = ENOSYS;
    return -1;
  }
  return pointer(arguments...);
}
}  // namespace

ssize_t True_writev(int fd, const iovec* vectors, int count) { return callOrRefuse(writev_ptr, "writev", fd, vectors, count); }
ssize_t True_readv(int fd, const iovec* vectors, int count) { return callOrRefuse(readv_ptr, "readv", fd, vectors, count); }
ssize_t True_sendfile(int out, int in, off_t* offset, size_t count) {
  return callOrRefuse(sendfile_ptr, "sendfile", out, in, offset, count);
}
ssize_t True_sendfile64(int out, int in, off64_t* offset, size_t count) {
  return callOrRefuse(sendfile64_ptr, "sendfile64", out, in, offset, count);
}
int True_accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
  return callOrRefuse(accept4_ptr, "accept4", fd, address, length, flags);
}
ssize_t True_recv_chk(int fd, void* buffer, size_t length, size_t bufferLength, int flags) {
  return callOrRefuse(__recv_chk_ptr, "__recv_chk", fd, buffer, length, bufferLength, flags);
}
ssize_t True_recvfrom_chk(int fd, void* buffer, size_t length, size_t bufferLength, int flags, sockaddr* address,
                          socklen_t* addressLength) {
  return callOrRefuse(__recvfrom_chk_ptr, "__recvfrom_chk", fd, buffer, length, bufferLength, flags, address,
                      addressLength);
}
ssize_t True_read_chk(int fd, void* buffer, size_t count, size_t bufferLength) {
  return callOrRefuse(__read_chk_ptr, "__read_chk", fd, buffer, count, bufferLength);
}
