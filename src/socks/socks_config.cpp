#include "socks/socks_config.h"

#include "hooks/critical_section.h"

int socksModeActive = 0;
int socksDisplayMode = 0;
const char* socksIpv4Val = nullptr;
const char* socksIpv6Val = nullptr;
int socksPort4Val = 1081;
int socksPort6Val = 1081;
int connectMaxTimeout = 10;
sockaddr_in serverIPV4;
sockaddr_in6 serverIPV6;
pthread_mutex_t criticalSectionSocks;

// Rerouting is not built yet: the SOCKS variables are not read, so SOCKS mode stays off and every
// connect goes straight to its destination.
void initializeSocksParam() {}

void InitializeSocks() { AllocCriticalSectionBase(&criticalSectionSocks); }
void FinalizeSocks() { FreeCriticalSectionBase(&criticalSectionSocks); }
