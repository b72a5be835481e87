#include "traced_calls.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <vector>

#include "message/address_attributes.h"
#include "message/recorder_message.h"

namespace talvex {

namespace {

// The bytes of one call that a message carries at most: a read or write of more is recorded to
// this length, as a large write is by the agent's bound on a message.
const uint64_t kLongestCopy = 64u << 20;
const uint64_t kMostVectors = 1024;  // IOV_MAX

int64_t nowNs() {
  timespec t;
  clock_gettime(CLOCK_REALTIME, &t);
  return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

// `length` bytes of the traced process's memory at `address`; fewer where it has fewer.
std::string readMemory(pid_t pid, uint64_t address, uint64_t length) {
  std::string bytes(static_cast<size_t>(std::min(length, kLongestCopy)), '\0');
  if (bytes.empty()) return bytes;
  iovec local{&bytes[0], bytes.size()};
  iovec remote{reinterpret_cast<void*>(address), bytes.size()};
  const ssize_t got = process_vm_readv(pid, &local, 1, &remote, 1, 0);
  bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
  return bytes;
}

// The first `length` bytes that a list of `count` vectors at `address` points to; a 32-bit
// process's vectors are two 32-bit words.
std::string readVectors(pid_t pid, uint64_t address, uint64_t count, uint64_t length, bool abi32) {
  const size_t size = abi32 ? 8 : sizeof(iovec);
  const std::string list = readMemory(pid, address, std::min(count, kMostVectors) * size);
  std::string bytes;
  for (size_t at = 0; at + size <= list.size() && bytes.size() < length; at += size) {
    uint64_t base = 0, len = 0;
    if (abi32) {
      uint32_t words[2];
      memcpy(words, list.data() + at, sizeof words);
      base = words[0];
      len = words[1];
    } else {
      iovec v;
      memcpy(&v, list.data() + at, sizeof v);
      base = reinterpret_cast<uint64_t>(v.iov_base);
      len = v.iov_len;
    }
    bytes += readMemory(pid, base, std::min<uint64_t>(len, length - bytes.size()));
  }
  return bytes;
}

// i386's numbers for the calls traced (<asm/unistd_32.h>), and socketcall's operations
// (<linux/net.h>), as x86-64's numbers.
uint64_t x86_64NumberOf(uint64_t i386) {
  switch (i386) {
    case 3: return SYS_read;
    case 4: return SYS_write;
    case 6: return SYS_close;
    case 41: return SYS_dup;
    case 55: case 221: return SYS_fcntl;  // fcntl, fcntl64
    case 63: return SYS_dup2;
    case 145: return SYS_readv;
    case 146: return SYS_writev;
    case 187: case 239: return SYS_sendfile;  // sendfile, sendfile64
    case 330: return SYS_dup3;
    case 359: return SYS_socket;
    case 362: return SYS_connect;
    case 364: return SYS_accept4;
    case 369: return SYS_sendto;
    case 370: return SYS_sendmsg;
    case 371: return SYS_recvfrom;
    case 372: return SYS_recvmsg;
    default: return ~0ull;
  }
}

uint64_t socketcallNumberOf(uint64_t operation) {
  switch (operation) {
    case 1: return SYS_socket;
    case 3: return SYS_connect;
    case 5: return SYS_accept;
    case 9: return SYS_sendto;     // send: sendto without an address
    case 10: return SYS_recvfrom;  // recv: recvfrom without one
    case 11: return SYS_sendto;
    case 12: return SYS_recvfrom;
    case 16: return SYS_sendmsg;
    case 17: return SYS_recvmsg;
    case 18: return SYS_accept4;
    default: return ~0ull;
  }
}

// A 32-bit call in x86-64's terms: its number, and for socketcall the arguments it points to.
bool translate(pid_t pid, TracedCall* call) {
  if (!call->abi32) return true;
  if (call->number == 102) {  // socketcall(operation, arguments)
    const std::string words = readMemory(pid, call->args[1], 6 * sizeof(uint32_t));
    if (words.size() < 3 * sizeof(uint32_t)) return false;
    call->number = socketcallNumberOf(call->args[0]);
    for (size_t i = 0; i < 6; ++i) {
      uint32_t word = 0;
      if ((i + 1) * sizeof word <= words.size()) memcpy(&word, words.data() + i * sizeof word, sizeof word);
      call->args[i] = word;
    }
  } else {
    call->number = x86_64NumberOf(call->number);
  }
  return call->number != ~0ull;
}

std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string readLink(const std::string& path) {
  char target[4096];
  const ssize_t n = readlink(path.c_str(), target, sizeof target);
  return n > 0 ? std::string(target, static_cast<size_t>(n)) : "";
}

// One end of a TCP socket as /proc/net/tcp writes it: "0100007F:1F90", or 32 hex digits and a
// port for IPv6, each 32-bit word in the host's order.
bool parseProcAddress(const std::string& text, int family, sockaddr_storage* out) {
  const size_t colon = text.find(':');
  if (colon == std::string::npos) return false;
  const std::string hex = text.substr(0, colon);
  const unsigned port = static_cast<unsigned>(strtoul(text.c_str() + colon + 1, nullptr, 16));
  memset(out, 0, sizeof *out);
  if (family == AF_INET && hex.size() == 8) {
    sockaddr_in* a = reinterpret_cast<sockaddr_in*>(out);
    a->sin_family = AF_INET;
    a->sin_port = htons(static_cast<uint16_t>(port));
    a->sin_addr.s_addr = static_cast<uint32_t>(strtoul(hex.c_str(), nullptr, 16));
    return true;
  }
  if (family == AF_INET6 && hex.size() == 32) {
    sockaddr_in6* a = reinterpret_cast<sockaddr_in6*>(out);
    a->sin6_family = AF_INET6;
    a->sin6_port = htons(static_cast<uint16_t>(port));
    for (int word = 0; word < 4; ++word) {
      const uint32_t value = static_cast<uint32_t>(strtoul(hex.substr(word * 8, 8).c_str(), nullptr, 16));
      memcpy(a->sin6_addr.s6_addr + word * 4, &value, 4);
    }
    return true;
  }
  return false;
}

struct TcpEnds {
  int family = 0;
  sockaddr_storage local{}, remote{};
};

// The TCP socket behind a descriptor of a traced process, found by its inode in the process's own
// view of /proc/net/tcp and tcp6 (its network namespace's); family 0 when it is no TCP socket.
TcpEnds tcpEndsOf(pid_t pid, int fd) {
  TcpEnds ends;
  const std::string link = readLink("/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd));
  if (link.compare(0, 8, "socket:[") != 0) return ends;
  const std::string inode = link.substr(8, link.size() - 9);
  for (const int family : {AF_INET, AF_INET6}) {
    std::istringstream table(readText("/proc/" + std::to_string(pid) + (family == AF_INET ? "/net/tcp" : "/net/tcp6")));
    std::string line;
    std::getline(table, line);  // the heading
    while (std::getline(table, line)) {
      std::istringstream fields(line);
      std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout, node;
      fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >> timeout >> node;
      if (node != inode) continue;
      ends.family = family;
      parseProcAddress(local, family, &ends.local);
      parseProcAddress(remote, family, &ends.remote);
      return ends;
    }
  }
  return ends;
}

bool isData(uint64_t number) {
  switch (number) {
    case SYS_read: case SYS_write: case SYS_readv: case SYS_writev: case SYS_sendto: case SYS_recvfrom:
    case SYS_sendmsg: case SYS_recvmsg:
      return true;
    default:
      return false;
  }
}

bool isSend(uint64_t number) {
  return number == SYS_write || number == SYS_writev || number == SYS_sendto || number == SYS_sendmsg;
}

std::string_view finished(RecorderMessage& m) {
  m.finish();
  return std::string_view(m.toString(), m.length());
}

// The head every message of a call carries: when, which, whose.
void setHead(RecorderMessage& m, int64_t ns, int32_t ticket, pid_t pid) {
  m.set(RMA_TIMESTAMP_NS, ns);
  m.set(RMA_TIMESTAMP, ns / 1000000);
  m.set(RMA_TICKET, static_cast<int>(ticket));
  m.set(RMA_PID, static_cast<int>(pid));
}

void setLocalEnd(RecorderMessage& m, const sockaddr_storage& local) {
  char text[64];
  if (!formatAddressText(reinterpret_cast<const sockaddr*>(&local), text, sizeof text)) return;
  const uint16_t port = local.ss_family == AF_INET ? ntohs(reinterpret_cast<const sockaddr_in*>(&local)->sin_port)
                                                    : ntohs(reinterpret_cast<const sockaddr_in6*>(&local)->sin6_port);
  m.set(RMA_LOCALPORT, static_cast<int>(port));
  m.set(RMA_LOCALIP, text, 0);
}

}  // namespace

pid_t TracedCalls::processOf(pid_t thread) {
  auto found = groupOf_.find(thread);
  if (found != groupOf_.end()) return found->second;
  pid_t group = thread;
  std::istringstream status(readText("/proc/" + std::to_string(thread) + "/status"));
  std::string line;
  while (std::getline(status, line)) {
    if (line.compare(0, 5, "Tgid:") == 0) group = static_cast<pid_t>(atoi(line.c_str() + 5));
  }
  groupOf_[thread] = group;
  return group;
}

void TracedCalls::announce(pid_t tgid, Process& p) {
  if (p.announced) return;
  p.announced = true;
  const std::string base = "/proc/" + std::to_string(tgid);
  const std::string directory = readLink(base + "/cwd");
  const std::string commandLine = readText(base + "/cmdline");
  RecorderMessage m(RMT_PROCESS, ++sequence_);
  m.set(RMA_TIMESTAMP_NS, nowNs());
  m.set(RMA_TIMESTAMP, 0);
  m.set(RMA_TICKET, static_cast<int>(++p.ticket));
  m.set(RMA_WORKINGDIR, directory.c_str(), static_cast<int>(directory.size()));
  m.set(RMA_PID, static_cast<int>(tgid));
  m.set(RMA_ARCHI, "LINUX", 0);
  m.set(RMA_COMMANDLINE, commandLine.data(), static_cast<int>(commandLine.size()));
  deliver(finished(m));
}

bool TracedCalls::enter(pid_t thread, const TracedCall& asked) {
  const pid_t tgid = processOf(thread);
  TracedCall call = asked;
  if (!translate(tgid, &call)) return false;
  Process& p = process(tgid);
  const int fd = static_cast<int>(call.args[0]);
  if (isData(call.number)) {
    auto known = p.sockets.find(fd);
    if (known == p.sockets.end()) {
      // A descriptor the process had before it was traced, or one made by a call not traced
      // (open, pipe): asked once, until it is closed or replaced.
      known = p.sockets.emplace(fd, Socket{tcpEndsOf(tgid, fd).family}).first;
    }
    if (known->second.family == 0) return false;
  }
  TracedCall& under = calls_[thread] = call;
  under.startNs = nowNs();
  if (call.number == SYS_connect) under.address = readMemory(tgid, call.args[1], std::min<uint64_t>(call.args[2], sizeof(sockaddr_storage)));
  return true;
}

void TracedCalls::sendData(pid_t tgid, Process& p, const TracedCall& call, int fd, bool sent, int64_t result) {
  // A non-blocking socket with nothing to give or take: not a call that moved anything.
  if (result == -EAGAIN) return;
  std::string bytes;
  if (result > 0) {
    const uint64_t n = static_cast<uint64_t>(result);
    switch (call.number) {
      case SYS_read: case SYS_write: case SYS_sendto: case SYS_recvfrom:
        bytes = readMemory(tgid, call.args[1], n);
        break;
      case SYS_readv: case SYS_writev:
        bytes = readVectors(tgid, call.args[1], call.args[2], n, call.abi32);
        break;
      default: {  // sendmsg, recvmsg: the vectors of the message header
        if (call.abi32) {
          // i386's msghdr: name, namelen, iov, iovlen, control, controllen, flags; 32 bits each.
          const std::string header = readMemory(tgid, call.args[1], 7 * sizeof(uint32_t));
          if (header.size() == 7 * sizeof(uint32_t)) {
            uint32_t words[7];
            memcpy(words, header.data(), sizeof words);
            bytes = readVectors(tgid, words[2], words[3], n, true);
          }
        } else {
          const std::string header = readMemory(tgid, call.args[1], sizeof(msghdr));
          if (header.size() == sizeof(msghdr)) {
            msghdr h;
            memcpy(&h, header.data(), sizeof h);
            bytes = readVectors(tgid, reinterpret_cast<uint64_t>(h.msg_iov), h.msg_iovlen, n, false);
          }
        }
      }
    }
  }
  announce(tgid, p);
  moved_.push_back(Moved{tgid, fd, sent, result, nowNs(), ++p.ticket, std::move(bytes)});
}

void TracedCalls::flush() {
  std::vector<Moved> moved;
  moved.swap(moved_);
  for (const Moved& call : moved) {
    RecorderMessage m(call.sent ? RMT_SEND : RMT_RECEIVE, ++sequence_);
    setHead(m, call.timeNs, call.ticket, call.tgid);
    m.set(RMA_SOCKET, static_cast<int64_t>(call.fd));
    m.set(RMA_DATA, call.bytes.data(), static_cast<int>(call.bytes.size()));
    if (call.sent) {
      m.set(RMA_LENGTH, static_cast<unsigned>(call.result > 0 ? call.result : 0));
    } else {
      m.set(RMA_LENGTH, static_cast<int>(call.result));
    }
    m.set(RMA_RETURN, call.result < 0 ? -1 : static_cast<int>(call.result));
    if (call.result < 0) m.set(RMA_ERROR, static_cast<int>(-call.result));
    deliver_(finished(m));
  }
}

void TracedCalls::leave(pid_t thread, int64_t result) {
  auto found = calls_.find(thread);
  if (found == calls_.end()) return;
  const TracedCall call = found->second;
  calls_.erase(found);
  const pid_t tgid = processOf(thread);
  Process& p = process(tgid);
  const int fd = static_cast<int>(call.args[0]);
  switch (call.number) {
    case SYS_socket: {
      const int domain = static_cast<int>(call.args[0]), type = static_cast<int>(call.args[1]) & 0xf;
      if (result >= 0) p.sockets[static_cast<int>(result)] = Socket{(domain == AF_INET || domain == AF_INET6) && type == SOCK_STREAM ? domain : 0};
      return;
    }
    case SYS_close:
      if (result == 0) {
        auto known = p.sockets.find(fd);
        const bool tcp = known != p.sockets.end() && known->second.family != 0;
        if (known != p.sockets.end()) p.sockets.erase(known);
        if (!tcp) return;
        announce(tgid, p);
        RecorderMessage m(RMT_CLOSE, ++sequence_);
        setHead(m, nowNs(), ++p.ticket, tgid);
        m.set(RMA_SOCKET, static_cast<int64_t>(fd));
        deliver(finished(m));
      }
      return;
    case SYS_dup: case SYS_dup2: case SYS_dup3: case SYS_fcntl:
      // The descriptor it made or replaced is asked again when it is used. Of fcntl's commands only
      // F_DUPFD's make one: the others' results are flags or zero, not descriptors.
      if (result >= 0 && (call.number != SYS_fcntl || call.args[1] == F_DUPFD || call.args[1] == F_DUPFD_CLOEXEC)) {
        p.sockets.erase(static_cast<int>(result));
      }
      return;
    case SYS_connect: {
      // Its ends once: they say whether a socket made before the tracing is TCP, and give the
      // local end the connect chose.
      const TcpEnds ends = tcpEndsOf(tgid, fd);
      auto known = p.sockets.find(fd);
      if (known == p.sockets.end()) known = p.sockets.emplace(fd, Socket{ends.family}).first;
      if (known->second.family == 0 || call.address.size() < sizeof(sa_family_t)) return;
      sockaddr_storage destination{};
      memcpy(&destination, call.address.data(), std::min(call.address.size(), sizeof destination));
      announce(tgid, p);
      const int64_t end = nowNs();
      RecorderMessage m(RMT_CONNECT, ++sequence_);
      setHead(m, call.startNs, ++p.ticket, tgid);
      m.set(RMA_SOCKET, static_cast<int64_t>(fd));
      if (ends.family != 0) setLocalEnd(m, ends.local);
      m.set(RMA_DURATION, static_cast<int>((end - call.startNs) / 1000000));
      m.set(RMA_DURATION_NS, end - call.startNs);
      fillMsgWithName(&m, reinterpret_cast<const sockaddr*>(&destination));
      m.set(RMA_RETURN, result < 0 ? -1 : 0);
      if (result < 0) m.set(RMA_ERROR, static_cast<int>(-result));
      deliver(finished(m));
      return;
    }
    case SYS_accept: case SYS_accept4: {
      if (result < 0) return;
      const int accepted = static_cast<int>(result);
      const TcpEnds ends = tcpEndsOf(tgid, accepted);
      p.sockets[accepted] = Socket{ends.family};
      if (ends.family == 0) return;
      announce(tgid, p);
      RecorderMessage m(RMT_ACCEPT, ++sequence_);
      setHead(m, nowNs(), ++p.ticket, tgid);
      m.set(RMA_SOCKET, static_cast<int64_t>(accepted));
      setLocalEnd(m, ends.local);
      fillMsgWithName(&m, reinterpret_cast<const sockaddr*>(&ends.remote));
      deliver(finished(m));
      return;
    }
    default:
      if (isData(call.number)) sendData(tgid, p, call, fd, isSend(call.number), result);
  }
}

void TracedCalls::started(pid_t parent, pid_t child) {
  const pid_t parentGroup = processOf(parent);
  const pid_t childGroup = processOf(child);
  if (childGroup == parentGroup) return;  // a thread: it shares its process's descriptors
  Process& copy = processes_[childGroup];
  copy.sockets = processes_[parentGroup].sockets;
}

void TracedCalls::executed(pid_t thread) {
  // After an exec the thread that ran it is the process's leader: its id is the process's.
  const pid_t tgid = processOf(thread);
  Process& p = process(tgid);
  p.announced = false;
  // Descriptors closed on exec are not seen closed: each is asked again when it is used.
  p.sockets.clear();
}

void TracedCalls::ended(pid_t thread) {
  calls_.erase(thread);
  const auto group = groupOf_.find(thread);
  if (group != groupOf_.end() && group->second == thread) processes_.erase(thread);
  if (group != groupOf_.end()) groupOf_.erase(group);
}

}  // namespace talvex
