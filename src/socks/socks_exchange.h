// The SOCKS5 exchange on the host's own socket: greeting, then the CONNECT request and reply.
#pragma once

#include <sys/socket.h>

struct SOCKETINFO;

// Runs the exchange for an IPv4 or IPv6 stream socket when SOCKS mode is on; returns a
// SocksStatus and fills the SOCKS error. On success the record keeps the host's destination.
int runSocksExchange(SOCKETINFO* record, const sockaddr* destination, int length, int* socksError);
