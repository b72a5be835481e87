// An extension, on with TALVEX_SOCKET_AGENT_CONNECT_OUTCOME: a non-blocking connect is recorded
// when it starts ("return" -1, EINPROGRESS), and its end is learnt by the program later, most
// often through getsockopt(SO_ERROR) after a poll. When the C library gives the program that
// answer, the recorder gets it too, as a "connectoutcome" message: "return" 0 for a connection
// made, -1 with the "error" the program read for one that failed. Without it a refused or timed
// out connect reads as a connection that simply carried nothing.
#pragma once

#include <sys/socket.h>

struct SOCKETINFO;

// After a recorded connect: remembers that it was left in progress, or that it no longer is.
void noteConnectResult(SOCKETINFO* record, int result, int error);

// After the C library answered getsockopt for the program.
void reportConnectOutcome(int socket, int level, int name, const void* value, const socklen_t* length, int result);
