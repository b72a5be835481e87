#include "transport/transport_choice.h"

#include "transport/connection_per_message.h"
#include "transport/persistent_channel.h"

namespace {

const Transport* chosen = &connectionPerMessage;

}  // namespace

void chooseTransport() {
  const Transport* transport = persistentChannelOn() ? &persistentChannel : &connectionPerMessage;
  __atomic_store_n(&chosen, transport, __ATOMIC_RELEASE);
  heldPayloadWanted = transport->holdsPayloads;
}

const Transport& chosenTransport() { return *__atomic_load_n(&chosen, __ATOMIC_ACQUIRE); }
