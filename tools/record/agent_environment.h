// The environment talvex-record gives the command: the user's own, with the agent preloaded behind
// whatever the user preloads, and the switches that make the agent record every process of the
// tree, every byte, over one connection (a local socket and a shared ring where it can) to this
// run's endpoint.
#pragma once

#include <string>
#include <vector>

#include "listen_address.h"
#include "record_options.h"

namespace talvex {

struct AgentSetting {
  std::string agent;        // the agents' path, with $LIB for the loader to fill in
  std::string top;          // the directory holding lib/<multiarch>/
  ListenAddress endpoint;   // where the endpoint listens, with its actual port
  std::string localSocket;  // the endpoint's local socket, or empty
  ListenAddress socks;      // with --socks
};

// NAME=value pairs, sorted by name.
std::vector<std::string> agentEnvironment(char** inherited, const RecordOptions& options, const AgentSetting& setting);

// Where this program is.
std::string directoryOfSelf();

// The directory that holds lib/<multiarch>/libtalvex_socket_agent.so: beside this program in the
// build tree, or one level up once installed. Empty when neither has an agent.
std::string findAgentDirectory();

}  // namespace talvex
