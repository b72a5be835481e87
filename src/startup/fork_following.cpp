#include "startup/fork_following.h"

#include <stdlib.h>
#include <unistd.h>

#include "base/process_identity.h"
#include "base/variable_names.h"
#include "config/extension_switches.h"
#include "registry/socket_registry.h"
#include "transport/agent_interface.h"
#include "transport/recorder_channel_startup.h"

const char* const kFollowForksVariable = TALVEX_VAR_FOLLOW_FORKS;

namespace {
bool followForks = false;
}

void readFollowForks() { followForks = getenv(kFollowForksVariable) != nullptr; }

void followForkInChild() {
  if (!followForks || !__atomic_load_n(&globalInit, __ATOMIC_ACQUIRE)) return;
  AgentInterface* channel = getAgentInterface();
  if (channel == nullptr) return;
  currentProcessId = getpid();
  channel->replacePendingMessage(buildProcessMessage());
  // The child's copies of its parent's connections are told, on their first use, to be the same
  // sockets, so that a reader joins what parent and child sent on one connection.
  if (extensionOn(EXT_SOCKET_IDENTITY)) markInheritedConnections();
}
