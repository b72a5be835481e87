#include "hooks/connect_outcome_report.h"

#include <errno.h>

#include "config/extension_switches.h"
#include "hooks/handler_support.h"
#include "hooks/socket_event_head.h"
#include "message/recorder_message.h"
#include "real/real_functions.h"
#include "registry/socket_registry.h"
#include "transport/agent_interface.h"

void noteConnectResult(SOCKETINFO* record, int result, int error) {
  if (!extensionOn(EXT_CONNECT_OUTCOME)) return;
  // A second connect of the pattern that polls with connect itself answers for itself, in its own
  // connect message; only a connect still under way is left to a later getsockopt.
  if (result == -1 && (error == EINPROGRESS || error == EALREADY)) {
    markSocket(record, SIF_CONNECTING);
  } else {
    takeSocketMark(record, SIF_CONNECTING);
  }
}

void reportConnectOutcome(int socket, int level, int name, const void* value, const socklen_t* length, int result) {
  if (!extensionOn(EXT_CONNECT_OUTCOME) || result != 0 || level != SOL_SOCKET || name != SO_ERROR) return;
  if (value == nullptr || length == nullptr) return;
  SOCKETINFO* record = getSocketInfo(static_cast<unsigned>(socket));
  if (record == nullptr) return;
  const int savedErrno = errno;
  socklen_t written = 0;
  int pending = 0;
  // The C library has just written both cells; the copies stop at what can be read all the same.
  if (copyHostBytes(&written, length, sizeof written, sizeof written) == sizeof written && written >= sizeof pending &&
      copyHostBytes(&pending, value, sizeof pending, sizeof pending) == sizeof pending) {
    sockaddr_storage peer;
    socklen_t peerLength = sizeof peer;
    // SO_ERROR reads 0 while the connect is still under way too: only a peer makes it connected.
    const bool settled = pending != 0 || True_getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &peerLength) == 0;
    if (settled && takeSocketMark(record, SIF_CONNECTING)) {
      const CallStart start = beginCall();
      RecorderMessage message(RMT_CONNECTOUTCOME, start.cpt);
      setSocketEventHead(message, start, socket);
      message.set(RMA_RETURN, pending != 0 ? -1 : 0);
      message.set(RMA_ERROR, pending);
      sendToRecorder(message);
    }
  }
  errno = savedErrno;
}
