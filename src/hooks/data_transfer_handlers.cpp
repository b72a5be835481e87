#include "hooks/handlers.h"
#include "interpose/real_functions.h"

// Until the registry and the recorder channel are built, these handlers only pass the call on.
ssize_t Mysend(int socket, const void* buffer, size_t length, int flags) {
  return True_send(socket, buffer, length, flags);
}
ssize_t Mysendto(int socket, const void* buffer, size_t length, int flags, const sockaddr* address,
                 socklen_t addressLength) {
  return True_sendto(socket, buffer, length, flags, address, addressLength);
}
ssize_t Mysendmsg(int socket, const msghdr* message, int flags) { return True_sendmsg(socket, message, flags); }
ssize_t Mywrite(int descriptor, const void* buffer, size_t count) { return True_write(descriptor, buffer, count); }
ssize_t Myrecv(int socket, void* buffer, size_t length, int flags) {
  return True_recv(socket, buffer, length, flags);
}
ssize_t Myrecvfrom(int socket, void* buffer, size_t length, int flags, sockaddr* address,
                   socklen_t* addressLength) {
  return True_recvfrom(socket, buffer, length, flags, address, addressLength);
}
ssize_t Myrecvmsg(int socket, msghdr* message, int flags) { return True_recvmsg(socket, message, flags); }
ssize_t Myread(int descriptor, void* buffer, size_t count) { return True_read(descriptor, buffer, count); }
