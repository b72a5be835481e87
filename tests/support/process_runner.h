// Runs a program of the test suite as a child process with an exact environment and collects
// what it printed and how it ended.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace talvex_test {

struct ProcessResult {
  std::string out;
  std::string err;
  int exitCode = -1;      // valid when exited
  int signal = 0;         // the signal that ended it, or 0
  bool timedOut = false;
  int pid = 0;
};

using Environment = std::map<std::string, std::string>;

// The parent's environment without any agent variable or preload, plus `extra`.
Environment cleanEnvironment(const Environment& extra = {});

// The same with the built agent preloaded.
Environment agentEnvironment(const Environment& extra = {});

// The LD_PRELOAD value that loads `agent` (the built one by default), `after` behind it. A build
// whose agent carries the sanitizers' instrumentation puts their runtime in front: it must be the
// first object of the process.
std::string preloadWithAgent(const std::string& after = "", const std::string& agent = "");

ProcessResult runProcess(const std::vector<std::string>& argv, const Environment& environment,
                         std::chrono::seconds timeout = std::chrono::seconds(60));

// A fresh directory under the system's temporary directory, removed with its contents.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// A process left running while the test works with it; its output goes to files.
class BackgroundProcess {
 public:
  BackgroundProcess(const std::vector<std::string>& argv, const Environment& environment);
  ~BackgroundProcess();  // kills it if still running
  BackgroundProcess(const BackgroundProcess&) = delete;
  BackgroundProcess& operator=(const BackgroundProcess&) = delete;

  int pid() const { return pid_; }
  void signal(int number);
  // Waits for the end, killing it after `timeout`; the result holds what it printed.
  ProcessResult wait(std::chrono::seconds timeout = std::chrono::seconds(30));

 private:
  TempDir outputs_;
  int pid_ = -1;
  bool reaped_ = false;
};

// Waits for `path` to hold a number followed by a newline, as tools write a port file.
int waitForPortFile(const std::string& path, std::chrono::seconds timeout = std::chrono::seconds(10));

// Waits, checking often, until `done` holds or `timeout` has passed; whether it held. Tests wait
// for what they need to see, not for a time that is usually enough.
bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = std::chrono::seconds(10));
// Waits until the file at `path` holds exactly `content`; whether it did within `timeout`.
bool waitForFileContent(const std::string& path, const std::string& content,
                        std::chrono::milliseconds timeout = std::chrono::seconds(10));
// Waits until the file at `path` holds at least `count` whole lines.
bool waitForFileLines(const std::string& path, size_t count,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10));
// Waits until something accepts connections on loopback port `port`.
bool waitForListener(int port, std::chrono::milliseconds timeout = std::chrono::seconds(10));

// How many processes run with exactly `commandLine` (its arguments joined by spaces).
size_t processesRunning(const std::string& commandLine);

// Lines of `text` that contain `needle`.
std::vector<std::string> linesContaining(const std::string& text, const std::string& needle);
std::vector<std::string> splitLines(const std::string& text);
std::string readFile(const std::string& path);
// Replaces the file's content with `content`; false when it cannot be written whole.
bool writeFile(const std::string& path, const std::string& content);
std::vector<std::string> listDirectory(const std::string& path);

// A loopback TCP server that echoes every byte back, on a port the system chose.
class EchoServer {
 public:
  EchoServer();
  ~EchoServer();
  int port() const { return port_; }

 private:
  int listener_ = -1;
  int port_ = 0;
  int wake_[2] = {-1, -1};
  void* thread_ = nullptr;
};

// 127.0.0.1:port.
sockaddr_in loopbackAddress(int port);

// A TCP socket listening on a loopback port the system chose (in `port`), or -1. A
// `receiveBuffer` above 0 is the receive buffer of the connections it accepts.
int listenOnLoopback(int* port, int receiveBuffer = 0);

// A connected TCP socket to 127.0.0.1:port, or -1.
int connectToLoopback(int port);

// A loopback port with nothing listening on it (bound once by the system, then released).
int closedLoopbackPort();

}  // namespace talvex_test
