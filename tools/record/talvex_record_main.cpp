// talvex-record: runs a command with the agent preloaded and a recorder endpoint of its own, then
// writes what the command said on the network.
#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "capture_writer.h"
#include "conversations.h"
#include "listen_address.h"
#include "message_json.h"
#include "recorder_endpoint.h"
#include "recorder_message_parser.h"
#include "target_check.h"
#include "transcript.h"

extern char** environ;

namespace {

const char* const kUsage =
    "usage: talvex-record [options] -- COMMAND [ARGS...]\n"
    "\n"
    "Runs COMMAND with the Talvex socket agent preloaded, every process of it (32- or 64-bit),\n"
    "records every network call they make\n"
    "makes, and shows what it said. Exits with COMMAND's exit status.\n"
    "\n"
    "Outputs (a transcript on standard error unless --transcript names a file):\n"
    "  --transcript FILE    readable transcript: one block per socket, payloads as text or hex\n"
    "  --full               show every byte of long payloads in the transcript\n"
    "  --raw FILE           the recorder messages exactly as received, one per line\n"
    "  --jsonl FILE         the messages decoded, one JSON object per line\n"
    "  --pcap FILE          the TCP conversations as a capture file for Wireshark or tshark\n"
    "\n"
    "Recording:\n"
    "  --listen ADDR:PORT   where the recorder endpoint listens (default: a free loopback port)\n"
    "  --socks ADDR:PORT    reroute connects through this SOCKS5 server ([IPV6]:PORT for IPv6)\n"
    "  --double-log-socks   record traffic on rerouted sockets as well\n"
    "  --log-dir DIR        write the agent's diagnostic log in DIR\n"
    "  --log-level LEVEL    its kinds of line: a number (bit mask) or names separated by commas\n"
    "                       among error,info,call,ret,warning,data,all (default with --log-dir:\n"
    "                       error,info)\n"
    "  --traceback          print a backtrace if COMMAND crashes\n"
    "  --unplug             run with the agent but send nothing\n"
    "  --help               this text\n"
    "\n"
    "Examples:\n"
    "  talvex-record -- ./client 127.0.0.1 8080\n"
    "  talvex-record --pcap out.pcap --jsonl out.jsonl -- ./client\n"
    "  talvex-record --socks 127.0.0.1:1081 --log-dir /tmp/logs --log-level all -- ./client\n"
    "  tshark -r out.pcap -q -z follow,tcp,ascii,0\n";

struct Options {
  std::string transcript, raw, jsonl, pcap, listen = "127.0.0.1:0", socks, logDir, logLevel;
  bool full = false, doubleLogSocks = false, traceback = false, unplug = false;
  std::vector<std::string> command;
};

int usageError(const std::string& message) {
  fprintf(stderr, "talvex-record: %s\n\n%s", message.c_str(), kUsage);
  return 2;
}

// A level as the agent reads it: a number, or names of kinds.
bool parseLevel(const std::string& text, std::string* out) {
  if (!text.empty() && text.find_first_not_of("0123456789") == std::string::npos) {
    *out = text;
    return true;
  }
  static const std::map<std::string, int> bits = {{"error", 1},    {"info", 2},  {"call", 8},  {"ret", 16},
                                                  {"warning", 32}, {"data", 64}, {"all", 127}};
  int mask = 0;
  size_t start = 0;
  while (start <= text.size()) {
    const size_t comma = text.find(',', start);
    const std::string name = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    const auto found = bits.find(name);
    if (found == bits.end()) return false;
    mask |= found->second;
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  *out = std::to_string(mask);
  return true;
}

std::string directoryOfSelf() {
  char path[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return ".";
  path[n] = '\0';
  std::string self(path);
  return self.substr(0, self.rfind('/'));
}

bool writeFile(const std::string& path, const std::string& content) {
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  const bool ok = fwrite(content.data(), 1, content.size(), f) == content.size();
  return fclose(f) == 0 && ok;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  int i = 1;
  for (; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](std::string* into) {
      if (i + 1 >= argc) return false;
      *into = argv[++i];
      return true;
    };
    if (arg == "--") {
      ++i;
      break;
    } else if (arg == "--help" || arg == "-h") {
      fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--full") {
      o.full = true;
    } else if (arg == "--double-log-socks") {
      o.doubleLogSocks = true;
    } else if (arg == "--traceback") {
      o.traceback = true;
    } else if (arg == "--unplug") {
      o.unplug = true;
    } else if (arg == "--transcript" || arg == "--raw" || arg == "--jsonl" || arg == "--pcap" || arg == "--listen" ||
               arg == "--socks" || arg == "--log-dir" || arg == "--log-level") {
      std::string* into = arg == "--transcript" ? &o.transcript
                          : arg == "--raw"      ? &o.raw
                          : arg == "--jsonl"    ? &o.jsonl
                          : arg == "--pcap"     ? &o.pcap
                          : arg == "--listen"   ? &o.listen
                          : arg == "--socks"    ? &o.socks
                          : arg == "--log-dir"  ? &o.logDir
                                                : &o.logLevel;
      if (!value(into)) return usageError(arg + " needs a value");
    } else {
      return usageError("unknown option " + arg + " (the command goes after --)");
    }
  }
  for (; i < argc; ++i) o.command.push_back(argv[i]);
  if (o.command.empty()) return usageError("no command to record");

  std::string level = "3";
  if (!o.logLevel.empty() && !parseLevel(o.logLevel, &level)) return usageError("unknown log level " + o.logLevel);
  talvex::ListenAddress where;
  std::string error;
  if (!talvex::parseListenAddress(o.listen, &where, &error)) return usageError(error);
  if (where.host.find(':') != std::string::npos) return usageError("the agent reaches its recorder over IPv4 only");
  talvex::ListenAddress socks;
  if (!o.socks.empty() && !talvex::parseListenAddress(o.socks, &socks, &error)) return usageError(error);

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

  talvex::RecorderEndpoint endpoint;
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
  environment["TALVEX_SOCKET_AGENT_FOLLOW_FORKS"] = "1";
  // Every byte on the wire, whichever call moved it, and accepted connections too.
  environment["TALVEX_SOCKET_AGENT_COMPLETE_CAPTURE"] = "1";
  environment["TALVEX_SOCKET_AGENT_IP_ADDRESS"] = where.host;
  environment["TALVEX_SOCKET_AGENT_PORT_NUMBER"] = std::to_string(endpoint.port());
  const std::string clock32 = top + "/lib/i386-linux-gnu/libRecorderCore.so";
  const std::string clock64 = top + "/lib/x86_64-linux-gnu/libRecorderCore.so";
  if (access(clock32.c_str(), R_OK) == 0) environment["TALVEX_SOCKET_AGENT_RECORDERCORE32_PATH"] = clock32;
  if (access(clock64.c_str(), R_OK) == 0) environment["TALVEX_SOCKET_AGENT_RECORDERCORE64_PATH"] = clock64;
  if (!o.socks.empty()) {
    const bool v6 = socks.host.find(':') != std::string::npos;
    environment[v6 ? "TALVEX_SOCKET_AGENT_SOCKS_IPV6_ADDRESS" : "TALVEX_SOCKET_AGENT_SOCKS_IPV4_ADDRESS"] = socks.host;
    environment[v6 ? "TALVEX_SOCKET_AGENT_SOCKS_PORT_NUMBER_IPV6" : "TALVEX_SOCKET_AGENT_SOCKS_PORT_NUMBER_IPV4"] =
        std::to_string(socks.port);
  }
  if (o.doubleLogSocks) environment["TALVEX_SOCKET_AGENT_DOUBLE_LOG_SOCKS"] = "";
  if (o.traceback) environment["TALVEX_SOCKET_AGENT_DEBUG_TRACEBACK"] = "";
  if (o.unplug) environment["TALVEX_SOCKET_AGENT_UNPLUG_AGENT"] = "";
  if (!o.logDir.empty()) {
    environment["TALVEX_SOCKET_AGENT_DEBUG_DIR"] = o.logDir;
    environment["TALVEX_SOCKET_AGENT_DEBUG_LVL"] = level;
  }
  std::vector<std::string> pairs;
  for (const auto& e : environment) pairs.push_back(e.first + "=" + e.second);
  std::vector<char*> envp, args;
  for (auto& p : pairs) envp.push_back(&p[0]);
  envp.push_back(nullptr);
  for (auto& a : o.command) args.push_back(&a[0]);
  args.push_back(nullptr);

  // Interrupts from the terminal are the command's to handle; the recording goes on until it ends.
  signal(SIGINT, SIG_IGN);
  signal(SIGQUIT, SIG_IGN);
  const pid_t child = fork();
  if (child == 0) {
    signal(SIGINT, SIG_DFL);
    signal(SIGQUIT, SIG_DFL);
    execve(program.c_str(), args.data(), envp.data());
    fprintf(stderr, "talvex-record: cannot run %s: %s\n", program.c_str(), strerror(errno));
    _exit(126);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  // Anything the command's processes still had on the way arrives within a moment.
  endpoint.waitForQuiet(std::chrono::milliseconds(200), std::chrono::seconds(5));
  endpoint.stop(std::chrono::milliseconds(1000));
  const std::vector<std::string> messages = endpoint.messages();

  bool written = true;
  if (!o.raw.empty()) {
    std::string all;
    for (const auto& m : messages) all += m;
    written &= writeFile(o.raw, all);
  }
  if (!o.jsonl.empty()) {
    std::string all;
    for (const auto& m : messages) all += talvex::receivedToJson(m) + '\n';
    written &= writeFile(o.jsonl, all);
  }
  const talvex::Recording recording = talvex::buildRecording(messages);
  if (!o.pcap.empty() && !talvex::writeCapture(recording, o.pcap, &error)) {
    fprintf(stderr, "talvex-record: cannot write %s: %s\n", o.pcap.c_str(), error.c_str());
    written = false;
  }
  talvex::TranscriptOptions transcriptOptions;
  transcriptOptions.full = o.full;
  FILE* transcript = o.transcript.empty() ? stderr : fopen(o.transcript.c_str(), "w");
  if (transcript == nullptr) {
    written = false;
  } else {
    talvex::writeTranscript(recording, transcriptOptions, transcript);
    if (transcript != stderr) fclose(transcript);
  }
  if (!written) fprintf(stderr, "talvex-record: some outputs could not be written\n");
  if (messages.empty()) {
    // The command ran, but no process of it made a socket call through the C library: a program
    // that makes its own system calls (Go programs do) cannot be seen by a preloaded agent.
    fprintf(stderr,
            "talvex-record: nothing was recorded: %s made no socket call through the C library (a program that "
            "makes its own system calls, as Go programs do, cannot be recorded)\n",
            o.command[0].c_str());
  }

  if (WIFSIGNALED(status)) {
    const int number = WTERMSIG(status);
    fprintf(stderr, "talvex-record: %s was killed by signal %d (%s)\n", o.command[0].c_str(), number, strsignal(number));
    return 128 + number;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
