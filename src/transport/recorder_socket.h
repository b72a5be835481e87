// An extension, on when TALVEX_SOCKET_AGENT_RECORDER_SOCKET names a local (Unix) stream socket
// and the persistent channel is on: the channel connects there first, and to the recorder's TCP
// address only when that fails (a process that changed its root or its mount namespace cannot see
// the socket). A local socket carries a large recording at about half the kernel's cost of TCP
// over loopback: no segments, acknowledgements or checksums, one copy in and one out. A name
// that starts with '@' is in the abstract namespace (the '@' stands for its leading zero byte).
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

extern const char* const kRecorderSocketVariable;

// Read at start-up, with the other switches.
void readRecorderSocket();
// The socket's address and its length, or null when the variable is unset or names nothing usable.
const sockaddr_un* recorderSocketAddress(socklen_t* length);
