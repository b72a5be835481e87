#include "transport/agent_interface.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <new>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "base/counters.h"
#include "base/critical_section.h"
#include "base/environment.h"
#include "base/process_identity.h"
#include "base/time_base.h"
#include "diag/debug_log.h"
#include "message/process_attribution.h"
#include "real/real_functions.h"
#include "transport/transport_choice.h"

AgentInterface* agentInterface = nullptr;

namespace {

const char* const kDefaultAddress = "127.0.0.1";
const int kDefaultPort = 1092;

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
  // A transport that cannot write a held payload gets the text with the payload escaped in place.
  if (message.holdsPayload() && !chosenTransport().writesHeldPayloads) message.releasePayload();
  if (!message.complete()) {
    x_disp(DMK_ERROR, "[%d]message dropped: not enough memory to encode it", message.sequence());
    return;
  }
  deliver(message.outgoing());
}

void AgentInterface::_sendAMessage(const char* text, unsigned length) { deliver(OutgoingText{text, length, nullptr, 0}); }

void AgentInterface::deliver(const OutgoingText& message) {
  if (message.length == 0 || message.text == nullptr || agentInterfaceUnplugged) return;
  StartCriticalSectionBase(&criticalSectionSend);
  const int savedErrno = errno;
  sockaddr_in recorder;
  memset(&recorder, 0, sizeof recorder);
  recorder.sin_family = AF_INET;
  recorder.sin_port = True_htons(static_cast<uint16_t>(recorderPort));
  recorder.sin_addr.s_addr = True_inet_addr(recorderAddress);
  if (!addressUsable) {
    x_disp(DMK_ERROR, "no usable recorder address: message not sent");
  } else {
    chosenTransport().deliver(recorder, message);
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
  attributeToProcess(message);
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
