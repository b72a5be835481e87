// What talvex-record's kernel tracer costs a program no preload can enter, against strace run as
// a user runs it to see the same payloads (strace -f --seccomp-bpf -e trace=network,read,write
// -s 65535), each a ratio to the program alone in the same run, best of five: a 50 MB download
// and 200 kept-alive round trips by the suite's Go client, and a 20 MB upload by its static C
// client, against a Python server on loopback.
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "process_runner.h"
#include "test_paths.h"

using namespace talvex_test;

namespace {

const int kAttempts = 5;

double bestSeconds(const std::vector<std::string>& argv) {
  double best = 1e9;
  for (int i = 0; i < kAttempts; ++i) {
    const auto start = std::chrono::steady_clock::now();
    const ProcessResult r = runProcess(argv, cleanEnvironment(), std::chrono::seconds(600));
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (r.exitCode != 0) {
      fprintf(stderr, "run failed (%s): %s\n", argv[0].c_str(), r.err.substr(0, 400).c_str());
      exit(1);
    }
    best = std::min(best, seconds);
  }
  return best;
}

}  // namespace

int main() {
  TempDir dir;
  writeFile(dir.file("big"), std::string(50u << 20, 'x'));
  writeFile(dir.file("small"), "a small answer\n");
  writeFile(dir.file("server.py"),
            "import http.server, os, sys\n"
            "class Quiet(http.server.SimpleHTTPRequestHandler):\n"
            "    protocol_version = 'HTTP/1.1'\n"
            "    disable_nagle_algorithm = True\n"
            "    def log_message(self, *args): pass\n"
            "    def do_POST(self):\n"
            "        left = int(self.headers['Content-Length'])\n"
            "        while left > 0: left -= len(self.rfile.read(min(left, 1 << 20)))\n"
            "        self.send_response(200); self.send_header('Content-Length', '2'); self.end_headers()\n"
            "        self.wfile.write(b'ok')\n"
            "os.chdir(sys.argv[1])\n"
            "server = http.server.ThreadingHTTPServer(('127.0.0.1', 0), Quiet)\n"
            "open('port.part', 'w').write('%d\\n' % server.server_address[1]); os.rename('port.part', 'port')\n"
            "server.serve_forever()\n");
  BackgroundProcess server({"/usr/bin/python3", dir.file("server.py"), dir.path()}, cleanEnvironment());
  const std::string base = "http://127.0.0.1:" + std::to_string(waitForPortFile(dir.file("port"), std::chrono::seconds(30)));
  std::vector<std::string> roundTrips = {kGoClientPath, "get"};
  for (int i = 0; i < 200; ++i) roundTrips.push_back(base + "/small");
  const struct {
    const char* name;
    std::vector<std::string> command;
  } workloads[] = {
      {"Go client, 50 MB download", {kGoClientPath, "get", base + "/big"}},
      {"Go client, 200 round trips", roundTrips},
      {"static client, 20 MB upload", {kStaticClientPath, std::to_string(waitForPortFile(dir.file("port"))), "/", "20000000"}},
  };
  printf("kernel tracer against strace, best of %d, each against the program alone\n", kAttempts);
  printf("  %-30s %10s %22s %22s\n", "workload", "alone", "talvex-record", "strace --seccomp-bpf");
  for (const auto& w : workloads) {
    std::vector<std::string> recorded = {kRecordPath, "-q", "--"};
    recorded.insert(recorded.end(), w.command.begin(), w.command.end());
    std::vector<std::string> traced = {"/usr/bin/strace", "-f", "--seccomp-bpf", "-e", "trace=network,read,write",
                                       "-s", "65535", "-o", "/dev/null"};
    traced.insert(traced.end(), w.command.begin(), w.command.end());
    const double alone = bestSeconds(w.command), withRecord = bestSeconds(recorded), withStrace = bestSeconds(traced);
    printf("  %-30s %8.3f s %10.3f s %6.2fx %10.3f s %6.2fx\n", w.name, alone, withRecord, withRecord / alone, withStrace,
           withStrace / alone);
  }
  return 0;
}
