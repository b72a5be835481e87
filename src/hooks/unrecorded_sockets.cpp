#include "hooks/unrecorded_sockets.h"

#include <sys/socket.h>

#include "base/name_tables.h"
#include "config/extension_switches.h"
#include "hooks/handler_support.h"
#include "hooks/socket_event_head.h"
#include "message/recorder_message.h"
#include "registry/recording_decision.h"
#include "registry/socket_registry.h"
#include "transport/agent_interface.h"

namespace {

const char* socketKindName(int type) {
  switch (type & ~(SOCK_NONBLOCK | SOCK_CLOEXEC)) {
    case SOCK_STREAM: return "stream";
    case SOCK_DGRAM: return "datagram";
    case SOCK_SEQPACKET: return "seqpacket";
    case SOCK_RAW: return "raw";
    default: return "other";
  }
}

void sendNotice(unsigned fd, int domain, int type) {
  const CallStart start = beginCall();
  RecorderMessage message(RMT_NOTRECORDED, start.cpt);
  setSocketEventHead(message, start, static_cast<int64_t>(fd));
  message.set(RMA_FAMILY, afToString(static_cast<unsigned>(domain)), 0);
  message.set(RMA_KIND, socketKindName(type), 0);
  sendToRecorder(message);
}

}  // namespace

void noticeUnrecordedSocket(SOCKETINFO* record, unsigned fd, int reason) {
  // What goes through the SOCKS server is recorded by the recorder's proxy: not a loss.
  if (!extensionOn(EXT_UNRECORDED_SOCKETS) || reason == SBL_SOCKSRECORDED || record == nullptr) return;
  // Told already: a plain load, not a locked write, on every later call of a UDP-heavy program.
  if ((__atomic_load_n(&record->flags, __ATOMIC_RELAXED) & SIF_NOTICED) != 0) return;
  if (markSocket(record, SIF_NOTICED)) sendNotice(fd, static_cast<int>(getFamily(record)), static_cast<int>(record->type));
}

void noticeUnrecordedDescriptor(unsigned fd, int domain, int type) {
  if (extensionOn(EXT_UNRECORDED_SOCKETS)) sendNotice(fd, domain, type);
}
