#include "hooks/handlers.h"
#include "interpose/real_functions.h"

// Until the registry and the recorder channel are built, these handlers only pass the call on.
int Mygetaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
  return True_getaddrinfo(node, service, hints, result);
}
int Mygetsockname(int socket, sockaddr* address, socklen_t* length) {
  return True_getsockname(socket, address, length);
}
int Mygetpeername(int socket, sockaddr* address, socklen_t* length) {
  return True_getpeername(socket, address, length);
}
int Mygetsockopt(int socket, int level, int name, void* value, socklen_t* length) {
  return True_getsockopt(socket, level, name, value, length);
}
