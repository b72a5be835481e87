// An extension, on with TALVEX_SOCKET_AGENT_UNRECORDED_SOCKETS: a socket whose traffic is not
// recorded (UDP, UNIX-domain, netlink, a socketpair) is reported once, on its first use, as a
// "notrecorded" message with its "socket", its "family" (AF_UNIX, AF_INET, ...) and its "kind"
// (stream, datagram, seqpacket, raw, other). A reader can then say what the program did that the
// recording does not hold, rather than take silence for "nothing happened".
#pragma once

struct SOCKETINFO;

// A registered socket whose call was not recorded for `reason` (registry/recording_decision.h).
void noticeUnrecordedSocket(SOCKETINFO* record, unsigned fd, int reason);

// A descriptor first met in its traffic that is a socket but not one whose traffic is recorded.
// Once per descriptor number until its close: the caller asks only while it is unknown.
void noticeUnrecordedDescriptor(unsigned fd, int domain, int type);
