// Plays an arbitrary SOCKS server reply to the client's request parser over a socket pair: every
// reply must end in success or a reported failure, never in a crash, a hang past the deadline or a
// memory error.
#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "socks/socks_client.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) return 0;
  // The reply is there in full, then the server closes: the parser never waits for the deadline.
  if (size > 0 && write(pair[1], data, size) != static_cast<ssize_t>(size)) {
    close(pair[0]);
    close(pair[1]);
    return 0;
  }
  shutdown(pair[1], SHUT_WR);
  sockaddr_in destination;
  memset(&destination, 0, sizeof destination);
  destination.sin_family = AF_INET;
  destination.sin_port = htons(80);
  destination.sin_addr.s_addr = htonl(0x0a000001);
  int socksError = 0;
  socksRequest(pair[0], reinterpret_cast<sockaddr*>(&destination), &socksError, socksDeadline());
  close(pair[0]);
  close(pair[1]);
  return 0;
}
