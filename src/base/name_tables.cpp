#include "base/name_tables.h"

#include <stdio.h>
#include <string.h>

namespace {

struct FamilyEntry {
  const char* name;
  const char* comment;
};

// The classic socket-library numbering, used for every family the agent prints, Linux ones
// included: recorders compare these names, so AF_INET6 (10 on Linux) deliberately reads AF_CCITT.
const FamilyEntry families[37] = {
    {"AF_UNSPEC", "unspecified"},
    {"AF_UNIX", "local to host (pipes, portals)"},
    {"AF_INET", "internetwork: UDP, TCP, etc."},
    {"AF_IMPLINK", "arpanet imp addresses"},
    {"AF_PUP", "pup protocols: e.g. BSP"},
    {"AF_CHAOS", "mit CHAOS protocols"},
    {"AF_NS", "XEROX NS protocols or IPX protocols: IPX, SPX, etc."},
    {"AF_ISO", "ISO protocols"},
    {"AF_ECMA", "european computer manufacturers"},
    {"AF_DATAKIT", "datakit protocols"},
    {"AF_CCITT", "CCITT protocols, X.25 etc"},
    {"AF_SNA", "KORBEL SNA"},
    {"AF_DECnet", "DECnet"},
    {"AF_DLI", "Direct data link interface"},
    {"AF_LAT", "LAT"},
    {"AF_HYLINK", "NSC Hyperchannel"},
    {"AF_APPLETALK", "AppleTalk"},
    {"AF_NETBIOS", "NetBios-style addresses"},
    {"AF_VOICEVIEW", "VoiceView"},
    {"AF_FIREFOX", "Protocols from Firefox"},
    {"AF_UNKNOWN1", "Somebody is using this!"},
    {"AF_BAN", "Banyan"},
    {"AF_ATM", "Native ATM Services"},
    {"AF_INET6", "Internetwork Version 6"},
    {"AF_CLUSTER", "Microsoft Wolfpack"},
    {"AF_12844", "IEEE 1284.4 WG AF"},
    // 26 to 36 have no entry.
};

const char* const linuxFamilies[33] = {
    "AF_UNSPEC",    "AF_UNIX",   "AF_INET",   "AF_AX25",   "AF_IPX",     "AF_APPLETALK", "AF_NETROM",
    "AF_BRIDGE",    "AF_ATMPVC", "AF_X25",    "AF_INET6",  "AF_ROSE",    "AF_DECnet",    "AF_NETBEUI",
    "AF_SECURITY",  "AF_KEY",    "AF_NETLINK", "AF_PACKET", "AF_ASH",    "AF_ECONET",    "AF_ATMSVC",
    "AF_RDS",       "AF_SNA",    "AF_IRDA",   "AF_PPPOX",  "<unknown>",  "<unknown>",    "<unknown>",
    "<unknown>",    "<unknown>", "<unknown>", "<unknown>", "AF_BTM",
};

const char* const socketTypes[10] = {
    "SOCK_STREAM", "SOCK_DGRAM", "SOCK_RAW",  "SOCK_RDM",  "SOCK_SEQPACKET",
    "<unknown>",   "<unknown>",  "<unknown>", "<unknown>", "SOCK_PACKET",
};

const char* const ioctlCommands[0x22] = {
    "I_NREAD",     "I_PUSH",    "I_POP",      "I_LOOK",      "I_FLUSH",     "I_SRDOPT",   "I_GRDOPT",
    "I_STR",       "I_SETSIG",  "I_GETSIG",   "I_FIND",      "I_LINK",      "I_UNLINK",   "I_RECVFD",
    "I_PEEK",      "I_FDINSERT", "I_SENDFD",  "<unknown>",   "I_SWROPT",    "I_GWROPT",   "I_LIST",
    "I_PLINK",     "I_PUNLINK", "<unknown>",  "<unknown>",   "<unknown>",   "<unknown>",  "I_FLUSHBAND",
    "I_CKBAND",    "I_GETBAND", "I_ATMARK",   "I_SETCLTIME", "I_GETCLTIME", "I_CANPUT",
};

struct ErrorEntry {
  int code;
  const char* name;
  const char* message;
};

// Windows-style names for errno values: the recorder's tooling reads socket errors in this
// vocabulary. The pairs for 40 and 115 do not correspond literally and are kept that way.
const ErrorEntry errors[] = {
    {6, "WSA_INVALID_HANDLE", "Specified event object handle is invalid"},
    {8, "WSA_NOT_ENOUGH_MEMORY", "Insufficient memory available"},
    {11, "WSAEWOULDBLOCK", "Resource temporarily unavailable"},
    {36, "WSAENAMETOOLONG", "Name too long"},
    {39, "WSAENOTEMPTY", "Directory not empty"},
    {40, "WSAELOOP", "Cannot translate name"},
    {66, "WSAEREMOTE", "Item is remote"},
    {88, "WSAENOTSOCK", "Socket operation on nonsocket"},
    {89, "WSAEDESTADDRREQ", "Destination address required"},
    {90, "WSAEMSGSIZE", "Message too long"},
    {91, "WSAEPROTOTYPE", "Protocol wrong type for socket"},
    {92, "WSAENOPROTOOPT", "Bad protocol option"},
    {93, "WSAEPROTONOSUPPORT", "Protocol not supported"},
    {94, "WSAESOCKTNOSUPPORT", "Socket type not supported"},
    {95, "WSAEOPNOTSUPP", "Operation not supported"},
    {96, "WSAEPFNOSUPPORT", "Protocol family not supported"},
    {97, "WSAEAFNOSUPPORT", "Address family not supported by protocol family"},
    {98, "WSAEADDRINUSE", "Address already in use"},
    {99, "WSAEADDRNOTAVAIL", "Cannot assign requested address"},
    {100, "WSAENETDOWN", "Network is down"},
    {101, "WSAENETUNREACH", "Network is unreachable"},
    {102, "WSAENETRESET", "Network dropped connection on reset"},
    {103, "WSAECONNABORTED", "Software caused connection abort"},
    {104, "WSAECONNRESET", "Connection reset by peer"},
    {105, "WSAENOBUFS", "No buffer space available"},
    {106, "WSAEISCONN", "Socket is already connected"},
    {107, "WSAENOTCONN", "Socket is not connected"},
    {108, "WSAESHUTDOWN", "Cannot send after socket shutdown"},
    {109, "WSAETOOMANYREFS", "Too many references"},
    {110, "WSAETIMEDOUT", "Connection timed out"},
    {111, "WSAECONNREFUSED", "Connection refused"},
    {112, "WSAEHOSTDOWN", "Host is down"},
    {113, "WSAEHOSTUNREACH", "No route to host"},
    {115, "WSAEINPROGRESS", "Operation already in progress"},
    {116, "WSAESTALE", "Stale file handle reference"},
    {122, "WSAEDQUOT", "Disk quota exceeded"},
    {995, "WSA_OPERATION_ABORTED", "Overlapped operation aborted"},
    {996, "WSA_IO_INCOMPLETE", "Overlapped I/O event object not in signaled state"},
    {997, "WSA_IO_PENDING", "Overlapped operations will complete later"},
};

const ErrorEntry* findError(int code) {
  for (const ErrorEntry& e : errors) {
    if (e.code == code) return &e;
  }
  return nullptr;
}

// Large enough for the longest combination: "SOCK_NONBLOCK | SOCK_CLOEXEC | SOCK_SEQPACKET".
// One per thread: threads that named types at the same moment would append into each other's
// text, past the end of a shared buffer.
__thread char typeImage[64] __attribute__((tls_model("initial-exec")));

}  // namespace

const char* familyToString(unsigned short family) {
  if (family > 36) return "";
  return families[family].name;
}

const char* familyToCommentString(unsigned short family) {
  if (family > 36) return "";
  return families[family].comment;
}

const char* afToString(unsigned family) {
  if (family >= 33) return "<unknown>";
  return linuxFamilies[family];
}

const char* protocolToString(int protocol) {
  switch (protocol) {
    case 0: return "Default Protocol";
    case 3: return "BTHPROTO_RFCOMM";
    case 6: return "IPPROTO_TCP";
    case 17: return "IPPROTO_UDP";
    case 113: return "IPPROTO_RM";
    default: return "<unknown>";
  }
}

char* typeToString(int type) {
  const int base = type & ~(0x800 | 0x80000);
  snprintf(typeImage, sizeof typeImage, "%s%s%s", (type & 0x800) ? "SOCK_NONBLOCK | " : "",
           (type & 0x80000) ? "SOCK_CLOEXEC | " : "", (base >= 1 && base <= 10) ? socketTypes[base - 1] : "<unknown>");
  return typeImage;
}

const char* getIoctlCmdKind(int command) {
  if (command < 0x5401 || command > 0x5422) return "<unknown>";
  return ioctlCommands[command - 0x5401];
}

const char* getIoctlOptKind() { return ""; }

const char* getSocketErrorKind(int error) {
  const ErrorEntry* e = findError(error);
  return e ? e->name : "?????";
}

const char* getSocketErrorMsg(int error) {
  const ErrorEntry* e = findError(error);
  return e ? e->message : "unknown code";
}

void getFlagImage(int flags, char* buffer) {
  // Callers hand in a buffer that already holds a long text; anything shorter is a sign of a
  // buffer too small for the image, so it is left alone.
  if (buffer == nullptr || strlen(buffer) <= 49) return;
  buffer[0] = '\0';
  if (flags & 2) strcat(buffer, "MSG_PEEK");
  if (flags & 1) strcat(buffer, buffer[0] ? "| MSG_OOB" : "MSG_OOB");
  if (flags & 0x100) strcat(buffer, buffer[0] ? "| MSG_WAITALL" : "MSG_WAITALL");
  if (buffer[0] == '\0') strcat(buffer, "<NONE>");
}
