// One way for the process's messages to reach the recorder. Start-up chooses one from the
// switches it read (transport/transport_choice); the agent interface and the encoder ask the chosen
// one what they need to know, and no code outside transport/ knows which it is.
#pragma once

#include <netinet/in.h>

#include "message/held_payload.h"

struct Transport {
  // Whether a message built now should hold its large payload for the transport to escape on its
  // way, instead of escaping it into the message's own text first.
  bool (*holdsPayloads)();
  // Whether it can write a message that holds a payload; for one that cannot, the payload is
  // escaped into the text before delivery.
  bool writesHeldPayloads;
  // Writes one message to the recorder at `recorder`. Called with the agent interface's send lock
  // held; the caller keeps errno.
  void (*deliver)(const sockaddr_in& recorder, const OutgoingText& message);
};
