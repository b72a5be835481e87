// The handler behind each export: calls the real function and keeps the registry and recorder
// informed. Each returns the real result and leaves errno as the real call left it.
#pragma once

#include <netdb.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <time.h>

#include "base/export_visibility.h"

int Mysocket(int domain, int type, int protocol);
int Mybind(int socket, const sockaddr* address, socklen_t length);
int Mylisten(int socket, int backlog);
int Myaccept(int socket, sockaddr* address, socklen_t* length);
// accept and accept4 share one handler; `four` says which real function to call.
struct AcceptCall {
  bool four;
  int flags;
};
int acceptConnection(int socket, sockaddr* address, socklen_t* length, AcceptCall call);
int Myconnect(int socket, const sockaddr* address, socklen_t length);
int Myclose(int socket);

ssize_t Mysend(int socket, const void* buffer, size_t length, int flags);
ssize_t Mysendto(int socket, const void* buffer, size_t length, int flags, const sockaddr* address,
                 socklen_t addressLength);
ssize_t Mysendmsg(int socket, const msghdr* message, int flags);
ssize_t Mywrite(int descriptor, const void* buffer, size_t count);
ssize_t Myrecv(int socket, void* buffer, size_t length, int flags);
ssize_t Myrecvfrom(int socket, void* buffer, size_t length, int flags, sockaddr* address, socklen_t* addressLength);
ssize_t Myrecvmsg(int socket, msghdr* message, int flags);
ssize_t Myread(int descriptor, void* buffer, size_t count);

// Reached by nothing in the agent: exported under their own names for other modules of the host,
// while the C library's gethostbyname and the rest go unobserved.
extern "C" {
TALVEX_EXPORT hostent* Mygethostbyname(const char* name);
TALVEX_EXPORT int Mygethostname(char* name, size_t length);
TALVEX_EXPORT servent* Mygetservbyport(int port, const char* protocol);
TALVEX_EXPORT servent* Mygetservbyname(const char* name, const char* protocol);
}

int Mygetaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result);
int Mygetsockname(int socket, sockaddr* address, socklen_t* length);
int Mygetpeername(int socket, sockaddr* address, socklen_t* length);
int Mygetsockopt(int socket, int level, int name, void* value, socklen_t* length);

int Mysetsockopt(int fd, int level, int optname, const void* optval, socklen_t optlen);
int Myselect(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, timeval* timeout);
int Mypselect(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, const timespec* timeout,
              const sigset_t* sigmask);
