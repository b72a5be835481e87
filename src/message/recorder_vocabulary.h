// The recorder's vocabulary: message kinds, attribute names and value type tags.
#pragma once

enum RecorderMessageKind {
  RMT_PROCESS = 0,
  RMT_ADDRINFO = 1,
  RMT_CONNECT = 2,
  RMT_SEND = 3,
  RMT_RECEIVE = 4,
  RMT_COPYFILE = 5,
  RMT_CLOSE = 6,
  RMT_ACCEPT = 7,
  RMT_EXIT = 8,
  RMT_DEBUG = 9,
  RMT_NOTRECORDED = 10,
  // Kinds that only extensions send (the kExtension tables below name them).
  RMT_CONNECTOUTCOME = 11,
  RMT_WIRESEND = 12,
  RMT_WIRERECEIVE = 13,
};

enum RecorderMessageAttributeType {
  RMAT_I4 = 0,
  RMAT_U4 = 1,
  RMAT_I8 = 2,
  RMAT_AS = 3,
  RMAT_UN = 4,
};

enum RecorderMessageAttribute {
  RMA_COMMANDLINE = 0,
  RMA_WORKINGDIR = 1,
  RMA_DATA = 2,
  RMA_DURATION = 3,
  RMA_FAMILY = 4,
  RMA_FROM = 5,
  RMA_IP = 6,
  RMA_LENGTH = 7,
  RMA_NAME = 8,
  RMA_PID = 9,
  RMA_PORT = 10,
  RMA_RETURN = 11,
  RMA_SOCKET = 12,
  RMA_TICKET = 13,
  RMA_TIMESTAMP = 14,
  RMA_TO = 15,
  RMA_ERROR = 16,
  RMA_INFO = 17,
  RMA_DURATION_NS = 18,
  RMA_TIMESTAMP_NS = 19,
  RMA_LOCALPORT = 20,
  RMA_SOCKSERROR = 21,
  RMA_LOOPBACK = 22,
  RMA_ARCHI = 23,
  // Attributes that only extensions set (the kExtension tables below name them).
  RMA_COOKIE = 24,
  RMA_LOCALIP = 25,
  RMA_ADDRESS = 26,
  RMA_GAIERROR = 27,
  RMA_KIND = 28,
  RMA_TLS = 29,
};

extern const char* const MARKER_RMT[11];
extern const char* const MARKER_RMAT[5];
extern const char* const MARKER_RMA[24];
extern const char HexaTable[17];

// The names of the kinds and attributes only extensions send, kept apart from the tables above,
// whose sizes every consumer of the vocabulary knows.
extern const char* const kExtensionKindNames[3];
extern const char* const kExtensionAttributeNames[6];

// The name of a kind or an attribute, the extensions' own included. Inline: every attribute of
// every message is written through it.
inline const char* kindName(RecorderMessageKind kind) {
  return kind < RMT_CONNECTOUTCOME ? MARKER_RMT[kind] : kExtensionKindNames[kind - RMT_CONNECTOUTCOME];
}
inline const char* attributeName(RecorderMessageAttribute attribute) {
  return attribute < RMA_COOKIE ? MARKER_RMA[attribute] : kExtensionAttributeNames[attribute - RMA_COOKIE];
}
