// talvex-recorder: the recorder endpoint. Listens for the agent's connections and writes every
// message, in arrival order, raw or as JSON Lines.
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <string>

#include "json_lines_output.h"
#include "listen_address.h"
#include "raw_output.h"
#include "recorder_endpoint.h"
#include "recorder_message_parser.h"
#include "stdio_sink.h"

namespace {

const char* const kUsage =
    "usage: talvex-recorder [options]\n"
    "\n"
    "Receives the messages of a preloaded Talvex socket agent, one per connection, and writes\n"
    "them in arrival order.\n"
    "\n"
    "  --listen ADDR:PORT   where to listen (default 127.0.0.1:1092; IPv6 as [::1]:PORT;\n"
    "                       port 0 lets the system choose)\n"
    "  --output FILE        write messages to FILE instead of standard output\n"
    "  --format raw|jsonl   raw: each message exactly as received (default);\n"
    "                       jsonl: one flat JSON object per message, attributes decoded\n"
    "  --socket NAME        listen on a local stream socket too: a path, or @NAME in the\n"
    "                       abstract namespace (agents with TALVEX_SOCKET_AGENT_RECORDER_SOCKET\n"
    "                       and the persistent channel use it)\n"
    "  --port-file FILE     write the port actually listened on to FILE\n"
    "  --count N            stop after N messages\n"
    "  --max-message BYTES  the longest message kept (default 67108864); a longer one is\n"
    "                       dropped and reported, so memory stays bounded whatever peers send\n"
    "  -h, --help           this text\n"
    "  -V, --version        the version\n"
    "\n"
    "A connection may carry one message or many, one per line. Messages are written as they\n"
    "complete and nothing is kept after. Stops on SIGINT or SIGTERM after writing everything\n"
    "received.\n"
    "\n"
    "Example:\n"
    "  talvex-recorder --format jsonl --output calls.jsonl &\n"
    "  LD_PRELOAD=/path/to/libtalvex_socket_agent.so ./program\n";

struct Options {
  std::string listen = "127.0.0.1:1092";
  std::string output;
  std::string format = "raw";
  std::string portFile;
  std::string socket;
  long count = 0;
  long long longestMessage = 64ll << 20;
};

int usageError(const std::string& message) {
  fprintf(stderr, "talvex-recorder: %s\nTry 'talvex-recorder --help' for more information.\n", message.c_str());
  return 2;
}

// Reads the command line into `options`. Returns -1 to go on, or the exit status to end with
// (after --help, --version or a usage error).
int parseOptions(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](std::string* into) {
      if (i + 1 >= argc) return false;
      *into = argv[++i];
      return true;
    };
    std::string countText;
    if (arg == "--help" || arg == "-h") {
      fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--version" || arg == "-V") {
      printf("talvex-recorder %s\n", TALVEX_VERSION);
      return 0;
    } else if (arg == "--listen") {
      if (!value(&options->listen)) return usageError("--listen needs ADDR:PORT");
    } else if (arg == "--output") {
      if (!value(&options->output)) return usageError("--output needs a file");
    } else if (arg == "--format") {
      if (!value(&options->format) || (options->format != "raw" && options->format != "jsonl")) {
        return usageError("--format is raw or jsonl");
      }
    } else if (arg == "--socket") {
      if (!value(&options->socket)) return usageError("--socket needs a name");
    } else if (arg == "--port-file") {
      if (!value(&options->portFile)) return usageError("--port-file needs a file");
    } else if (arg == "--max-message") {
      std::string text;
      char* end = nullptr;
      if (!value(&text) || (options->longestMessage = strtoll(text.c_str(), &end, 10)) <= 0 || *end != '\0') {
        return usageError("--max-message needs a positive number of bytes");
      }
    } else if (arg == "--count") {
      char* end = nullptr;
      if (!value(&countText) || (options->count = strtol(countText.c_str(), &end, 10)) <= 0 || *end != '\0') {
        return usageError("--count needs a positive number");
      }
    } else {
      return usageError("unknown option " + arg);
    }
  }
  return -1;
}

// Signals are taken by the main thread alone, so the endpoint thread is never interrupted.
sigset_t blockStopSignals() {
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return stopSignals;
}

// Listens where the options say; false, with the reason on standard error, when it cannot.
bool startListening(const Options& options, const talvex::ListenAddress& where, talvex::RecorderEndpoint* endpoint) {
  std::string error;
  if (!options.socket.empty() && !endpoint->listenLocally(options.socket, &error)) {
    fprintf(stderr, "talvex-recorder: %s\n", error.c_str());
    return false;
  }
  if (!endpoint->start(where.host, where.port, &error)) {
    fprintf(stderr, "talvex-recorder: cannot listen on %s: %s\n", options.listen.c_str(), error.c_str());
    return false;
  }
  if (!options.portFile.empty()) {
    FILE* portOut = fopen(options.portFile.c_str(), "w");
    if (portOut != nullptr) {
      fprintf(portOut, "%d\n", endpoint->port());
      fclose(portOut);
    }
  }
  fprintf(stderr, "talvex-recorder: listening on %s port %d\n", where.host.c_str(), endpoint->port());
  if (!options.socket.empty()) fprintf(stderr, "talvex-recorder: listening on local socket %s\n", options.socket.c_str());
  return true;
}

void printSummary(long received, long malformed, const talvex::RecorderEndpoint& endpoint) {
  fprintf(stderr, "talvex-recorder: %ld messages received, %ld malformed", received, malformed);
  if (endpoint.cutCount() != 0) fprintf(stderr, ", %zu cut for their length", endpoint.cutCount());
  if (endpoint.refusedCount() != 0) {
    fprintf(stderr, ", %zu connections refused when descriptors ran out", endpoint.refusedCount());
  }
  fputs("\n", stderr);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  const int parsed = parseOptions(argc, argv, &options);
  if (parsed >= 0) return parsed;
  talvex::ListenAddress where;
  std::string error;
  if (!talvex::parseListenAddress(options.listen, &where, &error)) return usageError(error);

  FILE* out = stdout;
  if (!options.output.empty()) {
    out = fopen(options.output.c_str(), "wb");
    if (out == nullptr) {
      fprintf(stderr, "talvex-recorder: cannot write %s: %s\n", options.output.c_str(), strerror(errno));
      return 1;
    }
  }
  talvex::StdioSink sink(out);
  talvex::RawOutput rawOutput(sink);
  talvex::JsonLinesOutput jsonOutput(sink);
  const bool json = options.format == "jsonl";
  talvex::RecordingOutput& output = json ? static_cast<talvex::RecordingOutput&>(jsonOutput) : rawOutput;
  const sigset_t stopSignals = blockStopSignals();

  std::atomic<long> received{0};
  std::atomic<long> malformed{0};
  const pthread_t mainThread = pthread_self();
  // Only the endpoint's thread writes the output until it has stopped.
  talvex::RecorderMessageFormCheck formCheck;
  talvex::RecorderEndpoint endpoint;
  endpoint.setHandler([&](std::string_view raw) {
    talvex::ArrivedMessage message;
    message.raw = raw;
    talvex::ParsedMessage parsedMessage;
    if (json) {
      if (talvex::parseRecorderMessage(raw, &parsedMessage, nullptr)) {
        message.parsed = &parsedMessage;
      } else {
        ++malformed;
      }
    } else if (!formCheck.wellFormed(raw)) {
      // Written as received; checked for its form, its payload stepped over unread.
      ++malformed;
    }
    output.write(message);
    if (received.fetch_add(1, std::memory_order_relaxed) + 1 == options.count) pthread_kill(mainThread, SIGTERM);
  });
  endpoint.setIdleHandler([&] { return output.flushWhenDue(); });
  endpoint.setCutHandler([&](size_t dropped) {
    fprintf(stderr,
            "talvex-recorder: a message longer than %lld bytes was cut: its first %zu bytes and the rest up to its "
            "line feed were dropped\n",
            options.longestMessage, dropped);
  });
  // Four times the limit is what all unfinished messages together may hold: it must fit a size_t.
  endpoint.setLongestMessage(static_cast<size_t>(std::min<long long>(options.longestMessage, SIZE_MAX / 8)));
  endpoint.keepMessages(false);
  if (!startListening(options, where, &endpoint)) return 1;

  const timespec tick = {0, 100 * 1000 * 1000};
  // The endpoint's thread sends SIGTERM here the moment the count is reached: the wait ends then,
  // not at the next tick.
  for (;;) {
    if (options.count > 0 && received.load() >= options.count) break;
    if (sigtimedwait(&stopSignals, nullptr, &tick) > 0) break;
  }
  endpoint.stop(std::chrono::milliseconds(1000));
  output.finish();
  printSummary(received.load(), malformed.load(), endpoint);
  return 0;
}
