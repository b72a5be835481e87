#include "transport/connection_per_message.h"

#include <errno.h>
#include <sys/socket.h>

#include "base/name_tables.h"
#include "diag/debug_log.h"
#include "real/real_functions.h"

namespace {

void logFailure(const char* format, int code) {
  x_disp(DMK_ERROR, format, code, getSocketErrorKind(code), getSocketErrorMsg(code));
}

bool holdsNothing() { return false; }

void deliverOnItsOwnConnection(const sockaddr_in& recorder, const OutgoingText& message) {
  // Close-on-exec: a program the host starts while a message is on its way must not inherit it.
  const int fd = True_socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  if (fd == -1) {
    logFailure("socket() returned INVALID_SOCKET, WSAGetLastError=%d %s : %s", errno);
    return;
  }
  if (True_connect(fd, reinterpret_cast<const sockaddr*>(&recorder), sizeof recorder) != 0) {
    logFailure("connect() returned SOCKET_ERROR, WSAGetLastError=%d %s : %s", errno);
  } else if (True_send(fd, message.text, message.length, MSG_NOSIGNAL) == -1) {
    // MSG_NOSIGNAL: a recorder that closed early must not end the host with SIGPIPE.
    // A short send is not retried: the recorder reads one message per connection, and a
    // second send could not make a torn one whole anyway.
    logFailure("send() returned SOCKET_ERROR, WSAGetLastError=%d %s : %s", errno);
  }
  True_close(fd);
}

}  // namespace

const Transport connectionPerMessage = {&holdsNothing, false, &deliverOnItsOwnConnection};
