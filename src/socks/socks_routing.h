// Which connects go through the SOCKS server, the per-socket lock that makes senders wait for a
// SOCKS exchange, and the memo of ports the host itself has bound.
#pragma once

#include <sys/socket.h>

#include "socks/socks_status.h"

struct SOCKETINFO;

int SocksConnect(SOCKETINFO* record, const sockaddr* destination, int length, int* socksError);
int checkSocksStatus(int socket, int status, bool* toReconnect, int* loopback, int* error);
// A socket whose SOCKS exchange failed stays the program's, under its number: its connection to
// the SOCKS server is dissolved (a connect to AF_UNSPEC), so that it can be connected again, and
// where the system will not dissolve it a fresh socket of the same kind and flags takes the
// number in one step. Closing it instead, as the exchange once did, freed the number for whatever
// another thread opened next, and the program's own close of "its" socket then closed that.
// False when neither could be done. errno is kept.
bool releaseFromSocksServer(int socket);
bool renewSocket(int socket);
bool isBindedLocalHost(int socket, const sockaddr* destination, int length);
bool isStreamSocket(int socket, int family);
unsigned short getLocalPort(int socket, unsigned short family);

void createBindedPortMemo(int socket, unsigned short port);
void freeBindedPortMemo(int socket);
void displayBindedPortMemo();
void physicalFreeBindedPortMemo();

void lock_connection(SOCKETINFO* record, int callNumber);
void unlock_connection(SOCKETINFO* record, int callNumber);
void waitConnectionDone(SOCKETINFO* record, int callNumber);
