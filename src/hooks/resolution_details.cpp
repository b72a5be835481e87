#include "hooks/resolution_details.h"

#include "config/extension_switches.h"
#include "message/address_attributes.h"
#include "message/process_attribution.h"
#include "message/recorder_message.h"
#include "transport/agent_interface.h"

void addEntryAddress(RecorderMessage& message, const addrinfo* entry) {
  if (!extensionOn(EXT_ALL_RESOLUTIONS) || entry->ai_addr == nullptr) return;
  const socklen_t needed = entry->ai_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  if (entry->ai_addrlen < needed) return;
  char text[48];
  if (formatAddressText(entry->ai_addr, text, sizeof text)) message.set(RMA_ADDRESS, text, 0);
}

void recordFailedResolution(const CallStart& start, const char* name, int status) {
  if (!extensionOn(EXT_ALL_RESOLUTIONS)) return;
  RecorderMessage message(RMT_ADDRINFO, start.cpt);
  if (start.stampNs != -1) message.set(RMA_TIMESTAMP_NS, start.stampNs);
  message.set(RMA_TIMESTAMP, start.stamp);
  message.setInt(RMA_TICKET, start.ticket);
  attributeToProcess(message);
  if (name != nullptr) message.set(RMA_NAME, name, 0);
  message.set(RMA_GAIERROR, status);
  sendToRecorder(message);
}
