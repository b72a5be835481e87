#include "config/socks_config.h"

#include <stdlib.h>

#include "base/critical_section.h"
#include "base/environment.h"
#include "base/variable_names.h"
#include "diag/debug_log.h"

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
bool serverIPV4Usable = false;
bool serverIPV6Usable = false;

namespace {
const int kDefaultSocksPort = 1081;
const int kDefaultTimeout = 10;
const int kLongestTimeout = 3600;
}  // namespace

int effectiveSocksTimeout() {
  if (connectMaxTimeout <= 0) return kDefaultTimeout;
  return connectMaxTimeout > kLongestTimeout ? kLongestTimeout : connectMaxTimeout;
}

void initializeSocksParam() {
  socksIpv4Val = getenv(TALVEX_VAR_SOCKS_IPV4_ADDRESS);
  if (socksIpv4Val != nullptr) {
    socksPort4Val = numberOrDefault(TALVEX_VAR_SOCKS_PORT_NUMBER_IPV4, kDefaultSocksPort);
    connectMaxTimeout = numberOrDefault(TALVEX_VAR_SOCKS_MAX_TIMEOUT, connectMaxTimeout);
  }
  socksIpv6Val = getenv(TALVEX_VAR_SOCKS_IPV6_ADDRESS);
  if (socksIpv6Val != nullptr) {
    socksPort6Val = numberOrDefault(TALVEX_VAR_SOCKS_PORT_NUMBER_IPV6, kDefaultSocksPort);
  }
  if (socksIpv4Val == nullptr && socksIpv6Val == nullptr) {
    socksModeActive = 0;
    x_disp(DMK_INFO, "**************************");
    x_disp(DMK_INFO, "** SocksMode not active **");
    x_disp(DMK_INFO, "**************************");
    return;
  }
  socksModeActive = 1;
  connectMaxTimeout = numberOrDefault(TALVEX_VAR_SOCKS_MAX_TIMEOUT, connectMaxTimeout);
  x_disp(DMK_INFO, "**********************");
  x_disp(DMK_INFO, "** SocksMode active **");
  x_disp(DMK_INFO, "**********************");
  x_disp(DMK_INFO, "Socks server IPV4 IP : %s", orNull(socksIpv4Val));
  x_disp(DMK_INFO, "Socks server IPV6 IP : %s", orNull(socksIpv6Val));
  x_disp(DMK_INFO, "Socks server IPV4 Port : %d", socksPort4Val);
  x_disp(DMK_INFO, "Socks server IPV6 Port : %d", socksPort6Val);
  if (debugLvl != 0) socksDisplayMode = 1;
}

void resetSocksAfterFork() {
  const pthread_mutex_t fresh = PTHREAD_MUTEX_INITIALIZER;
  criticalSectionSocks = fresh;
}

void InitializeSocks() { AllocCriticalSectionBase(&criticalSectionSocks); }
void FinalizeSocks() { FreeCriticalSectionBase(&criticalSectionSocks); }
