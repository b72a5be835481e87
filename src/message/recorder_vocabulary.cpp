#include "message/recorder_vocabulary.h"

const char* const MARKER_RMT[11] = {"process", "addrinfo", "connect", "send", "receive",    "copyfile",
                                    "close",   "accept",   "exit",    "debug", "notrecorded"};

const char* const MARKER_RMAT[5] = {"I4", "U4", "I8", "AS", "UN"};

const char* const MARKER_RMA[24] = {"commandline", "workingdir", "data",        "duration",     "family",
                                    "from",        "ip",         "length",      "name",         "pid",
                                    "port",        "return",     "socket",      "ticket",       "timestamp",
                                    "to",          "error",      "info",        "duration_ns",  "timestamp_ns",
                                    "localport",   "sockserror", "loopback",    "archi"};

const char HexaTable[17] = "0123456789abcdef";

namespace {

// Kept apart from the tables above, whose sizes every consumer of the vocabulary knows.
const char* const kExtensionKinds[] = {"connectoutcome"};
const char* const kExtensionAttributes[] = {"cookie", "localip", "address", "gaierror", "kind"};

}  // namespace

const char* kindName(RecorderMessageKind kind) {
  if (kind < RMT_CONNECTOUTCOME) return MARKER_RMT[kind];
  return kExtensionKinds[kind - RMT_CONNECTOUTCOME];
}

const char* attributeName(RecorderMessageAttribute attribute) {
  if (attribute < RMA_COOKIE) return MARKER_RMA[attribute];
  return kExtensionAttributes[attribute - RMA_COOKIE];
}
