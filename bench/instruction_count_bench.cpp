// Instructions the agent spends in one intercepted call, counted by callgrind (stable where wall
// time on a shared machine is not): the probe's send/recv loop and its writes to /dev/null run
// under valgrind, collecting only inside the agent's send, recv and write handlers (the C
// library's work below them included, the kernel's not). Modes:
//   pass-through  the agent with its extensions off and unplugged: nothing leaves the process
//   +capture      the same with TALVEX_SOCKET_AGENT_COMPLETE_CAPTURE: what the extension adds
//   recording     the agent delivering every message to an endpoint
//   +capture      the same with the extension
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "base/variable_names.h"
#include "process_runner.h"
#include "recorder_endpoint.h"
#include "test_paths.h"

using namespace talvex_test;

namespace {

const int kRounds = 2000;

// The instructions collected in `entry` over the run, divided by the calls made to it.
double perCall(const Environment& environment, int echoPort, const std::string& entry, int size = 64) {
  TempDir out;
  const ProcessResult r = runProcess({"/usr/bin/valgrind", "--tool=callgrind", "--callgrind-out-file=" + out.file("cg"),
                                      "--toggle-collect=My" + entry + "(*", kRecordingProbePath, "loop",
                                      std::to_string(echoPort), std::to_string(kRounds), std::to_string(size)},
                                     environment, std::chrono::seconds(300));
  if (r.exitCode != 0) {
    fprintf(stderr, "valgrind run failed: %s\n", r.err.c_str());
    exit(1);
  }
  for (const auto& line : splitLines(readFile(out.file("cg")))) {
    if (line.rfind("totals: ", 0) == 0) return atof(line.c_str() + 8) / kRounds;
    if (line.rfind("summary: ", 0) == 0) return atof(line.c_str() + 9) / kRounds;
  }
  fprintf(stderr, "no totals in the callgrind output\n");
  exit(1);
}

// What the agent's stand-in for SSL_write_ex costs on its own, unplugged: its instructions (the
// library's encryption included) less those of OpenSSL's SSL_write_ex it calls, both inclusive, in
// one run of a client that writes its request in 64-byte writes to a TLS server of the suite's
// own. Debian's i386 libssl3 as the install script unpacks it.
double tlsStandInPerCall(const Environment& extra) {
  const char* const directory = "/var/lib/talvex-test/libssl3-i386/usr/lib/i386-linux-gnu";
  TempDir tls;
  runProcess({"/usr/bin/openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=localhost",
              "-keyout", tls.file("key.pem"), "-out", tls.file("cert.pem")},
             cleanEnvironment());
  BackgroundProcess server({"/usr/bin/python3", kTlsServerPath, tls.path(), "1", "16"}, cleanEnvironment());
  const int port = waitForPortFile(tls.file("port"), std::chrono::seconds(30));
  Environment environment = extra;
  environment[TALVEX_VAR_UNPLUG_AGENT] = "";
  environment["LD_LIBRARY_PATH"] = directory;
  const ProcessResult r = runProcess(
      {"/usr/bin/valgrind", "--tool=callgrind", "--callgrind-out-file=" + tls.file("cg"), kTlsClientProbePath, "openssl",
       std::string(directory) + "/libssl.so.3", std::to_string(port), std::to_string(kRounds * 64 - 61), "64"},
      agentEnvironment(environment), std::chrono::seconds(300));
  server.wait();
  const ProcessResult annotated = runProcess(
      {"/usr/bin/callgrind_annotate", "--inclusive=yes", "--threshold=100", tls.file("cg")}, cleanEnvironment());
  if (r.exitCode != 0 || annotated.exitCode != 0) {
    fprintf(stderr, "valgrind run of the TLS client failed: %s%s\n", r.err.c_str(), annotated.err.c_str());
    exit(1);
  }
  // "  32,254,077 (50.95%)  FILE:SSL_write_ex [OBJECT]": one line for the agent's, one for OpenSSL's.
  double standIn = -1, library = -1;
  for (const auto& line : splitLines(annotated.out)) {
    if (line.find(":SSL_write_ex [") == std::string::npos) continue;
    std::string digits;
    for (char c : line.substr(0, line.find('('))) {
      if (c >= '0' && c <= '9') digits += c;
    }
    (line.find("libtalvex_socket_agent") != std::string::npos ? standIn : library) = atof(digits.c_str());
  }
  if (standIn < 0 || library < 0) {
    fprintf(stderr, "no SSL_write_ex of both objects in the callgrind output\n");
    exit(1);
  }
  return (standIn - library) / kRounds;
}

struct Row {
  double send, recv, write;
};

Row measure(const Environment& environment, int echoPort) {
  return {perCall(environment, echoPort, "send"), perCall(environment, echoPort, "recv"),
          perCall(environment, echoPort, "write")};
}

}  // namespace

int main() {
  EchoServer echo;
  talvex::RecorderEndpoint endpoint;
  endpoint.start("127.0.0.1", 0, nullptr);
  const std::string port = std::to_string(endpoint.port());
  const Environment unplug = {{TALVEX_VAR_UNPLUG_AGENT, ""}};
  const Row passThrough = measure(agentEnvironment(unplug), echo.port());
  const Row passCapture =
      measure(agentEnvironment({{TALVEX_VAR_UNPLUG_AGENT, ""}, {TALVEX_VAR_COMPLETE_CAPTURE, "1"}}),
              echo.port());
  const Row recording = measure(agentEnvironment({{TALVEX_VAR_PORT_NUMBER, port}}), echo.port());
  const Row recordingCapture = measure(
      agentEnvironment({{TALVEX_VAR_PORT_NUMBER, port}, {TALVEX_VAR_COMPLETE_CAPTURE, "1"}}),
      echo.port());
  printf("instructions per call (callgrind), %d calls each, 64-byte payloads, 32-bit probe\n", kRounds);
  printf("  %-20s %10s %10s %10s\n", "", "send", "recv", "write(file)");
  const auto print = [](const char* name, const Row& row) {
    printf("  %-20s %10.0f %10.0f %10.0f\n", name, row.send, row.recv, row.write);
  };
  print("unplugged", passThrough);
  print("unplugged+capture", passCapture);
  print("recording", recording);
  print("recording+capture", recordingCapture);
  // Unplugged, the payload's size no longer matters: nothing is encoded.
  const Environment unplugged = agentEnvironment(unplug);
  printf("  unplugged send by payload size: 16 B %.0f, 1 KiB %.0f, 64 KiB %.0f instructions\n",
         perCall(unplugged, echo.port(), "send", 16), perCall(unplugged, echo.port(), "send", 1024),
         perCall(unplugged, echo.port(), "send", 65536));
  printf("  unplugged SSL_write_ex, instructions the stand-in adds to OpenSSL's own: TLS plaintext off %.0f, on %.0f\n",
         tlsStandInPerCall({}), tlsStandInPerCall({{TALVEX_VAR_TLS_PLAINTEXT, "1"}}));
  printf("  capture adds: unplugged %+.0f / %+.0f / %+.0f, recording %+.0f / %+.0f / %+.0f\n",
         passCapture.send - passThrough.send, passCapture.recv - passThrough.recv,
         passCapture.write - passThrough.write, recordingCapture.send - recording.send,
         recordingCapture.recv - recording.recv, recordingCapture.write - recording.write);
  return 0;
}
