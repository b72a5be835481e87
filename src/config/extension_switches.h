// The extensions that let a reader of the recording tell what the program did, beyond the bytes:
// which socket a descriptor is, how a connect in progress ended, which program a process runs,
// every address a resolution gave, the sockets that are seen but not recorded, the process of
// every message, what a TLS connection carried before encryption, and its records as well. Each is on
// while its own variable is set (whatever its value); unset, no message changes.
#pragma once

enum Extension {
  EXT_SOCKET_IDENTITY,    // TALVEX_SOCKET_AGENT_SOCKET_IDENTITY
  EXT_CONNECT_OUTCOME,    // TALVEX_SOCKET_AGENT_CONNECT_OUTCOME
  EXT_COMMAND_LINE,       // TALVEX_SOCKET_AGENT_COMMAND_LINE
  EXT_ALL_RESOLUTIONS,    // TALVEX_SOCKET_AGENT_ALL_RESOLUTIONS
  EXT_UNRECORDED_SOCKETS, // TALVEX_SOCKET_AGENT_UNRECORDED_SOCKETS
  EXT_PID_EVERYWHERE,     // TALVEX_SOCKET_AGENT_PID_EVERYWHERE
  EXT_TLS_PLAINTEXT,      // TALVEX_SOCKET_AGENT_TLS_PLAINTEXT
  EXT_TLS_WIRE,           // TALVEX_SOCKET_AGENT_TLS_WIRE
  EXT_COUNT
};

// Read at start-up, with the other switches.
void readExtensionSwitches();
// Whether the extension is on. Off until start-up has read the switches.
bool extensionOn(Extension extension);
