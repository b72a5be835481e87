// The transport the agent always had: a fresh TCP connection to the recorder for every message,
// closed once the message is written.
#pragma once

#include "transport/transport.h"

extern const Transport connectionPerMessage;
