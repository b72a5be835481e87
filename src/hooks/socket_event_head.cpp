#include "hooks/socket_event_head.h"

#include "base/process_identity.h"
#include "message/recorder_message.h"

void setSocketEventHead(RecorderMessage& message, const CallStart& start, int64_t socket) {
  if (start.stampNs != -1) message.set(RMA_TIMESTAMP_NS, start.stampNs);
  message.set(RMA_PID, currentProcessId);
  message.set(RMA_TIMESTAMP, start.stamp);
  message.setInt(RMA_TICKET, start.ticket);
  message.setInt64(RMA_SOCKET, socket);
}
