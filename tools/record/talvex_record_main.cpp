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

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "listen_address.h"
#include "record_options.h"
#include "record_outputs.h"
#include "recorder_endpoint.h"
#include "signal_forwarding.h"
#include "target_check.h"
#include "base/variable_names.h"

extern char** environ;

namespace {

const char* const kUsage =
    "usage: talvex-record [options] [--] COMMAND [ARGS...]\n"
    "\n"
    "Runs COMMAND with the Talvex socket agent preloaded into every process of it (32- or\n"
    "64-bit), records every byte they move on their TCP connections, and shows what they said.\n"
    "Exits with COMMAND's exit status (128+N when signal N ended it).\n"
    "\n"
    "Outputs, each written as the messages arrive (the transcript when the run ends):\n"
    "  --transcript FILE    readable transcript, one block per process and per socket\n"
    "                       (default: on standard error, unless --live or --quiet)\n"
    "  --full               show every byte of long payloads in the transcript\n"
    "  --raw FILE           the recorder messages exactly as received, one per line\n"
    "  --jsonl FILE         one flat JSON object per message (jq examples: talvex-record(1))\n"
    "  --pcap FILE          the TCP connections COMMAND made, as a capture file for Wireshark\n"
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
    "                       ends it with status 0; talvex-record reports the crash (COMMAND's\n"
    "                       standard output passes through talvex-record to be watched)\n"
    "  --unplug             run with the agent but send nothing\n"
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

std::string directoryOfSelf() {
  char path[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return ".";
  path[n] = '\0';
  std::string self(path);
  return self.substr(0, self.rfind('/'));
}

// With --traceback, the command's standard output passes through here, so that the backtrace
// the agent's crash handler prints there tells that the command crashed even though it then
// exits with status 0.
class CrashWatch {
 public:
  int start() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return -1;
    read_ = ends[0];
    thread_ = std::thread([this] { relay(); });
    return ends[1];
  }
  // Waits a moment for the last of the output; a process of the command that keeps its standard
  // output open (a daemon) is not waited for.
  bool crashed() {
    if (thread_.joinable()) {
      for (int i = 0; i < 50 && !done_; ++i) usleep(20000);
      if (done_) thread_.join();
      else thread_.detach();
    }
    return crashed_;
  }

 private:
  void relay() {
    char chunk[65536];
    std::string line;
    for (;;) {
      const ssize_t n = read(read_, chunk, sizeof chunk);
      if (n <= 0) break;
      for (ssize_t done = 0; done < n;) {
        const ssize_t k = write(STDOUT_FILENO, chunk + done, static_cast<size_t>(n - done));
        if (k <= 0) break;
        done += k;
      }
      for (ssize_t i = 0; i < n; ++i) {
        if (chunk[i] == '\n') {
          if (line.rfind("SigSEV @", 0) == 0) crashed_ = true;
          line.clear();
        } else if (line.size() < 16) {
          line += chunk[i];
        }
      }
    }
    done_ = true;
  }

  int read_ = -1;
  std::thread thread_;
  std::atomic<bool> done_{false};
  std::atomic<bool> crashed_{false};
};

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

  talvex::ListenAddress where;
  if (!talvex::parseListenAddress(o.listen, &where, &error, AF_INET)) return usageError("--listen: " + error);
  talvex::ListenAddress socks;
  if (!o.socks.empty() && !talvex::parseListenAddress(o.socks, &socks, &error)) return usageError("--socks: " + error);
  if (!o.logDir.empty()) {
    // Made if missing, as the agent would; one that cannot be written stops the run now.
    mkdir(o.logDir.c_str(), 0777);
    struct stat status;
    if (stat(o.logDir.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || access(o.logDir.c_str(), W_OK) != 0) {
      fprintf(stderr, "talvex-record: --log-dir %s: not a directory this user can write\n", o.logDir.c_str());
      return 2;
    }
  }

  std::string program;
  const talvex::TargetKind kind = talvex::checkTarget(o.command[0], &program, &error);
  if (kind != talvex::TargetKind::Preloadable) {
    fprintf(stderr, "talvex-record: %s\n", error.c_str());
    return kind == talvex::TargetKind::NotFound ? 127 : 126;
  }
  // The agents live in lib/<multiarch>/ beside this program in the build tree, and one level up
  // (PREFIX/bin, PREFIX/lib) once installed; the loader picks each process's own through $LIB.
  std::string top;
  for (const std::string& candidate : {directoryOfSelf(), directoryOfSelf() + "/.."}) {
    if (access((candidate + "/lib/i386-linux-gnu/libtalvex_socket_agent.so").c_str(), R_OK) == 0 ||
        access((candidate + "/lib/x86_64-linux-gnu/libtalvex_socket_agent.so").c_str(), R_OK) == 0) {
      top = candidate;
      break;
    }
  }
  if (top.empty()) {
    fprintf(stderr, "talvex-record: the agent is missing: no lib/<arch>/libtalvex_socket_agent.so beside %s\n",
            directoryOfSelf().c_str());
    return 1;
  }
  const std::string agent = top + "/$LIB/libtalvex_socket_agent.so";

  const bool live = o.live == talvex::RecordOptions::Live::On ||
                    (o.live == talvex::RecordOptions::Live::Auto && isatty(STDERR_FILENO) && o.transcript.empty() &&
                     !o.quiet);
  talvex::RecordOutputs outputs(o, live);
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
  // loopback does; the TCP port stays for any process that cannot reach the socket. Abstract: it
  // leaves no file behind however this process ends.
  const std::string localSocket = "@talvex-record-" + std::to_string(getpid());
  const bool local = endpoint.listenLocally(localSocket, nullptr);
  if (!endpoint.start(where.host, where.port, &error)) {
    fprintf(stderr, "talvex-record: cannot listen on %s: %s\n", o.listen.c_str(), error.c_str());
    return 1;
  }

  std::map<std::string, std::string> environment;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string pair = *e;
    const size_t eq = pair.find('=');
    if (eq != std::string::npos) environment[pair.substr(0, eq)] = pair.substr(eq + 1);
  }
  // The agent goes after whatever the user preloads already: a library of theirs that wraps a
  // socket call and looks the next one up with dlsym(RTLD_NEXT) then reaches the agent, and the
  // agent the C library. In front of it, the agent's own lookup of the real function would find
  // that wrapper, whose lookup finds the agent again, for ever.
  const std::string preloaded = environment["LD_PRELOAD"];
  environment["LD_PRELOAD"] = (preloaded.empty() ? "" : preloaded + ":") + agent;
  // Every process of the command's tree records as itself: forked children too.
  environment[TALVEX_VAR_FOLLOW_FORKS] = "1";
  // Every byte on the wire, whichever call moved it, and accepted connections too.
  environment[TALVEX_VAR_COMPLETE_CAPTURE] = "1";
  // One connection per process rather than one per message.
  environment[TALVEX_VAR_PERSISTENT_CHANNEL] = "1";
  environment[TALVEX_VAR_IP_ADDRESS] = where.host;
  environment[TALVEX_VAR_PORT_NUMBER] = std::to_string(endpoint.port());
  if (local) {
    environment[TALVEX_VAR_RECORDER_SOCKET] = localSocket;
    // Messages through memory shared with this process, the local socket carrying only doorbells.
    environment[TALVEX_VAR_SHARED_RING] = "1";
  }
  const std::string clock32 = top + "/lib/i386-linux-gnu/libRecorderCore.so";
  const std::string clock64 = top + "/lib/x86_64-linux-gnu/libRecorderCore.so";
  if (access(clock32.c_str(), R_OK) == 0) environment[TALVEX_VAR_RECORDERCORE32_PATH] = clock32;
  if (access(clock64.c_str(), R_OK) == 0) environment[TALVEX_VAR_RECORDERCORE64_PATH] = clock64;
  if (!o.socks.empty()) {
    const bool v6 = socks.host.find(':') != std::string::npos;
    environment[v6 ? TALVEX_VAR_SOCKS_IPV6_ADDRESS : TALVEX_VAR_SOCKS_IPV4_ADDRESS] = socks.host;
    environment[v6 ? TALVEX_VAR_SOCKS_PORT_NUMBER_IPV6 : TALVEX_VAR_SOCKS_PORT_NUMBER_IPV4] =
        std::to_string(socks.port);
  }
  if (o.doubleLogSocks) environment[TALVEX_VAR_DOUBLE_LOG_SOCKS] = "";
  if (o.traceback) environment[TALVEX_VAR_DEBUG_TRACEBACK] = "";
  if (o.unplug) environment[TALVEX_VAR_UNPLUG_AGENT] = "";
  if (!o.logDir.empty()) {
    environment[TALVEX_VAR_DEBUG_DIR] = o.logDir;
    environment[TALVEX_VAR_DEBUG_LVL] = o.logLevel;
  }
  std::vector<std::string> pairs;
  for (const auto& e : environment) pairs.push_back(e.first + "=" + e.second);
  std::vector<char*> envp, args;
  for (auto& p : pairs) envp.push_back(&p[0]);
  envp.push_back(nullptr);
  for (auto& a : o.command) args.push_back(&a[0]);
  args.push_back(nullptr);

  CrashWatch crashWatch;
  const int watchedOutput = o.traceback ? crashWatch.start() : -1;
  talvex::installSignalForwarding();
  const pid_t child = fork();
  if (child == 0) {
    talvex::restoreDefaultSignals();
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
  // Anything the command's processes still had on the way arrives within a moment.
  // Each process's connection closes when it ends: once none is open, everything has arrived.
  // Processes of the command that outlive it (daemons) are given a moment of quiet, no more.
  endpoint.waitForClosedOrQuiet(std::chrono::milliseconds(200), std::chrono::seconds(5));
  endpoint.stop(std::chrono::milliseconds(1000));

  std::string note;
  const bool crashed = o.traceback && crashWatch.crashed();
  if (crashed) {
    note = "crash: " + o.command[0] +
           " crashed (SIGSEGV); the agent's crash handler printed a backtrace and ended it with status 0";
  } else if (WIFSIGNALED(status)) {
    note = "signal: " + o.command[0] + " was killed by signal " + std::to_string(WTERMSIG(status)) + " (" +
           strsignal(WTERMSIG(status)) + ")";
  }
  const bool written = outputs.finish(note);
  if (!note.empty() && (!o.transcript.empty() || o.quiet)) fprintf(stderr, "talvex-record: %s\n", note.c_str());
  if (outputs.received() == 0 && !o.unplug) {
    // The command ran, but no process of it made a socket call through the C library: a program
    // that makes its own system calls (Go programs do) cannot be seen by a preloaded agent.
    fprintf(stderr,
            "talvex-record: nothing was recorded: %s made no socket call through the C library (a program that "
            "makes its own system calls, as Go programs do, cannot be recorded)\n",
            o.command[0].c_str());
  }

  int exitStatus = 1;
  if (WIFSIGNALED(status)) {
    exitStatus = 128 + WTERMSIG(status);
  } else if (WIFEXITED(status)) {
    exitStatus = WEXITSTATUS(status);
  }
  // Outputs that could not be written fail a run that would otherwise have succeeded.
  return exitStatus == 0 && !written ? 1 : exitStatus;
}
