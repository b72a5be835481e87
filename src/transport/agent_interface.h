// The channel to the recorder endpoint: one short TCP connection per message, the pending
// "process" message delivered ahead of the first other one.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include "base/export_visibility.h"
#include "message/recorder_message.h"

class AgentInterface {
 public:
  // Raw texts from the environment; null takes the default (127.0.0.1, 1092). `message` may be
  // null; the interface owns it.
  AgentInterface(const char* address, const char* port, RecorderMessage* message);
  ~AgentInterface();
  AgentInterface(const AgentInterface&) = delete;
  AgentInterface& operator=(const AgentInterface&) = delete;

  void sendAMessage(RecorderMessage& message);
  void _sendAMessage(const char* text, unsigned length);

  // Sends an exit message through an interface of its own; never called by the agent.
  TALVEX_EXPORT static int emitEndOfProcess(const char* address, const char* port, int64_t value);

  const char* address() const { return recorderAddress; }
  int port() const { return recorderPort; }
  bool hasPendingMessage();
  // Puts `message` (owned from now on) ahead of the next message sent, in place of any pending one.
  void replacePendingMessage(RecorderMessage* message);
  // Discards the pending message, if any, as a send that cannot leave the process would.
  void dropPendingMessage();
  void resetLocksAfterFork();

 private:
  void deliver(const OutgoingText& message);

  pthread_mutex_t criticalSectionMessage;
  char recorderAddress[200];
  int32_t recorderPort;
  RecorderMessage* pendingMessage;
  pthread_mutex_t criticalSectionSend;
  // False when the configured address cannot be used (too long, or not an IPv4 address): every
  // send is then refused and logged instead of connecting to a wrong or broadcast address.
  bool addressUsable;
};

extern AgentInterface* agentInterface;
AgentInterface* getAgentInterface();
// In a forked child: the process's channel usable again.
void resetChannelAfterFork();

// Hands a finished call's message to the process's interface. While another thread is still
// starting the agent the interface may not exist yet; the message then waits for it (a few
// seconds at most) instead of being lost.
void sendToRecorder(RecorderMessage& message);

// Tells the recorder that a call reached the agent but is not recorded.
void sendNotHookedInfo(const char* name);
TALVEX_EXPORT void sendNotHookedBadArchi(const char* info);

extern "C" TALVEX_EXPORT int end();

AgentInterface* createAgentInterface(const char* address, const char* port, RecorderMessage* message);
