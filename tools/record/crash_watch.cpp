#include "crash_watch.h"

#include <fcntl.h>
#include <unistd.h>

#include <string>

namespace talvex {

int CrashWatch::start() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return -1;
  read_ = ends[0];
  thread_ = std::thread([this] { relay(); });
  return ends[1];
}

bool CrashWatch::crashed() {
  if (thread_.joinable()) {
    for (int i = 0; i < 50 && !done_; ++i) usleep(20000);
    if (done_) {
      thread_.join();
    } else {
      thread_.detach();
    }
  }
  return crashed_;
}

// Passes the output on as it comes and looks at the start of each line for the crash handler's
// first line.
void CrashWatch::relay() {
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

}  // namespace talvex
