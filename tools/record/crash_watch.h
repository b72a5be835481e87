// With --traceback, the command's standard output passes through talvex-record, so that the
// backtrace the agent's crash handler prints there tells that the command crashed even though it
// then exits with status 0.
#pragma once

#include <atomic>
#include <thread>

namespace talvex {

class CrashWatch {
 public:
  // The descriptor the command's standard output is to go to, or -1 when none could be made.
  int start();
  // Waits a moment for the last of the output; a process of the command that keeps its standard
  // output open (a daemon) is not waited for.
  bool crashed();

 private:
  void relay();

  int read_ = -1;
  std::thread thread_;
  std::atomic<bool> done_{false};
  std::atomic<bool> crashed_{false};
};

}  // namespace talvex
