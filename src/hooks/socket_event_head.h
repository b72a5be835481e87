// The head the messages about one socket that the agent sends of its own accord (an adopted
// socket, a connect's outcome, a socket not recorded) share: when, which process, which ticket,
// which socket, in the order the accept message has always had them.
#pragma once

#include <stdint.h>

#include "hooks/handler_support.h"

class RecorderMessage;

void setSocketEventHead(RecorderMessage& message, const CallStart& start, int64_t socket);
