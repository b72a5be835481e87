// The client side of SOCKS5 on the host's own socket: method negotiation, CONNECT request, reply.
#pragma once

#include <stdint.h>
#include <sys/socket.h>

// The moment by which the whole exchange must be over, from the configured time-out.
int64_t socksDeadline();

// Connects `socket` to the SOCKS server of `family` and negotiates "no authentication".
// 0: SOCKS mode off; 1: done; -1: server not reached; 3: negotiation failed.
int socksHandShake(int socket, int* socksError, unsigned short family);
// The same within a deadline the caller shares with the request that follows: the whole exchange,
// not each half of it, is bounded by the configured time-out.
int socksHandShake(int socket, int* socksError, unsigned short family, int64_t deadline);

// Receives a field of `length` bytes, however the stream splits it, waiting no later than `deadline`
// (milliseconds, monotonic). A server that closes first leaves the field as far as it came.
bool receiveSomeData(int socket, unsigned char* buffer, int length, int* socksError, const char* what,
                     int64_t deadline);

// The CONNECT request for `destination` and the server's reply. 1: the server connected;
// 3: the exchange failed; 4: the server refused with a reply code.
int socksRequest(int socket, const sockaddr* destination, int* socksError, int64_t deadline);
// Dissolves whatever connection `socket` has or is making (a connect to AF_UNSPEC), so that it can
// be connected again. 0, or the error that stopped it; errno is kept.
int dissolveConnection(int socket);
