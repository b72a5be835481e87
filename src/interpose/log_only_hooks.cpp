#include "hooks/handlers.h"
#include "interpose/companions.h"
#include "interpose/real_functions.h"

// Until their log lines and not-recorded notices are built, these handlers only pass the call on.
int Mysetsockopt(int fd, int level, int optname, const void* optval, socklen_t optlen) {
  if (setsockopt_ptr == nullptr) Initsetsockopt();
  return setsockopt_ptr(fd, level, optname, optval, optlen);
}

int Myselect(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, timeval* timeout) {
  if (select_ptr == nullptr) Initselect();
  return select_ptr(nfds, readfds, writefds, exceptfds, timeout);
}

int Mypselect(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, const timespec* timeout,
              const sigset_t* sigmask) {
  if (pselect_ptr == nullptr) Initpselect();
  return pselect_ptr(nfds, readfds, writefds, exceptfds, timeout, sigmask);
}
