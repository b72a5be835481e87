#include "descriptor_receiving.h"

#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace talvex {

ssize_t receiveWithDescriptor(int fd, char* into, size_t size, int* passed) {
  iovec data = {into, size};
  union {
    cmsghdr header;
    char space[CMSG_SPACE(sizeof(int) * 8)];
  } control;
  msghdr message;
  memset(&message, 0, sizeof message);
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control.space;
  message.msg_controllen = sizeof control.space;
  const ssize_t n = recvmsg(fd, &message, MSG_CMSG_CLOEXEC);
  if (n < 0) return n;
  for (cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
    if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
    const size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < count; ++i) {
      int descriptor;
      memcpy(&descriptor, CMSG_DATA(c) + i * sizeof(int), sizeof descriptor);
      if (*passed < 0) {
        *passed = descriptor;
      } else {
        close(descriptor);
      }
    }
  }
  return n;
}

}  // namespace talvex
