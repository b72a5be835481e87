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

const char* const kExtensionKindNames[3] = {"connectoutcome", "wiresend", "wirereceive"};
const char* const kExtensionAttributeNames[6] = {"cookie", "localip", "address", "gaierror", "kind", "tls"};
