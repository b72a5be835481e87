// What the tracer saw a traced process do, as the agent's messages: the same kinds and attributes
// ("process", "connect", "accept", "send", "receive", "close"), encoded by the agent's own
// message code, so that every output reads a traced program as it reads a preloaded one. The
// tracer calls it at each traced call's entry and exit; it keeps each process's sockets (shared
// by its threads, copied to a forked child, kept across an exec) and each thread's call under way.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace talvex {

struct TracedCall {
  bool abi32 = false;    // a 32-bit process's call, whose number and structures are i386's
  uint64_t number = 0;   // x86-64's number for it (enter() translates i386's and socketcall's)
  uint64_t args[6] = {0, 0, 0, 0, 0, 0};
  int64_t startNs = 0;
  std::string address;  // connect's destination, read at the entry
};

class TracedCalls {
 public:
  // `deliver` gets each message, as the endpoint would have received it from an agent.
  explicit TracedCalls(std::function<void(std::string_view)> deliver) : deliver_(std::move(deliver)) {}

  // A thread stopped at a traced call's entry: whether its exit is worth a stop (a read or write
  // on a descriptor that is not a TCP socket is not).
  bool enter(pid_t thread, const TracedCall& call);
  // The same thread at the call's exit, with the kernel's result.
  void leave(pid_t thread, int64_t result);
  // Encodes and delivers what the calls left since the last time: called once the stopped
  // thread runs again, so that the program does not wait while its bytes are escaped.
  void flush();
  // A new process (fork, vfork) or thread (clone with CLONE_THREAD) of a traced one.
  void started(pid_t parent, pid_t child);
  // A process ran a new program: its "process" message is sent again, with the new command line.
  void executed(pid_t thread);
  void ended(pid_t thread);

 private:
  struct Socket {
    int family = 0;
  };
  // A send or receive whose bytes were copied out of the process, to be encoded by flush().
  struct Moved {
    pid_t tgid = 0;
    int fd = 0;
    bool sent = false;
    int64_t result = 0;
    int64_t timeNs = 0;
    int32_t ticket = 0;
    std::string bytes;
  };
  struct Process {
    std::map<int, Socket> sockets;
    int32_t ticket = 0;
    bool announced = false;
  };

  pid_t processOf(pid_t thread);
  Process& process(pid_t tgid) { return processes_[tgid]; }
  void announce(pid_t tgid, Process& p);
  void sendData(pid_t tgid, Process& p, const TracedCall& call, int fd, bool sent, int64_t result);
  // What flush() has not encoded goes first: messages stay in the order of the calls.
  void deliver(std::string_view text) {
    flush();
    deliver_(text);
  }

  std::function<void(std::string_view)> deliver_;
  std::map<pid_t, Process> processes_;  // by process (thread group) id
  std::map<pid_t, pid_t> groupOf_;       // thread id to process id
  std::map<pid_t, TracedCall> calls_;    // the call under way, by thread
  std::vector<Moved> moved_;
  int32_t sequence_ = 0;
};

}  // namespace talvex
