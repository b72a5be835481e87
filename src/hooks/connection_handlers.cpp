#include "hooks/handlers.h"
#include "interpose/real_functions.h"

// Until the registry and the recorder channel are built, these handlers only pass the call on.
int Mysocket(int domain, int type, int protocol) { return True_socket(domain, type, protocol); }
int Mybind(int socket, const sockaddr* address, socklen_t length) { return True_bind(socket, address, length); }
int Mylisten(int socket, int backlog) { return True_listen(socket, backlog); }
int Myaccept(int socket, sockaddr* address, socklen_t* length) { return True_accept(socket, address, length); }
int Myconnect(int socket, const sockaddr* address, socklen_t length) {
  return True_connect(socket, address, length);
}
int Myclose(int socket) { return True_close(socket); }
