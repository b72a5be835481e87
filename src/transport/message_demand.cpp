#include "transport/message_demand.h"

#include "base/process_identity.h"
#include "diag/debug_log.h"
#include "transport/agent_interface.h"

namespace {
// Below this a message always encodes (memory permitting); above it the encoder may refuse the
// message and log that it dropped it, so such a message is built as before.
const uint64_t kAlwaysEncodable = 64u << 20;
}  // namespace

bool messageObservable(uint64_t payloadBytes) {
  return __atomic_load_n(&agentInterfaceUnplugged, __ATOMIC_RELAXED) == 0 || isDebugLevelEnable(DMK_DATA) ||
         payloadBytes >= kAlwaysEncodable;
}

bool messageWorthBuilding(uint64_t payloadBytes) {
  if (messageObservable(payloadBytes)) return true;
  AgentInterface* channel = getAgentInterface();
  if (channel != nullptr) channel->dropPendingMessage();
  return false;
}
