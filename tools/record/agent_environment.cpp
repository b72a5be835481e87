#include "agent_environment.h"

#include <limits.h>
#include <unistd.h>

#include <map>

#include "base/variable_names.h"

namespace talvex {

std::string directoryOfSelf() {
  char path[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return ".";
  path[n] = '\0';
  std::string self(path);
  return self.substr(0, self.rfind('/'));
}

std::string findAgentDirectory() {
  // The loader picks each process's own agent through $LIB.
  for (const std::string& candidate : {directoryOfSelf(), directoryOfSelf() + "/.."}) {
    if (access((candidate + "/lib/i386-linux-gnu/libtalvex_socket_agent.so").c_str(), R_OK) == 0 ||
        access((candidate + "/lib/x86_64-linux-gnu/libtalvex_socket_agent.so").c_str(), R_OK) == 0) {
      return candidate;
    }
  }
  return "";
}

namespace {

// A value in NODE_OPTIONS, which node splits at spaces: quoted, with its quotes and backslashes
// escaped.
std::string nodeOptionValue(const std::string& value) {
  std::string quoted = "\"";
  for (char c : value) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + "\"";
}

}  // namespace

std::vector<std::string> agentEnvironment(char** inherited, const RecordOptions& o, const AgentSetting& setting) {
  std::map<std::string, std::string> environment;
  for (char** e = inherited; *e != nullptr; ++e) {
    const std::string pair = *e;
    const size_t eq = pair.find('=');
    if (eq != std::string::npos) environment[pair.substr(0, eq)] = pair.substr(eq + 1);
  }
  // The agent goes after whatever the user preloads already: a library of theirs that wraps a
  // socket call and looks the next one up with dlsym(RTLD_NEXT) then reaches the agent, and the
  // agent the C library. In front of it, the agent's own lookup of the real function would find
  // that wrapper, whose lookup finds the agent again, for ever.
  const std::string preloaded = environment["LD_PRELOAD"];
  environment["LD_PRELOAD"] = (preloaded.empty() ? "" : preloaded + ":") + setting.agent;
  // Every process of the command's tree records as itself: forked children too.
  environment[TALVEX_VAR_FOLLOW_FORKS] = "1";
  // Every byte on the wire, whichever call moved it, and accepted connections too.
  environment[TALVEX_VAR_COMPLETE_CAPTURE] = "1";
  // What the outputs need to tell what the program did: which socket each descriptor is, how a
  // connect in progress ended, which program each process runs, every address resolved and
  // every name that was not, the sockets not recorded, whose each message is, and what a TLS
  // connection said before it was encrypted.
  for (const char* extension : {TALVEX_VAR_SOCKET_IDENTITY, TALVEX_VAR_CONNECT_OUTCOME, TALVEX_VAR_COMMAND_LINE,
                                TALVEX_VAR_ALL_RESOLUTIONS, TALVEX_VAR_UNRECORDED_SOCKETS, TALVEX_VAR_PID_EVERYWHERE,
                                TALVEX_VAR_TLS_PLAINTEXT}) {
    environment[extension] = "1";
  }
  // A program built with AddressSanitizer's runtime as a library of its own refuses to start
  // unless that runtime comes first in LD_PRELOAD; told not to insist, the documented way, it
  // runs with the agent in front of it. Other programs ignore the option.
  const std::string asan = environment["ASAN_OPTIONS"];
  environment["ASAN_OPTIONS"] = (asan.empty() ? "" : asan + ":") + "verify_asan_link_order=0";
  // One connection per process rather than one per message.
  environment[TALVEX_VAR_PERSISTENT_CHANNEL] = "1";
  environment[TALVEX_VAR_IP_ADDRESS] = setting.endpoint.host;
  environment[TALVEX_VAR_PORT_NUMBER] = std::to_string(setting.endpoint.port);
  if (!setting.localSocket.empty()) {
    environment[TALVEX_VAR_RECORDER_SOCKET] = setting.localSocket;
    // Messages through memory shared with this process, the local socket carrying only doorbells.
    environment[TALVEX_VAR_SHARED_RING] = "1";
  }
  const std::string clock32 = setting.top + "/lib/i386-linux-gnu/libRecorderCore.so";
  const std::string clock64 = setting.top + "/lib/x86_64-linux-gnu/libRecorderCore.so";
  if (access(clock32.c_str(), R_OK) == 0) environment[TALVEX_VAR_RECORDERCORE32_PATH] = clock32;
  if (access(clock64.c_str(), R_OK) == 0) environment[TALVEX_VAR_RECORDERCORE64_PATH] = clock64;
  if (!o.socks.empty()) {
    const bool v6 = setting.socks.host.find(':') != std::string::npos;
    environment[v6 ? TALVEX_VAR_SOCKS_IPV6_ADDRESS : TALVEX_VAR_SOCKS_IPV4_ADDRESS] = setting.socks.host;
    environment[v6 ? TALVEX_VAR_SOCKS_PORT_NUMBER_IPV6 : TALVEX_VAR_SOCKS_PORT_NUMBER_IPV4] =
        std::to_string(setting.socks.port);
  }
  if (o.doubleLogSocks) environment[TALVEX_VAR_DOUBLE_LOG_SOCKS] = "";
  if (o.traceback) environment[TALVEX_VAR_DEBUG_TRACEBACK] = "";
  if (o.unplug) environment[TALVEX_VAR_UNPLUG_AGENT] = "";
  if (!o.keylog.empty()) {
    environment[TALVEX_VAR_TLS_KEYLOG] = o.keylog;
    // Node's OpenSSL is linked into node, out of the agent's reach; node writes its keys itself
    // when asked, into the same file (its own lines, whole, appended as the agent's are).
    const std::string node = environment["NODE_OPTIONS"];
    environment["NODE_OPTIONS"] = (node.empty() ? "" : node + " ") + "--tls-keylog=" + nodeOptionValue(o.keylog);
  }
  if (!o.logDir.empty()) {
    environment[TALVEX_VAR_DEBUG_DIR] = o.logDir;
    environment[TALVEX_VAR_DEBUG_LVL] = o.logLevel;
  }
  std::vector<std::string> pairs;
  for (const auto& e : environment) pairs.push_back(e.first + "=" + e.second);
  return pairs;
}

}  // namespace talvex
