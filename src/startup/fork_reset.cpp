#include "startup/fork_reset.h"

#include <pthread.h>

#include "config/socks_config.h"
#include "diag/debug_log.h"
#include "registry/socket_registry.h"
#include "startup/fork_following.h"
#include "transport/agent_interface.h"
#include "transport/persistent_channel.h"

void resetAgentLocksInChild() {
  resetRegistryAfterFork();
  resetLogAfterFork();
  resetChannelAfterFork();
  leavePersistentChannelAfterFork();
  resetSocksAfterFork();
  followForkInChild();
}

void installForkReset() {
  // Registered at start-up rather than by a constructor: the agent has none, and a child forked
  // before start-up has no agent state to repair.
  pthread_atfork(nullptr, nullptr, &resetAgentLocksInChild);
}
