// Name resolution and socket queries. Resolutions are recorded so that the recorder can map the
// addresses of later connects back to the names the host asked for; queries are only logged.
#include <netinet/in.h>
#include <string.h>

#include "base/name_tables.h"
#include "diag/debug_log.h"
#include "hooks/connect_outcome_report.h"
#include "hooks/handler_support.h"
#include "hooks/handlers.h"
#include "hooks/resolution_details.h"
#include "message/process_attribution.h"
#include "message/recorder_message.h"
#include "real/real_functions.h"
#include "registry/socket_registry.h"
#include "startup/agent_startup.h"
#include "transport/agent_interface.h"

namespace {


void resolutionHead(RecorderMessage& message, const CallStart& start) {
  if (start.stampNs != -1) message.set(RMA_TIMESTAMP_NS, start.stampNs);
  message.set(RMA_TIMESTAMP, start.stamp);
  message.setInt(RMA_TICKET, start.ticket);
  attributeToProcess(message);
}

}  // namespace

int Mygetaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
  const CallStart start = beginCall();
  const int callerErrno = errno;
  if (!socketInitialized) initializeSocketPointers();
  x_disp(DMK_CALL, "[%d]getaddrinfo ", start.cpt);
  errno = callerErrno;
  const int status = True_getaddrinfo(node, service, hints, result);
  const int error = readErrorCode();
  if (status != 0) {
    x_disp(DMK_WARNING, "[%d]getaddrinfo (ERROR : %d %s : %s) nodename : %s\t servname %s", start.cpt, status,
           getSocketErrorKind(error), getSocketErrorMsg(error), orNull(node), orNull(service));
    recordFailedResolution(start, node != nullptr ? node : service, status);
    restoreErrorCode(error);
    return status;
  }
  x_disp(DMK_RET, "[%d]getaddrinfo (OK) nodename : %s\t servname %s", start.cpt, orNull(node), orNull(service));
  const addrinfo* first = result != nullptr ? *result : nullptr;
  const char* name = node != nullptr ? node : service;
  for (const addrinfo* entry = first; entry != nullptr; entry = entry->ai_next) {
    RecorderMessage message(RMT_ADDRINFO, start.cpt);
    resolutionHead(message, start);
    message.set(RMA_FAMILY, familyToString(static_cast<unsigned short>(entry->ai_family)), 0);
    message.set(RMA_NAME, name, 0);
    // Every IPv4 entry carries the first entry's address: recorders match connects against the
    // first answer, the one a client normally tries.
    if (entry->ai_family == AF_INET && first->ai_addr != nullptr) {
      message.set(RMA_IP, True_inet_ntoa(reinterpret_cast<const sockaddr_in*>(first->ai_addr)->sin_addr), 0);
    }
    addEntryAddress(message, entry);
    sendToRecorder(message);
  }
  restoreErrorCode(error);
  return status;
}

hostent* Mygethostbyname(const char* name) {
  const CallStart start = beginCall();
  const int callerErrno = errno;
  if (!socketInitialized) initializeSocketPointers();
  x_disp(DMK_CALL, "[%d]gethostbyname ", start.cpt);
  errno = callerErrno;
  hostent* entry = True_gethostbyname(name);
  const int error = readErrorCode();
  if (entry == nullptr) {
    x_disp(DMK_WARNING, "[%d]gethostbyname (0 return value : %d %s : %s) (\"%s\") returns 0x%lX, ret->h_name=%s",
           start.cpt, error, getSocketErrorKind(error), getSocketErrorMsg(error), orNull(name), 0ul, "<null>");
    RecorderMessage message(RMT_ADDRINFO, start.cpt);
    resolutionHead(message, start);
    message.set(RMA_NAME, name, 0);
    message.setInt64(RMA_RETURN, 0);
    message.set(RMA_ERROR, error);
    sendToRecorder(message);
    restoreErrorCode(error);
    return entry;
  }
  x_disp(DMK_RET, "[%d]gethostbyname (OK) (\"%s\") returns 0x%lX, ret->h_name=%s", start.cpt, orNull(name),
         static_cast<unsigned long>(reinterpret_cast<uintptr_t>(entry)),
         entry->h_name != nullptr ? entry->h_name : "<null>");
  if (entry->h_addrtype == AF_INET) {
    for (char** address = entry->h_addr_list; address != nullptr && *address != nullptr; ++address) {
      in_addr v4;
      memcpy(&v4, *address, sizeof v4);
      RecorderMessage message(RMT_ADDRINFO, start.cpt);
      resolutionHead(message, start);
      message.set(RMA_FAMILY, afToString(static_cast<unsigned>(entry->h_addrtype)), 0);
      message.set(RMA_NAME, name, 0);
      message.set(RMA_IP, True_inet_ntoa(v4), 0);
      sendToRecorder(message);
    }
  } else {
    RecorderMessage message(RMT_ADDRINFO, start.cpt);
    resolutionHead(message, start);
    message.set(RMA_FAMILY, afToString(static_cast<unsigned>(entry->h_addrtype)), 0);
    message.set(RMA_NAME, name, 0);
    sendToRecorder(message);
  }
  restoreErrorCode(error);
  return entry;
}

namespace {

// The seen-but-not-recorded resolutions share one shape: log, call, log, notice.
CallStart beginNotRecorded(const char* name) {
  const CallStart start = beginCall();
  x_disp(DMK_CALL, "[%d]%s ", start.cpt, name);
  x_disp(DMK_INFO, "<NOT_RECORDED_HOOK> %s", name);
  return start;
}

}  // namespace

int Mygethostname(char* name, size_t length) {
  const CallStart start = beginNotRecorded("gethostname");
  const int result = True_gethostname(name, length);
  const int error = readErrorCode();
  if (result == 0) {
    x_disp(DMK_RET, "[%d]gethostname (OK): \"%.*s\"", start.cpt, printableLength(name, length), name);
  } else {
    x_disp(DMK_RET, "[%d]gethostname (SOCKET ERROR : %d %s : %s):", start.cpt, error, getSocketErrorKind(error),
           getSocketErrorMsg(error));
  }
  sendNotHookedInfo("gethostname");
  restoreErrorCode(error);
  return result;
}

servent* Mygetservbyport(int port, const char* protocol) {
  const CallStart start = beginNotRecorded("getservbyport");
  servent* result = True_getservbyport(port, protocol);
  const int error = readErrorCode();
  x_disp(DMK_RET, "[%d]getservbyport (OK):", start.cpt);
  sendNotHookedInfo("getservbyport");
  restoreErrorCode(error);
  return result;
}

servent* Mygetservbyname(const char* name, const char* protocol) {
  const CallStart start = beginNotRecorded("getservbyname");
  servent* result = True_getservbyname(name, protocol);
  const int error = readErrorCode();
  x_disp(DMK_RET, "[%d]getservbyname (OK):", start.cpt);
  sendNotHookedInfo("getservbyname");
  restoreErrorCode(error);
  return result;
}

int Mygetpeername(int socket, sockaddr* address, socklen_t* length) {
  SOCKETINFO* record = getSocketInfo(static_cast<unsigned>(socket));
  si_disp(record, DMK_CALL, "getpeername socket : %lx", static_cast<unsigned long>(static_cast<unsigned>(socket)));
  int result = 0;
  bool answered = false;
  if (address != nullptr && length != nullptr) {
    // A rerouted socket answers with the destination the host asked for, not the SOCKS server.
    // A buffer too small for it gets 14 as the result itself, as rerouted sockets always have.
    socklen_t stored = *length;
    int error = 0;
    if (getSockaddrValues(record, address, &stored, &error)) {
      *length = stored;
      result = error;
      answered = true;
    }
  }
  if (!answered) result = True_getpeername(socket, address, length);
  const int error = readErrorCode();
  si_disp(record, DMK_RET, "getpeername");
  restoreErrorCode(error);
  return result;
}

int Mygetsockname(int socket, sockaddr* address, socklen_t* length) {
  const unsigned fd = static_cast<unsigned>(socket);
  s_disp(fd, DMK_CALL, "getsockname socket : %lx", static_cast<unsigned long>(fd));
  const int result = True_getsockname(socket, address, length);
  const int error = readErrorCode();
  if (result != 0) {
    s_disp(fd, DMK_ERROR, "getsockname ERROR ");
  } else {
    s_disp(fd, DMK_RET, "getsockname OK ");
  }
  restoreErrorCode(error);
  return result;
}

int Mygetsockopt(int socket, int level, int name, void* value, socklen_t* length) {
  const unsigned fd = static_cast<unsigned>(socket);
  s_disp(fd, DMK_CALL, "getsockopt socket : %lx", static_cast<unsigned long>(fd));
  const int result = True_getsockopt(socket, level, name, value, length);
  const int error = readErrorCode();
  reportConnectOutcome(socket, level, name, value, length, result);
  if (result != 0) {
    s_disp(fd, DMK_ERROR, "getsockopt ERROR ");
  } else {
    s_disp(fd, DMK_RET, "getsockopt OK ");
  }
  restoreErrorCode(error);
  return result;
}
