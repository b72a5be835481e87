#include "transport/persistent_channel.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/socket.h>

#include "base/monotonic_clock.h"
#include "base/name_tables.h"
#include "base/symbol_versions.h"
#include "base/variable_names.h"
#include "diag/debug_log.h"
#include "real/real_functions.h"
#include "transport/recorder_socket.h"
#include "transport/shared_ring.h"

// The first fcntl of each ABI: the agent loads on C libraries older than the one it is built on.
__asm__(".symver fcntl,fcntl@" TALVEX_GLIBC_FIRST);

const char* const kPersistentChannelVariable = TALVEX_VAR_PERSISTENT_CHANNEL;

namespace {

// How long one message may take to be written, and how long the channel rests after a failure
// before it tries to connect again (messages meanwhile are dropped at once).
const int64_t kWriteBudgetNs = 1000 * 1000 * 1000;
const int64_t kRestNs = 1000 * 1000 * 1000;
// Descriptors below this are the host's usual range; the channel's sits above it where it can.
const int kFirstChannelDescriptor = 512;
const int kLocalSendBuffer = 4 << 20;

bool enabled = false;
int channel = -1;
uint64_t channelCookie = 0;
int64_t restUntilNs = 0;

uint64_t cookieOf(int fd) {
  uint64_t cookie = 0;
  socklen_t length = sizeof cookie;
  if (True_getsockopt(fd, SOL_SOCKET, SO_COOKIE, &cookie, &length) != 0) return 0;
  return cookie;
}

// Waits until `fd` is ready for `events` or the deadline passes.
bool waitFor(int fd, short events, int64_t deadlineNs) {
  for (;;) {
    const int64_t left = deadlineNs - monotonicNs();
    if (left <= 0) return false;
    pollfd one = {fd, events, 0};
    const int ready = poll(&one, 1, static_cast<int>(left / 1000000) + 1);
    if (ready > 0) return (one.revents & (events | POLLERR | POLLHUP)) != 0;
    if (ready < 0 && errno != EINTR) return false;
  }
}

void dropChannel(bool closeIt) {
  dropSharedRing();
  if (channel >= 0 && closeIt) True_close(channel);
  channel = -1;
  channelCookie = 0;
}

// Connects a new socket of `family` to `address`, placed above the host's usual descriptors.
// -1 with `error` when the connection failed, -2 when no socket could be made.
int connectedSocket(int family, const sockaddr* address, socklen_t length, int64_t deadlineNs, int* error) {
  const int fd = True_socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    *error = errno;
    return -2;
  }
  int placed = fcntl(fd, F_DUPFD_CLOEXEC, kFirstChannelDescriptor);
  if (placed >= 0) {
    True_close(fd);
  } else {
    placed = fd;
  }
  if (True_connect(placed, address, length) != 0) {
    *error = errno;
    if (*error == EINPROGRESS && waitFor(placed, POLLOUT, deadlineNs)) {
      socklen_t size = sizeof *error;
      if (True_getsockopt(placed, SOL_SOCKET, SO_ERROR, error, &size) != 0) *error = errno;
    }
    if (*error != 0 && *error != EISCONN) {
      True_close(placed);
      return -1;
    }
  }
  return placed;
}

bool connectChannel(const sockaddr_in& recorder, int64_t deadlineNs) {
  int error = 0;
  int fd = -1;
  socklen_t localLength = 0;
  if (const sockaddr_un* local = recorderSocketAddress(&localLength)) {
    fd = connectedSocket(AF_UNIX, reinterpret_cast<const sockaddr*>(local), localLength, deadlineNs, &error);
    if (fd >= 0) {
      // A local socket's buffer does not grow with the traffic as TCP's does: asked for large, it
      // gets as much as the system allows, and a large message is written with fewer waits.
      const int wanted = kLocalSendBuffer;
      if (setsockopt_ptr != nullptr) setsockopt_ptr(fd, SOL_SOCKET, SO_SNDBUF, &wanted, sizeof wanted);
      if (sharedRingWanted() && !offerSharedRing(fd)) {
        x_disp(DMK_ERROR, "no shared ring could be made: messages go on the connection");
      }
    } else {
      x_disp(DMK_ERROR, "the recorder socket took no connection (%d %s : %s): the channel uses TCP", error,
             getSocketErrorKind(error), getSocketErrorMsg(error));
    }
  }
  if (fd < 0) {
    fd = connectedSocket(AF_INET, reinterpret_cast<const sockaddr*>(&recorder), sizeof recorder, deadlineNs, &error);
  }
  if (fd == -1) {
    x_disp(DMK_ERROR, "connect() returned SOCKET_ERROR, WSAGetLastError=%d %s : %s", error, getSocketErrorKind(error),
           getSocketErrorMsg(error));
  }
  if (fd < 0) return false;
  channel = fd;
  channelCookie = cookieOf(fd);
  return true;
}

// Writes a message on the channel before the deadline. A payload held for a ring that has gone
// since is escaped a piece at a time on its way.
class ConnectionWriter {
 public:
  explicit ConnectionWriter(int64_t deadlineNs) : deadlineNs_(deadlineNs) {}

  bool text(const char* from, size_t length) {
    size_t done = 0;
    while (done < length) {
      const ssize_t n = True_send(channel, from + done, length - done, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) {
        done += static_cast<size_t>(n);
      } else if (n < 0 && errno == EINTR) {
        continue;
      } else if (n < 0 && errno == EAGAIN) {
        if (!waitFor(channel, POLLOUT, deadlineNs_)) return false;
      } else {
        return false;
      }
    }
    return true;
  }

  bool piece(const unsigned char* bytes, size_t n) {
    char* scratch = pieceScratch();
    return text(scratch, static_cast<size_t>(escapeInto(scratch, bytes, n) - scratch));
  }

 private:
  const int64_t deadlineNs_;
};

// Writes the whole message before the deadline, or says it could not.
bool writeWhole(const OutgoingText& message, int64_t deadlineNs) {
  if (sharedRingActive()) return writeToSharedRing(channel, message, deadlineNs);
  ConnectionWriter writer(deadlineNs);
  return writeOutgoing(message, writer);
}

}  // namespace

void readPersistentChannel() { enabled = getenv(kPersistentChannelVariable) != nullptr; }

bool persistentChannelOn() { return enabled; }

void sendOnPersistentChannel(const sockaddr_in& recorder, const OutgoingText& message) {
  const int savedErrno = errno;
  const int64_t start = monotonicNs();
  // The descriptor the host may have closed and reused is not the channel any more: forgotten,
  // never closed, since it is the host's now.
  if (channel >= 0 && cookieOf(channel) != channelCookie) dropChannel(false);
  // The recorder never writes: a channel that reads as ready has been closed by the recorder (it
  // stopped, or was restarted), and a message written there now would be lost unseen.
  if (channel >= 0) {
    pollfd one = {channel, POLLIN | POLLRDHUP, 0};
    if (poll(&one, 1, 0) > 0) dropChannel(true);
  }
  if (channel < 0 && start < restUntilNs) {
    x_disp(DMK_ERROR, "message dropped: the recorder channel is resting after a failure");
  } else if (channel < 0 && !connectChannel(recorder, start + kWriteBudgetNs)) {
    restUntilNs = monotonicNs() + kRestNs;
    x_disp(DMK_ERROR, "message dropped: no connection to the recorder");
  } else if (!writeWhole(message, start + kWriteBudgetNs)) {
    const int error = errno;
    x_disp(DMK_ERROR, "message dropped: the recorder took no more within the time allowed (%d %s : %s)", error,
           getSocketErrorKind(error), getSocketErrorMsg(error));
    // Part of the line may have gone: only a new connection frames the next message cleanly.
    dropChannel(true);
    restUntilNs = monotonicNs() + kRestNs;
  }
  errno = savedErrno;
}

void leavePersistentChannelAfterFork() {
  // The child's copy of the parent's connection is closed; the parent's stays as it is.
  dropChannel(channel >= 0 && cookieOf(channel) == channelCookie);
  restUntilNs = 0;
}

const Transport persistentChannel = {&sharedRingActive, true, &sendOnPersistentChannel};
