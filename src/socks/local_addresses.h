// The machine's own addresses, so that connects back into this machine can be told apart.
#pragma once

#include <netdb.h>
#include <netinet/in.h>

extern addrinfo* allLocalAdresses;

void resolveLocalAdresses();
// 127.0.0.1, or any IPv4 address the machine's own name resolves to (network order).
bool isLocalIpv4(in_addr_t address);
// ::1 or ::ffff:127.0.0.1. The machine's own IPv6 addresses are compared by identity of the
// stored object, not content, so only these two forms ever match.
bool isLoopbackIpv6(const unsigned char bytes[16]);
