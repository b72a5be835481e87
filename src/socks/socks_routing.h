// Which connects go through the SOCKS server, the per-socket lock that makes senders wait for a
// SOCKS exchange, and the memo of ports the host itself has bound.
#pragma once

#include <sys/socket.h>

#include "socks/socks_status.h"

struct SOCKETINFO;

int SocksConnect(SOCKETINFO* record, const sockaddr* destination, int length, int* socksError);
int checkSocksStatus(int socket, int status, bool* toReconnect, int* loopback, int* error);
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
