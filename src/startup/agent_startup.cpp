#include "startup/agent_startup.h"
#include "base/symbol_versions.h"
#include "config/complete_capture.h"
#include "config/extension_switches.h"
#include "config/tls_keylog_file.h"
#include "transport/persistent_channel.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "base/critical_section.h"
#include "base/variable_names.h"
#include "config/socks_config.h"
#include "diag/crash_handler.h"
#include "diag/debug_log.h"
#include "real/dlsym_bootstrap.h"
#include "real/real_functions.h"
#include "socks/local_addresses.h"
#include "startup/fork_following.h"
#include "startup/fork_reset.h"
#include "startup/recorder_core.h"
#include "transport/debug_server.h"
#include "transport/recorder_channel_startup.h"
#include "transport/recorder_socket.h"
#include "transport/shared_ring.h"
#include "transport/transport_choice.h"

__asm__(".symver dladdr,dladdr@" TALVEX_GLIBC_FIRST);

namespace {

const char* const kDoubleLogSocksVariable = TALVEX_VAR_DOUBLE_LOG_SOCKS;
int socksServerAddressInitialized = 0;
int socketPointersStarting = 0;

// A child claimed a start-up its parent's other thread had begun: that run's guard is the child's
// to clear, or the child would never resolve its pointers.
bool claimOrphanedStartupHere() {
  if (!claimOrphanedStartup()) return false;
  __atomic_store_n(&socketPointersStarting, 0, __ATOMIC_RELEASE);
  return true;
}

template <class Function>
void resolveIfMissing(Function& pointer, const char* name) {
  if (pointer == nullptr) pointer = reinterpret_cast<Function>(Truedlsym(RTLD_NEXT, name));
}

// The agent's own file, so that the recorder core can be looked for beside it.
void locateAgentFile() {
  Dl_info info;
  agentFileName = nullptr;
  if (dladdr(reinterpret_cast<void*>(&initializeSocketPointers), &info) == 0 || info.dli_fname == nullptr) return;
  strncpy(agentPath, info.dli_fname, sizeof agentPath - 1);
  agentPath[sizeof agentPath - 1] = '\0';
  char* slash = strrchr(agentPath, '/');
  if (slash != nullptr) agentFileName = slash + 1;
}

}  // namespace

void GlobalInit() {
  // One atomic test-and-set: threads whose first calls meet here must not both pass. Whoever
  // comes second returns at once and goes on with what is already set up.
  if (__atomic_exchange_n(&globalInitDone, 1, __ATOMIC_ACQ_REL) != 0 && !claimOrphanedStartupHere()) return;
  noteStartupThread();
  // First, so that a fork at any later moment of start-up leaves the child usable locks.
  installForkReset();
  installCrashHandlerOnRequest();
  resolveIfMissing(socket_ptr, "socket");
  resolveIfMissing(connect_ptr, "connect");
  resolveIfMissing(getaddrinfo_ptr, "getaddrinfo");
  resolveIfMissing(getsockname_ptr, "getsockname");
  resolveIfMissing(bind_ptr, "bind");
  resolveIfMissing(getpeername_ptr, "getpeername");
  resolveIfMissing(send_ptr, "send");
  resolveIfMissing(recv_ptr, "recv");
  resolveIfMissing(sendto_ptr, "sendto");
  resolveIfMissing(recvfrom_ptr, "recvfrom");
  resolveIfMissing(recvmsg_ptr, "recvmsg");
  resolveIfMissing(sendmsg_ptr, "sendmsg");
  resolveIfMissing(setsockopt_ptr, "setsockopt");
  resolveIfMissing(getsockopt_ptr, "getsockopt");
  resolveIfMissing(listen_ptr, "listen");
  resolveIfMissing(accept_ptr, "accept");
  initializeSocketPointers();
  initializeCriticalSections();
  getDebugLvl();
  set_default_debug_display("sock");
  __atomic_store_n(&globalInit, 1, __ATOMIC_RELEASE);
  initializeSocksParam();
  InitializeSocks();
  initializeDebugServer();
  initializeStartup();
}

void initializeSocketPointers() {
  if (socketInitialized) return;
  // Handlers may ask for this from several threads while the first run is still under way; one
  // run at a time, or the process would get two interfaces and two process messages.
  if (__atomic_exchange_n(&socketPointersStarting, 1, __ATOMIC_ACQ_REL) != 0) return;
  GlobalInit();
  x_disp(DMK_INFO, "initialize library " TALVEX_ABI_BITS);
  currentProcessId = getpid();
  locateAgentFile();
  doubleLogSocks = getenv(kDoubleLogSocksVariable) != nullptr;
  readFollowForks();
  readCompleteCapture();
  readExtensionSwitches();
  readTlsKeylogFile();
  readPersistentChannel();
  readRecorderSocket();
  readSharedRing();
  chooseTransport();
  locateRecorderCore();
  startRecorderChannel();
  initializeRealFunctionPointers();
  initializeSocksParam();
  __atomic_store_n(&socketPointersStarting, 0, __ATOMIC_RELEASE);
}

void cleanSocketPointers() { socketInitialized = 0; }

void initializeStartup() {
  StartCriticalSectionBase(&criticalSectionSocks);
  if (!socksServerAddressInitialized) {
    socksServerAddressInitialized = 1;
    x_disp(DMK_INFO, "===> WSAStartup : starting to resolve local addresses");
    resolveLocalAdresses();
    if (socksModeActive) {
      x_disp(DMK_INFO, "===> retrieving socks server info");
      if (socksIpv4Val != nullptr) {
        serverIPV4.sin_family = AF_INET;
        serverIPV4.sin_port = True_htons(static_cast<uint16_t>(socksPort4Val));
        serverIPV4.sin_addr.s_addr = True_inet_addr(socksIpv4Val);
        in_addr parsed;
        serverIPV4Usable = inet_aton(socksIpv4Val, &parsed) != 0;
        x_disp(DMK_INFO, "===> IPV4 socks : %s(%d)", socksIpv4Val, socksPort4Val);
      } else {
        x_disp(DMK_INFO, "===> IPV4 val is NULL...");
      }
      if (socksIpv6Val != nullptr) {
        serverIPV6.sin6_family = AF_INET6;
        serverIPV6Usable = True_inet_pton(AF_INET6, socksIpv6Val, &serverIPV6.sin6_addr) == 1;
        serverIPV6.sin6_port = True_htons(static_cast<uint16_t>(socksPort6Val));
        x_disp(DMK_INFO, "===> IPV6 socks : %s(%d)", socksIpv6Val, socksPort6Val);
      } else {
        x_disp(DMK_INFO, "===> IPV6 val is NULL...");
      }
    }
  }
  x_disp(DMK_INFO, "===> WSAStartup : local addresses solved");
  EndCriticalSectionBase(&criticalSectionSocks);
}

void pre_init_startup() {
  // Kept as a hook point for work that must precede a socket or connect; nothing needs it now.
}
