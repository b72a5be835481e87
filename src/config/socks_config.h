// The SOCKS server the agent may reroute connects through, as the environment configures it.
#pragma once

#include <netinet/in.h>
#include <pthread.h>

extern int socksModeActive;
extern int socksDisplayMode;
extern const char* socksIpv4Val;
extern const char* socksIpv6Val;
extern int socksPort4Val;
extern int socksPort6Val;
extern int connectMaxTimeout;
extern sockaddr_in serverIPV4;
extern sockaddr_in6 serverIPV6;
extern pthread_mutex_t criticalSectionSocks;
// Whether the configured server texts are addresses at all.
extern bool serverIPV4Usable;
extern bool serverIPV6Usable;

// The time-out in seconds the agent actually waits: the configured one, or 10 when that is not a
// positive number, at most an hour.
int effectiveSocksTimeout();

void initializeSocksParam();
void InitializeSocks();
// In a forked child: the SOCKS lock usable again.
void resetSocksAfterFork();
void FinalizeSocks();
