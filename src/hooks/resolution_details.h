// An extension, on with TALVEX_SOCKET_AGENT_ALL_RESOLUTIONS: each "addrinfo" message of a
// resolution carries its own entry's address in "address" (IPv6 ones too; "ip" keeps its usual
// value), and a resolution that failed is recorded as one "addrinfo" message with the name asked
// for and the resolver's code in "gaierror" (EAI_NONAME is -2), so that a recording shows every
// address a program was given and every name it could not resolve.
#pragma once

#include <netdb.h>

#include "hooks/handler_support.h"

class RecorderMessage;

// Adds "address" to the message of `entry`, when the extension is on.
void addEntryAddress(RecorderMessage& message, const addrinfo* entry);

// Records a getaddrinfo that returned `status` (not 0) for `name`, when the extension is on.
void recordFailedResolution(const CallStart& start, const char* name, int status);
