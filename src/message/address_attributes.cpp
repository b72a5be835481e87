#include "message/address_attributes.h"

#include <netinet/in.h>
#include <stdio.h>
#include <string.h>

#include "base/name_tables.h"
#include "base/process_identity.h"
#include "diag/debug_log.h"
#include "message/recorder_message.h"
#include "real/real_functions.h"

void formatIpv6Groups(const unsigned char bytes[16], char* out, unsigned size) {
  if (size == 0) return;
  out[0] = '\0';
  unsigned used = 0;
  for (int group = 0; group < 8; ++group) {
    uint16_t networkOrder;
    memcpy(&networkOrder, bytes + 2 * group, sizeof networkOrder);
    const int written = snprintf(out + used, size - used, group == 0 ? "%x" : ":%x", True_ntohs(networkOrder));
    if (written < 0 || static_cast<unsigned>(written) >= size - used) return;
    used += static_cast<unsigned>(written);
  }
}

bool formatAddressText(const sockaddr* address, char* out, unsigned size) {
  if (size == 0) return false;
  out[0] = '\0';
  if (address->sa_family == AF_INET) {
    const unsigned char* b = reinterpret_cast<const unsigned char*>(&reinterpret_cast<const sockaddr_in*>(address)->sin_addr);
    snprintf(out, size, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
    return true;
  }
  if (address->sa_family == AF_INET6) {
    formatIpv6Groups(reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr.s6_addr, out, size);
    return true;
  }
  return false;
}

void fillMsgWithName(RecorderMessage* message, const sockaddr* address) {
  if (!socketInitialized) initializeSocketPointers();
  if (address == nullptr) {
    x_disp(DMK_ERROR, "name is null => can't fill message");
    return;
  }
  if (message == nullptr) return;
  message->set(RMA_FAMILY, familyToString(address->sa_family), 0);
  if (address->sa_family == AF_INET) {
    const sockaddr_in* v4 = reinterpret_cast<const sockaddr_in*>(address);
    message->set(RMA_IP, True_inet_ntoa(v4->sin_addr), 0);
    message->set(RMA_PORT, static_cast<int>(True_ntohs(v4->sin_port)));
  } else if (address->sa_family == AF_INET6) {
    const sockaddr_in6* v6 = reinterpret_cast<const sockaddr_in6*>(address);
    char text[48];
    formatIpv6Groups(v6->sin6_addr.s6_addr, text, sizeof text);
    message->set(RMA_IP, text, 0);
    message->set(RMA_PORT, static_cast<int>(True_ntohs(v6->sin6_port)));
  }
}

unsigned wtoc(char* destination, const wchar_t* wide) {
  unsigned n = 0;
  for (; wide[n] != L'\0'; ++n) destination[n] = static_cast<char>(wide[n] & 0xff);
  destination[n] = '\0';
  return n;
}
