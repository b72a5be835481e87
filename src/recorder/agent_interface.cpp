#include "recorder/agent_interface.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <new>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "agent/agent_startup.h"
#include "agent/environment.h"
#include "agent/time_base.h"
#include "diag/debug_log.h"
#include "diag/name_tables.h"
#include "hooks/counters.h"
#include "hooks/critical_section.h"
#include "interpose/real_functions.h"
#include "recorder/persistent_channel.h"

AgentInterface* agentInterface = nullptr;

namespace {

const char* const kDefaultAddress = "127.0.0.1";
const int kDefaultPort = 1092;

void logFailure(const char* format, int code) {
  x_disp(DMK_ERROR, format, code, getSocketErrorKind(code), getSocketErrorMsg(code));
}

}  // namespace

AgentInterface::AgentInterface(const char* address, const char* port, RecorderMessage* message)
    : recorderPort(kDefaultPort), pendingMessage(nullptr), addressUsable(true) {
  AllocCriticalSectionBase(&criticalSectionMessage);
  AllocCriticalSectionBase(&criticalSectionSend);
  if (address == nullptr) address = kDefaultAddress;
  const size_t addressLength = strlen(address);
  if (addressLength >= sizeof recorderAddress) {
    x_disp(DMK_ERROR, "recorder address of %u characters is too long (at most %u): nothing will be sent",
           static_cast<unsigned>(addressLength), static_cast<unsigned>(sizeof recorderAddress - 1));
    recorderAddress[0] = '\0';
    addressUsable = false;
  } else {
    memcpy(recorderAddress, address, addressLength + 1);
    in_addr parsed;
    if (inet_aton(recorderAddress, &parsed) == 0) {
      x_disp(DMK_ERROR, "recorder address %s is not an IPv4 address: nothing will be sent", recorderAddress);
      addressUsable = false;
    }
  }
  if (port != nullptr) {
    const int parsed = intFromText(port);
    // A number that is no port would wrap to some other port, and messages would go to whatever
    // listens there.
    if (parsed < 0 || parsed > 65535) {
      x_disp(DMK_ERROR, "recorder port %s is out of range: nothing will be sent", port);
      addressUsable = false;
    }
    recorderPort = static_cast<int32_t>(parsed);
  }
  StartCriticalSectionBase(&criticalSectionMessage);
  pendingMessage = message;
  EndCriticalSectionBase(&criticalSectionMessage);
}

AgentInterface::~AgentInterface() {
  StartCriticalSectionBase(&criticalSectionMessage);
  destroyRecorderMessage(pendingMessage);
  pendingMessage = nullptr;
  FreeCriticalSectionBase(&criticalSectionSend);
  EndCriticalSectionBase(&criticalSectionMessage);
  FreeCriticalSectionBase(&criticalSectionMessage);
}

bool AgentInterface::hasPendingMessage() {
  StartCriticalSectionBase(&criticalSectionMessage);
  const bool pending = pendingMessage != nullptr;
  EndCriticalSectionBase(&criticalSectionMessage);
  return pending;
}

void AgentInterface::replacePendingMessage(RecorderMessage* message) {
  StartCriticalSectionBase(&criticalSectionMessage);
  RecorderMessage* previous = pendingMessage;
  pendingMessage = message;
  EndCriticalSectionBase(&criticalSectionMessage);
  destroyRecorderMessage(previous);
}

void AgentInterface::dropPendingMessage() {
  // Read without the lock first: after the first message there is never one again.
  if (__atomic_load_n(&pendingMessage, __ATOMIC_ACQUIRE) == nullptr) return;
  replacePendingMessage(nullptr);
}

void AgentInterface::resetLocksAfterFork() {
  const pthread_mutex_t fresh = PTHREAD_MUTEX_INITIALIZER;
  criticalSectionMessage = fresh;
  criticalSectionSend = fresh;
}

void resetChannelAfterFork() {
  AgentInterface* channel = getAgentInterface();
  if (channel != nullptr) channel->resetLocksAfterFork();
}

void AgentInterface::sendAMessage(RecorderMessage& message) {
  StartCriticalSectionBase(&criticalSectionMessage);
  if (pendingMessage != nullptr) {
    pendingMessage->finish();
    _sendAMessage(pendingMessage->toString(), pendingMessage->length());
    destroyRecorderMessage(pendingMessage);
    pendingMessage = nullptr;
  }
  EndCriticalSectionBase(&criticalSectionMessage);
  message.finish();
  // Only the persistent channel writes a held payload; the plain one sends the text as it stands.
  if (message.holdsPayload() && !persistentChannelOn()) message.releasePayload();
  if (!message.complete()) {
    x_disp(DMK_ERROR, "[%d]message dropped: not enough memory to encode it", message.sequence());
    return;
  }
  deliver(message.outgoing());
}

void AgentInterface::_sendAMessage(const char* text, unsigned length) { deliver(OutgoingText{text, length, nullptr, 0}); }

void AgentInterface::deliver(const OutgoingText& message) {
  const char* const text = message.text;
  const unsigned length = message.length;
  if (length == 0 || text == nullptr || agentInterfaceUnplugged) return;
  StartCriticalSectionBase(&criticalSectionSend);
  const int savedErrno = errno;
  sockaddr_in recorder;
  memset(&recorder, 0, sizeof recorder);
  recorder.sin_family = AF_INET;
  recorder.sin_port = True_htons(static_cast<uint16_t>(recorderPort));
  recorder.sin_addr.s_addr = True_inet_addr(recorderAddress);
  if (!addressUsable) {
    x_disp(DMK_ERROR, "no usable recorder address: message not sent");
  } else if (persistentChannelOn()) {
    sendOnPersistentChannel(recorder, message);
  } else {
    // Close-on-exec: a program the host starts while a message is on its way must not inherit it.
    const int fd = True_socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (fd == -1) {
      logFailure("socket() returned INVALID_SOCKET, WSAGetLastError=%d %s : %s", errno);
    } else {
      if (True_connect(fd, reinterpret_cast<sockaddr*>(&recorder), sizeof recorder) != 0) {
        logFailure("connect() returned SOCKET_ERROR, WSAGetLastError=%d %s : %s", errno);
      } else if (True_send(fd, text, length, MSG_NOSIGNAL) == -1) {
        // MSG_NOSIGNAL: a recorder that closed early must not end the host with SIGPIPE.
        // A short send is not retried: the recorder reads one message per connection, and a
        // second send could not make a torn one whole anyway.
        logFailure("send() returned SOCKET_ERROR, WSAGetLastError=%d %s : %s", errno);
      }
      True_close(fd);
    }
  }
  errno = savedErrno;
  EndCriticalSectionBase(&criticalSectionSend);
}

int AgentInterface::emitEndOfProcess(const char* address, const char* port, int64_t value) {
  (void)value;
  static char currentDirectory[2048];
  // Without a current directory the process is in no state to report: ending it is the
  // established behaviour of this call.
  if (getcwd(currentDirectory, sizeof currentDirectory) == nullptr) exit(-1);
  const size_t length = strlen(currentDirectory);
  if (length == 0 || length > sizeof currentDirectory) exit(-1);
  AgentInterface temporary(address, port, nullptr);
  RecorderMessage exitMessage(RMT_EXIT, 0);
  temporary.sendAMessage(exitMessage);
  return 0;
}

AgentInterface* getAgentInterface() { return __atomic_load_n(&agentInterface, __ATOMIC_ACQUIRE); }

void sendToRecorder(RecorderMessage& message) {
  AgentInterface* channel = getAgentInterface();
  const timespec pause = {0, 1000 * 1000};
  for (int waited = 0; channel == nullptr && waited < 5000 && startupRunningElsewhere(); ++waited) {
    nanosleep(&pause, nullptr);
    channel = getAgentInterface();
  }
  if (channel != nullptr) channel->sendAMessage(message);
}

AgentInterface* createAgentInterface(const char* address, const char* port, RecorderMessage* message) {
  void* memory = malloc(sizeof(AgentInterface));
  if (memory == nullptr) {
    destroyRecorderMessage(message);
    return nullptr;
  }
  return new (memory) AgentInterface(address, port, message);
}

namespace {

void sendNotice(RecorderMessageAttribute attribute, const char* text) {
  const int64_t stampNs = getTimeStampNs();
  const int64_t stamp = getTimeStamp();
  const int ticket = static_cast<int>(getTicket());
  const int cpt = static_cast<int>(getGlobalCpt());
  RecorderMessage message(RMT_NOTRECORDED, cpt);
  if (stampNs != -1) message.set(RMA_TIMESTAMP_NS, stampNs);
  message.set(RMA_TIMESTAMP, stamp);
  message.set(RMA_TICKET, ticket);
  message.set(attribute, text != nullptr ? text : "???", 0);
  sendToRecorder(message);
}

}  // namespace

void sendNotHookedInfo(const char* name) { sendNotice(RMA_NAME, name); }
void sendNotHookedBadArchi(const char* info) { sendNotice(RMA_INFO, info); }

int end() {
  const int cpt = static_cast<int>(getGlobalCpt());
  x_disp(DMK_RET, "[%d]end called", cpt);
  AgentInterface* channel = getAgentInterface();
  if (channel == nullptr) return 0;
  RecorderMessage message(RMT_EXIT, cpt);
  channel->sendAMessage(message);
  return 0;
}
