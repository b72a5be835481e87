#include "transport/recorder_channel_startup.h"

#include <stdlib.h>
#include <unistd.h>

#include "base/counters.h"
#include "base/process_identity.h"
#include "base/time_base.h"
#include "base/variable_names.h"
#include "diag/debug_log.h"
#include "message/command_line.h"
#include "message/recorder_message.h"
#include "transport/agent_interface.h"

namespace {

void logUnpluggedBanner() {
  x_disp(DMK_INFO, "************************************************************");
  x_disp(DMK_INFO, "* WARNING :                                                *");
  x_disp(DMK_INFO, "*    agent interface is unplugged (recording disabled)     *");
  x_disp(DMK_INFO, "*    undefine \"TALVEX_SOCKET_AGENT_UNPLUG_AGENT\" *");
  x_disp(DMK_INFO, "************************************************************");
}

}  // namespace

// The first message of the process; the recorder learns from it who is talking.
RecorderMessage* buildProcessMessage() {
  RecorderMessage* message = createRecorderMessage(RMT_PROCESS, 0);
  if (message == nullptr) return nullptr;
  const int64_t stampNs = getTimeStampNs();
  if (stampNs != -1) message->set(RMA_TIMESTAMP_NS, stampNs);
  // The process message carries a zero millisecond time stamp; the recorder expects it so.
  message->set(RMA_TIMESTAMP, 0);
  message->set(RMA_TICKET, static_cast<int>(getTicket()));
  char* workingDirectory = get_current_dir_name();
  message->set(RMA_WORKINGDIR, workingDirectory, 0);
  free(workingDirectory);
  message->set(RMA_PID, static_cast<int>(getpid()));
  message->set(RMA_ARCHI, "LINUX", 0);
  addCommandLine(*message);
  return message;
}

void startRecorderChannel() {
  if (getenv(TALVEX_VAR_UNPLUG_AGENT) != nullptr) {
    agentInterfaceUnplugged = 1;
    logUnpluggedBanner();
  }
  RecorderMessage* processMessage = buildProcessMessage();
  const char* address = getenv(TALVEX_VAR_IP_ADDRESS);
  const char* port = getenv(TALVEX_VAR_PORT_NUMBER);
  x_disp(DMK_INFO, "@@@@ ip : %s\t @@@@ port : %s", orNull(address), orNull(port));
  // A previous interface (start-up run again) is left alive: another thread may be using it.
  AgentInterface* created = createAgentInterface(address, port, processMessage);
  if (created != nullptr) __atomic_store_n(&agentInterface, created, __ATOMIC_RELEASE);
}
