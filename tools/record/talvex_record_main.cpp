// talvex-record: runs a command with the agent preloaded and a recorder endpoint of its own, and
// writes what the command said on the network as it says it.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "agent_environment.h"
#include "crash_watch.h"
#include "kernel_tracer.h"
#include "key_log.h"
#include "listen_address.h"
#include "record_options.h"
#include "record_outputs.h"
#include "recorder_endpoint.h"
#include "signal_forwarding.h"
#include "socket_directory.h"
#include "target_check.h"

extern char** environ;

namespace {

const char* const kUsage =
    "usage: talvex-record [options] [--] COMMAND [ARGS...]\n"
    "\n"
    "Runs COMMAND with the Talvex socket agent preloaded into every process of it (32- or\n"
    "64-bit), records every byte they move on their TCP connections, and shows what they said.\n"
    "Exits with COMMAND's exit status (128+N when signal N ended it).\n"
    "\n"
    "Outputs, each written as the messages arrive (the transcript, --har and --html when the run\n"
    "ends):\n"
    "  --transcript FILE    readable transcript, one block per process and per socket\n"
    "                       ('-': standard output; default: on standard error, unless\n"
    "                       --live or --quiet)\n"
    "  --full               show every byte of long payloads in the transcript\n"
    "  --raw FILE           the recorder messages exactly as received, one per line\n"
    "  --jsonl FILE         one flat JSON object per message (jq examples: talvex-record(1))\n"
    "  --pcap FILE          the TCP connections COMMAND made, as a capture file for Wireshark\n"
    "  --har FILE           every HTTP exchange (HTTP/1.x, HTTP/2, HTTPS from the TLS plaintext)\n"
    "                       as a HAR 1.2 document, for tools that import HAR\n"
    "  --html FILE          a self-contained HTML report: processes, connections on a timeline,\n"
    "                       conversations with HTTP exchanges folded, filters\n"
    "  --keylog FILE        append the TLS session secrets of OpenSSL and GnuTLS connections to\n"
    "                       FILE, in the key log format Wireshark reads (SSLKEYLOGFILE)\n"
    "  --live               print each event on standard error as it happens (the default\n"
    "                       when standard error is a terminal); --no-live to turn it off\n"
    "  -q, --quiet          no transcript on standard error\n"
    "\n"
    "Filters (repeatable; the program itself is not affected):\n"
    "  --only HOST[:PORT]   show only connections with this far end (or this port at either end)\n"
    "  --exclude HOST[:PORT]  leave these out; HOST is a name or an address, [IPV6]:PORT or :PORT\n"
    "\n"
    "Recording:\n"
    "  --listen ADDR:PORT   where the recorder endpoint listens (default: a free loopback port)\n"
    "  --socks ADDR:PORT    reroute connects through this SOCKS5 server ([IPV6]:PORT for IPv6)\n"
    "  --double-log-socks   record traffic on rerouted sockets as well\n"
    "  --log-dir DIR        write the agent's diagnostic log in DIR\n"
    "  --log-level LEVEL    its kinds of line (with --log-dir): a number (bit mask) or names\n"
    "                       among error,info,call,ret,warning,data,all (default error,info)\n"
    "  --traceback          print a backtrace if COMMAND crashes. The agent's crash handler then\n"
    "                       ends it with status 0; talvex-record reports the crash and exits\n"
    "                       139, as for any crash (COMMAND's standard output passes through\n"
    "                       talvex-record to be watched)\n"
    "  --unplug             run with the agent but send nothing\n"
    "  --grace SECONDS      after SIGINT, SIGTERM or SIGHUP, passed on to every process of\n"
    "                       COMMAND, kill what is left of it this much later (default 5)\n"
    "  -h, --help           this text\n"
    "  -V, --version        the version\n"
    "\n"
    "Examples:\n"
    "  talvex-record curl -s http://127.0.0.1:8080/\n"
    "  talvex-record --pcap out.pcap --jsonl out.jsonl -- ./client --port 8080\n"
    "  talvex-record --only api.internal:443 --exclude :5432 -- ./service-tests\n"
    "  jq -r 'select(.kind==\"send\") | .data' out.jsonl\n";

int usageError(const std::string& message) {
  fprintf(stderr, "talvex-record: %s\nTry 'talvex-record --help' for more information.\n", message.c_str());
  return 2;
}

// The log directory is made if missing, as the agent would; one that cannot be written stops the
// run before it begins.
bool logDirectoryUsable(const std::string& dir) {
  mkdir(dir.c_str(), 0777);
  struct stat status;
  return stat(dir.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && access(dir.c_str(), W_OK) == 0;
}

bool liveViewWanted(const talvex::RecordOptions& o) {
  return o.live == talvex::RecordOptions::Live::On ||
         (o.live == talvex::RecordOptions::Live::Auto && isatty(STDERR_FILENO) && o.transcript.empty() && !o.quiet);
}

// Runs the command with `environment` and waits for it; its wait status. With --traceback its
// standard output goes through `crashWatch`.
int runCommand(const std::string& program, std::vector<std::string> command, std::vector<std::string> environment,
               talvex::CrashWatch* crashWatch, int graceSeconds) {
  std::vector<char*> envp, args;
  for (auto& p : environment) envp.push_back(&p[0]);
  envp.push_back(nullptr);
  for (auto& a : command) args.push_back(&a[0]);
  args.push_back(nullptr);
  const int watchedOutput = crashWatch != nullptr ? crashWatch->start() : -1;
  talvex::installSignalForwarding(graceSeconds);
  const pid_t child = fork();
  if (child == 0) {
    talvex::prepareCommandProcess();
    if (watchedOutput >= 0) dup2(watchedOutput, STDOUT_FILENO);
    execve(program.c_str(), args.data(), envp.data());
    fprintf(stderr, "talvex-record: cannot run %s: %s\n", program.c_str(), strerror(errno));
    _exit(126);
  }
  if (watchedOutput >= 0) close(watchedOutput);
  talvex::forwardSignalsTo(child);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  talvex::endWhatIsLeft(child);
  return status;
}

// What became of the command, for the transcript's last lines: empty when it ended by itself.
std::string endNote(const talvex::RecordOptions& o, int status, bool crashed) {
  if (crashed) {
    return "crash: " + o.command[0] +
           " crashed (SIGSEGV); the agent's crash handler printed a backtrace and ended it with status 0";
  }
  if (WIFSIGNALED(status)) {
    return "signal: " + o.command[0] + " was killed by signal " + std::to_string(WTERMSIG(status)) + " (" +
           strsignal(WTERMSIG(status)) + ")";
  }
  return "";
}

// The command's own status (128 + N for signal N); outputs that could not be written fail a run
// that would otherwise have succeeded. A crash the agent's handler turned into status 0 is the
// crash it was: a CI job that records its tests must still fail when one crashes.
int exitStatusOf(int status, bool crashed, bool written) {
  int exitStatus = 1;
  if (crashed) {
    exitStatus = 128 + SIGSEGV;
  } else if (WIFSIGNALED(status)) {
    exitStatus = 128 + WTERMSIG(status);
  } else if (WIFEXITED(status)) {
    exitStatus = WEXITSTATUS(status);
  }
  return exitStatus == 0 && !written ? 1 : exitStatus;
}

}  // namespace

int main(int argc, char** argv) {
  talvex::RecordOptions o;
  std::string error;
  switch (talvex::parseRecordOptions(argc, argv, &o, &error)) {
    case talvex::ParseOutcome::Help:
      fputs(kUsage, stdout);
      return 0;
    case talvex::ParseOutcome::Version:
      printf("talvex-record %s\n", TALVEX_VERSION);
      return 0;
    case talvex::ParseOutcome::Error:
      return usageError(error);
    case talvex::ParseOutcome::Run:
      break;
  }

  talvex::AgentSetting setting;
  if (!talvex::parseListenAddress(o.listen, &setting.endpoint, &error, AF_INET)) {
    return usageError("--listen: " + error);
  }
  if (!o.socks.empty() && !talvex::parseListenAddress(o.socks, &setting.socks, &error)) {
    return usageError("--socks: " + error);
  }
  if (!o.logDir.empty() && !logDirectoryUsable(o.logDir)) {
    fprintf(stderr, "talvex-record: --log-dir %s: not a directory this user can write\n", o.logDir.c_str());
    return 2;
  }
  std::string program;
  const talvex::TargetKind kind = talvex::checkTarget(o.command[0], &program, &error);
  if (kind == talvex::TargetKind::Wrong || kind == talvex::TargetKind::NotFound) {
    fprintf(stderr, "talvex-record: %s\n", error.c_str());
    return kind == talvex::TargetKind::NotFound ? 127 : 126;
  }
  const bool traced = kind == talvex::TargetKind::Traced;
  setting.top = talvex::findAgentDirectory();
  if (setting.top.empty()) {
    fprintf(stderr, "talvex-record: the agent is missing: no lib/<arch>/libtalvex_socket_agent.so beside %s\n",
            talvex::directoryOfSelf().c_str());
    return 1;
  }
  setting.agent = setting.top + "/$LIB/libtalvex_socket_agent.so";
  if (!o.quiet && talvex::linksAddressSanitizerRuntime(program)) {
    fprintf(stderr,
            "talvex-record: %s uses AddressSanitizer, whose runtime insists on coming first in LD_PRELOAD: it was "
            "told not to (ASAN_OPTIONS=verify_asan_link_order=0), and the agent runs in front of it\n",
            o.command[0].c_str());
  }

  if (!o.keylog.empty() && !talvex::prepareKeylog(&o.keylog, &error)) {
    fprintf(stderr, "talvex-record: %s\n", error.c_str());
    return 1;
  }
  talvex::RecordOutputs outputs(o, liveViewWanted(o));
  if (!outputs.open(&error)) {
    fprintf(stderr, "talvex-record: %s\n", error.c_str());
    return 1;
  }
  talvex::RecorderEndpoint endpoint;
  endpoint.keepMessages(false);
  // A payload of a quarter of a gigabyte is a message of up to a gigabyte once escaped.
  endpoint.setLongestMessage(size_t(1) << 30);
  endpoint.setHandler([&outputs](std::string_view message) { outputs.onMessage(message); });
  endpoint.setLastingHandler([&outputs](std::string_view message) { outputs.onLastingMessage(message); },
                             [&outputs] { outputs.onSettle(); });
  endpoint.setIdleHandler([&outputs] { return outputs.onIdle(); });
  // The command's processes write to a local socket, which costs the kernel half what TCP over
  // loopback does; the TCP port stays for any process that cannot reach the socket. A socket file,
  // not an abstract name: abstract names, like the loopback port, belong to one network
  // namespace, and a process the command puts in a namespace of its own (unshare -n, ip netns
  // exec, a test harness that isolates a service) still sees the file.
  talvex::SocketDirectory socketDirectory;
  if (socketDirectory.create() && endpoint.listenLocally(socketDirectory.socketPath(), nullptr)) {
    socketDirectory.openToEveryUser();
    setting.localSocket = socketDirectory.socketPath();
  }
  if (!endpoint.start(setting.endpoint.host, setting.endpoint.port, &error)) {
    fprintf(stderr, "talvex-record: cannot listen on %s: %s\n", o.listen.c_str(), error.c_str());
    return 1;
  }
  setting.endpoint.port = endpoint.port();

  talvex::CrashWatch crashWatch;
  int status = 0;
  std::string refused;
  if (traced) {
    // The tracer records every process of the command, so none of them is given the agent as
    // well: each call would be recorded twice.
    std::vector<std::string> environment;
    for (char** e = environ; *e != nullptr; ++e) environment.push_back(*e);
    talvex::TracedCalls calls([&outputs, &o](std::string_view message) {
      if (!o.unplug) outputs.onMessage(message);
    });
    status = talvex::runTraced(program, o.command, environment, calls, o.graceSeconds, &refused);
    if (!refused.empty()) fprintf(stderr, "talvex-record: cannot trace %s: %s; it runs unrecorded\n", program.c_str(), refused.c_str());
  } else {
    status = runCommand(program, o.command, talvex::agentEnvironment(environ, o, setting),
                        o.traceback ? &crashWatch : nullptr, o.graceSeconds);
  }
  // Anything the command's processes still had on the way arrives within a moment.
  // Each process's connection closes when it ends: once none is open, everything has arrived.
  // Processes of the command that outlive it (daemons) are given a moment of quiet, no more.
  endpoint.waitForClosedOrQuiet(std::chrono::milliseconds(200), std::chrono::seconds(5));
  endpoint.stop(std::chrono::milliseconds(1000));

  const bool crashed = o.traceback && crashWatch.crashed();
  const std::string note = endNote(o, status, crashed);
  const bool written = outputs.finish(note);
  if (!note.empty() && (!o.transcript.empty() || o.quiet)) fprintf(stderr, "talvex-record: %s\n", note.c_str());
  if (!o.quiet) {
    for (const std::string& line : outputs.documentLines()) fprintf(stderr, "talvex-record: %s\n", line.c_str());
  }
  const std::string encrypted = outputs.encryptedSummary();
  if (!encrypted.empty() && !o.quiet) fprintf(stderr, "talvex-record: %s\n", encrypted.c_str());
  if (outputs.received() == 0 && traced && refused.empty() && !o.unplug && !o.quiet) {
    fprintf(stderr, "talvex-record: nothing was recorded: the tracer saw no process of %s use a TCP socket\n",
            o.command[0].c_str());
  } else if (outputs.received() == 0 && !traced && !o.unplug && !o.quiet) {
    // What was seen, not a guess: an agent reports on a process's first socket call through the C
    // library, and no agent reporting means no such call.
    if (endpoint.connectionCount() == 0) {
      fprintf(stderr,
              "talvex-record: nothing was recorded: no process of %s made a socket call through the C library, so "
              "no agent reported (programs that make their own system calls, as Go programs do, make none)\n",
              o.command[0].c_str());
    } else {
      fprintf(stderr, "talvex-record: nothing was recorded: %zu agent connections of %s sent no message\n",
              endpoint.connectionCount(), o.command[0].c_str());
    }
  }
  return exitStatusOf(status, crashed, written);
}
