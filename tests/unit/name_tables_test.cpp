#include "base/name_tables.h"

#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

TEST(FamilyTable, EveryClassicEntryWithItsComment) {
  const char* names[26] = {"AF_UNSPEC", "AF_UNIX",      "AF_INET",     "AF_IMPLINK", "AF_PUP",      "AF_CHAOS",
                           "AF_NS",     "AF_ISO",       "AF_ECMA",     "AF_DATAKIT", "AF_CCITT",    "AF_SNA",
                           "AF_DECnet", "AF_DLI",       "AF_LAT",      "AF_HYLINK",  "AF_APPLETALK", "AF_NETBIOS",
                           "AF_VOICEVIEW", "AF_FIREFOX", "AF_UNKNOWN1", "AF_BAN",    "AF_ATM",      "AF_INET6",
                           "AF_CLUSTER", "AF_12844"};
  const char* comments[26] = {"unspecified",
                              "local to host (pipes, portals)",
                              "internetwork: UDP, TCP, etc.",
                              "arpanet imp addresses",
                              "pup protocols: e.g. BSP",
                              "mit CHAOS protocols",
                              "XEROX NS protocols or IPX protocols: IPX, SPX, etc.",
                              "ISO protocols",
                              "european computer manufacturers",
                              "datakit protocols",
                              "CCITT protocols, X.25 etc",
                              "KORBEL SNA",
                              "DECnet",
                              "Direct data link interface",
                              "LAT",
                              "NSC Hyperchannel",
                              "AppleTalk",
                              "NetBios-style addresses",
                              "VoiceView",
                              "Protocols from Firefox",
                              "Somebody is using this!",
                              "Banyan",
                              "Native ATM Services",
                              "Internetwork Version 6",
                              "Microsoft Wolfpack",
                              "IEEE 1284.4 WG AF"};
  for (unsigned short f = 0; f < 26; ++f) {
    EXPECT_STREQ(familyToString(f), names[f]) << f;
    EXPECT_STREQ(familyToCommentString(f), comments[f]) << f;
  }
}

TEST(FamilyTable, LinuxInet6ReadsAsCcittAndGapsHaveNoText) {
  EXPECT_STREQ(familyToString(10), "AF_CCITT");
  EXPECT_STREQ(familyToString(23), "AF_INET6");
  for (unsigned short f = 26; f <= 36; ++f) {
    EXPECT_EQ(familyToString(f), nullptr) << f;
    EXPECT_EQ(familyToCommentString(f), nullptr) << f;
  }
  EXPECT_STREQ(familyToString(37), "");
  EXPECT_STREQ(familyToString(40), "");
  EXPECT_STREQ(familyToString(65535), "");
  EXPECT_STREQ(familyToCommentString(40), "");
}

TEST(LinuxFamilyTable, EveryEntryAndDefault) {
  const char* expected[33] = {"AF_UNSPEC",  "AF_UNIX",   "AF_INET",    "AF_AX25",   "AF_IPX",    "AF_APPLETALK",
                              "AF_NETROM",  "AF_BRIDGE", "AF_ATMPVC",  "AF_X25",    "AF_INET6",  "AF_ROSE",
                              "AF_DECnet",  "AF_NETBEUI", "AF_SECURITY", "AF_KEY",  "AF_NETLINK", "AF_PACKET",
                              "AF_ASH",     "AF_ECONET", "AF_ATMSVC",  "AF_RDS",    "AF_SNA",    "AF_IRDA",
                              "AF_PPPOX",   "<unknown>", "<unknown>",  "<unknown>", "<unknown>", "<unknown>",
                              "<unknown>",  "<unknown>", "AF_BTM"};
  for (unsigned f = 0; f < 33; ++f) EXPECT_STREQ(afToString(f), expected[f]) << f;
  EXPECT_STREQ(afToString(10), "AF_INET6");
  EXPECT_STREQ(afToString(28), "<unknown>");
  EXPECT_STREQ(afToString(33), "<unknown>");
  EXPECT_STREQ(afToString(99), "<unknown>");
  EXPECT_STREQ(afToString(0xffffffffu), "<unknown>");
}

TEST(ProtocolTable, KnownAndDefault) {
  EXPECT_STREQ(protocolToString(0), "Default Protocol");
  EXPECT_STREQ(protocolToString(3), "BTHPROTO_RFCOMM");
  EXPECT_STREQ(protocolToString(6), "IPPROTO_TCP");
  EXPECT_STREQ(protocolToString(17), "IPPROTO_UDP");
  EXPECT_STREQ(protocolToString(113), "IPPROTO_RM");
  EXPECT_STREQ(protocolToString(1), "<unknown>");
  EXPECT_STREQ(protocolToString(-1), "<unknown>");
}

TEST(TypeTable, BaseTypesAndFlags) {
  const char* expected[10] = {"SOCK_STREAM", "SOCK_DGRAM", "SOCK_RAW",  "SOCK_RDM",  "SOCK_SEQPACKET",
                              "<unknown>",   "<unknown>",  "<unknown>", "<unknown>", "SOCK_PACKET"};
  for (int t = 1; t <= 10; ++t) EXPECT_STREQ(typeToString(t), expected[t - 1]) << t;
  EXPECT_STREQ(typeToString(0), "<unknown>");
  EXPECT_STREQ(typeToString(11), "<unknown>");
  EXPECT_STREQ(typeToString(2), "SOCK_DGRAM");
  EXPECT_STREQ(typeToString(0x801), "SOCK_NONBLOCK | SOCK_STREAM");
  EXPECT_STREQ(typeToString(0x80002), "SOCK_CLOEXEC | SOCK_DGRAM");
  EXPECT_STREQ(typeToString(0x80801), "SOCK_NONBLOCK | SOCK_CLOEXEC | SOCK_STREAM");
  EXPECT_STREQ(typeToString(0x80805), "SOCK_NONBLOCK | SOCK_CLOEXEC | SOCK_SEQPACKET");
  EXPECT_STREQ(typeToString(-1), "SOCK_NONBLOCK | SOCK_CLOEXEC | <unknown>");
}

TEST(TypeTable, OneBufferPerThreadOverwrittenByEachCall) {
  char* first = typeToString(1);
  char* second = typeToString(2);
  EXPECT_EQ(first, second);
  EXPECT_STREQ(first, "SOCK_DGRAM");
}

TEST(IoctlTable, EveryCommandAndDefault) {
  const char* expected[0x22] = {
      "I_NREAD",   "I_PUSH",     "I_POP",     "I_LOOK",     "I_FLUSH",    "I_SRDOPT",    "I_GRDOPT",
      "I_STR",     "I_SETSIG",   "I_GETSIG",  "I_FIND",     "I_LINK",     "I_UNLINK",    "I_RECVFD",
      "I_PEEK",    "I_FDINSERT", "I_SENDFD",  "<unknown>",  "I_SWROPT",   "I_GWROPT",    "I_LIST",
      "I_PLINK",   "I_PUNLINK",  "<unknown>", "<unknown>",  "<unknown>",  "<unknown>",   "I_FLUSHBAND",
      "I_CKBAND",  "I_GETBAND",  "I_ATMARK",  "I_SETCLTIME", "I_GETCLTIME", "I_CANPUT"};
  for (int c = 0x5401; c <= 0x5422; ++c) EXPECT_STREQ(getIoctlCmdKind(c), expected[c - 0x5401]) << std::hex << c;
  EXPECT_STREQ(getIoctlCmdKind(0x5412), "<unknown>");
  EXPECT_STREQ(getIoctlCmdKind(0x5423), "<unknown>");
  EXPECT_STREQ(getIoctlCmdKind(0x5400), "<unknown>");
  EXPECT_STREQ(getIoctlCmdKind(-1), "<unknown>");
  EXPECT_STREQ(getIoctlOptKind(), "");
}

TEST(ErrorTable, EveryKnownCode) {
  struct Row {
    int code;
    const char* name;
    const char* message;
  };
  const Row rows[] = {
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
  for (const Row& row : rows) {
    EXPECT_STREQ(getSocketErrorKind(row.code), row.name) << row.code;
    EXPECT_STREQ(getSocketErrorMsg(row.code), row.message) << row.code;
  }
}

TEST(ErrorTable, UnknownCodesFallToDefaults) {
  for (int code : {0, 1, 114, 117, 994, 998, -1, 100000}) {
    EXPECT_STREQ(getSocketErrorKind(code), "?????") << code;
    EXPECT_STREQ(getSocketErrorMsg(code), "unknown code") << code;
  }
}

namespace {
// getFlagImage only touches a buffer that already holds more than 49 characters.
std::string flagImage(int flags) {
  char buffer[128];
  memset(buffer, 'x', 60);
  buffer[60] = '\0';
  getFlagImage(flags, buffer);
  return buffer;
}
}  // namespace

TEST(FlagImage, FlagsInTheirOrder) {
  EXPECT_EQ(flagImage(0x103), "MSG_PEEK| MSG_OOB| MSG_WAITALL");
  EXPECT_EQ(flagImage(2), "MSG_PEEK");
  EXPECT_EQ(flagImage(1), "MSG_OOB");
  EXPECT_EQ(flagImage(0x100), "MSG_WAITALL");
  EXPECT_EQ(flagImage(0x101), "MSG_OOB| MSG_WAITALL");
  EXPECT_EQ(flagImage(0), "<NONE>");
  EXPECT_EQ(flagImage(0x40), "<NONE>");
}

TEST(FlagImage, ShortOrNullBufferIsLeftAlone) {
  getFlagImage(2, nullptr);
  char shortText[64] = "only forty-nine characters long .................";
  ASSERT_EQ(strlen(shortText), 49u);
  getFlagImage(2, shortText);
  EXPECT_STREQ(shortText, "only forty-nine characters long .................");
  char fifty[64];
  memset(fifty, 'y', 50);
  fifty[50] = '\0';
  getFlagImage(2, fifty);
  EXPECT_STREQ(fifty, "MSG_PEEK");
}

TEST(TypeTable, NamesFromManyThreadsAtOnceAreEachWhole) {
  // Threads that name types at the same moment each get their own text: a shared buffer would
  // hand them each other's halves, or run past its end.
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&wrong, t] {
      const int type = t % 2 == 0 ? 0x80805 : 0x2;
      const char* expected = t % 2 == 0 ? "SOCK_NONBLOCK | SOCK_CLOEXEC | SOCK_SEQPACKET" : "SOCK_DGRAM";
      for (int i = 0; i < 200000; ++i) {
        if (strcmp(typeToString(type), expected) != 0) ++wrong;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
}
