// Edge cases whose checks need the agent's code called directly, so that what each layer does is
// seen apart from what the layers around it would hide.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "config/socks_config.h"
#include "hooks/handlers.h"
#include "process_runner.h"
#include "real/real_functions.h"
#include "registry/socket_registry.h"
#include "socks/socks_client.h"
#include "socks/socks_routing.h"

using namespace talvex_test;

namespace {

}  // namespace

TEST(EdgeCases, SocketNonBlockingStreamRegistersTypeOneProtocolSixAndNonBlocking) {
  initializeRealFunctionPointers();
  const int s = Mysocket(AF_INET, 0x801, 0);
  ASSERT_GE(s, 0);
  SOCKETINFO* record = getSocketInfo(static_cast<unsigned>(s));
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->type, 1u);
  EXPECT_EQ(getProtocol(record), 6u);
  EXPECT_EQ(getFamily(record), 2u);
  EXPECT_EQ(isNonBlockingSocket(record), 1);
  EXPECT_EQ(Myclose(s), 0);
  EXPECT_EQ(getSocketInfo(static_cast<unsigned>(s)), nullptr);
}

TEST(EdgeCases, SocksReplyCodeSevenReportsNotSupportedToTheRecorderAndRefusedToTheHost) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  const char reply[] = "\x05\x07\x00\x01\x00\x00\x00\x00\x00\x00";
  ASSERT_EQ(write(pair[1], reply, 10), 10);
  sockaddr_in destination = loopbackAddress(80);
  int socksError = 0;
  errno = 0;
  const int status = socksRequest(pair[0], reinterpret_cast<sockaddr*>(&destination), &socksError, socksDeadline());
  const int error = errno;
  close(pair[0]);
  close(pair[1]);
  EXPECT_EQ(status, 4);
  EXPECT_EQ(socksError, EOPNOTSUPP);  // what the recorder is told
  EXPECT_EQ(error, ECONNREFUSED);     // what the host's connect reports
}

TEST(EdgeCases, SocksConnectNeverReroutesADatagramSocket) {
  initializeRealFunctionPointers();
  // A SOCKS server that would see any attempt: a listener on loopback.
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in server = loopbackAddress(0);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&server), sizeof server), 0);
  ASSERT_EQ(listen(listener, 4), 0);
  socklen_t length = sizeof server;
  getsockname(listener, reinterpret_cast<sockaddr*>(&server), &length);
  socksModeActive = 1;
  serverIPV4 = server;
  serverIPV4Usable = true;
  const int udp = socket(AF_INET, SOCK_DGRAM, 0);
  SOCKETINFO* record = createSocketInfo(static_cast<unsigned>(udp), AF_INET, SOCK_DGRAM, 0, 17);
  sockaddr_in destination = loopbackAddress(9);
  destination.sin_addr.s_addr = htonl(0x0a000001);  // not local: would be rerouted if it were TCP
  int socksError = 0;
  const int status = SocksConnect(record, reinterpret_cast<sockaddr*>(&destination), sizeof destination, &socksError);
  pollfd attempt = {listener, POLLIN, 0};
  const int seen = poll(&attempt, 1, 200);
  socksModeActive = 0;
  serverIPV4Usable = false;
  freeSocketInfo(static_cast<unsigned>(udp));
  close(udp);
  close(listener);
  EXPECT_EQ(status, SOCKS_NOT_REROUTED);
  EXPECT_EQ(socksError, 0);
  EXPECT_EQ(seen, 0) << "the SOCKS server was contacted";
}

TEST(EdgeCases, GetpeernameWithANullAddressReachesTheRealFunctionOnAReroutedSocket) {
  initializeRealFunctionPointers();
  EchoServer echo;
  const int s = connectToLoopback(echo.port());
  ASSERT_GE(s, 0);
  SOCKETINFO* record = createSocketInfo(static_cast<unsigned>(s), AF_INET, SOCK_STREAM, 0, 6);
  sockaddr_in intended = loopbackAddress(4242);
  createSockaddrElem(record, reinterpret_cast<sockaddr*>(&intended), sizeof intended);
  socklen_t length = sizeof intended;
  errno = 0;
  const int result = Mygetpeername(s, nullptr, &length);
  const int error = errno;
  removeSockaddrElem(record);
  freeSocketInfo(static_cast<unsigned>(s));
  close(s);
  // The C library's own answer to a null buffer, not the stored destination's 14 as a result.
  EXPECT_EQ(result, -1);
  EXPECT_EQ(error, EFAULT);
}

// A socket freed from a SOCKS server stays the program's under its number, connected to nothing,
// with its blocking mode and close-on-exec as they were, whichever way it is freed.
TEST(EdgeCases, ASocketFreedFromTheSocksServerKeepsItsNumberAndFlags) {
  initializeRealFunctionPointers();
  int port = 0;
  const int listener = listenOnLoopback(&port);
  ASSERT_GE(listener, 0);
  const sockaddr_in server = loopbackAddress(port);
  for (const bool renew : {false, true}) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&server), sizeof server), 0);
    ASSERT_EQ(fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK), 0);
    errno = 1234;
    EXPECT_TRUE(renew ? renewSocket(fd) : releaseFromSocksServer(fd)) << "renew " << renew;
    if (!renew) EXPECT_EQ(errno, 1234);
    sockaddr_in peer;
    socklen_t length = sizeof peer;
    EXPECT_EQ(getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length), -1) << "renew " << renew;
    EXPECT_EQ(errno, ENOTCONN);
    int type = 0, pending = -1;
    socklen_t size = sizeof type;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size), 0);
    EXPECT_EQ(type, SOCK_STREAM);
    size = sizeof pending;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &size), 0);
    EXPECT_EQ(pending, 0) << "renew " << renew;
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0) << "renew " << renew;
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << "renew " << renew;
    // Free to be connected again, as after a refused connect.
    const int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&server), sizeof server), 0) << "renew " << renew;
    close(fd);
  }
  close(listener);
}
