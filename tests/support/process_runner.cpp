#include "process_runner.h"

#include <algorithm>

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "test_paths.h"

extern char** environ;

namespace talvex_test {

namespace {

// argv and an environment in the form execve takes them; the strings live as long as this.
struct ExecArguments {
  ExecArguments(const std::vector<std::string>& argv, const Environment& environment) {
    for (const auto& entry : environment) pairs.push_back(entry.first + "=" + entry.second);
    for (auto& p : pairs) envp.push_back(const_cast<char*>(p.c_str()));
    envp.push_back(nullptr);
    for (auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
  }
  std::vector<std::string> pairs;
  std::vector<char*> envp, args;
};

}  // namespace

Environment cleanEnvironment(const Environment& extra) {
  Environment environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string pair(*entry);
    const size_t equals = pair.find('=');
    if (equals == std::string::npos) continue;
    const std::string name = pair.substr(0, equals);
    if (name == "LD_PRELOAD" || name.rfind("TALVEX_", 0) == 0) continue;
    environment[name] = pair.substr(equals + 1);
  }
#ifdef TALVEX_SANITIZER_RUNTIME
  // Leaks are not looked for: the agent keeps what it made for the life of the process, by design.
  environment["ASAN_OPTIONS"] = "detect_leaks=0:allocator_may_return_null=1";
  environment["UBSAN_OPTIONS"] = "halt_on_error=1:print_stacktrace=1";
#endif
  for (const auto& entry : extra) environment[entry.first] = entry.second;
  return environment;
}

std::string preloadWithAgent(const std::string& after, const std::string& agent) {
  std::string preload = agent.empty() ? std::string(kAgentPath) : agent;
#ifdef TALVEX_SANITIZER_RUNTIME
  preload = std::string(TALVEX_SANITIZER_RUNTIME) + ":" + preload;
#endif
  return after.empty() ? preload : preload + ":" + after;
}

Environment agentEnvironment(const Environment& extra) {
  Environment environment = cleanEnvironment(extra);
  environment["LD_PRELOAD"] = preloadWithAgent();
  return environment;
}

ProcessResult runProcess(const std::vector<std::string>& argv, const Environment& environment,
                         std::chrono::seconds timeout) {
  ProcessResult result;
  int outPipe[2], errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) return result;
  const ExecArguments exec(argv, environment);

  const pid_t pid = fork();
  if (pid == 0) {
    dup2(outPipe[1], 1);
    dup2(errPipe[1], 2);
    execve(exec.args[0], exec.args.data(), exec.envp.data());
    dprintf(2, "exec %s: %s\n", exec.args[0], strerror(errno));
    _exit(127);
  }
  result.pid = pid;
  close(outPipe[1]);
  close(errPipe[1]);
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  int openCount = 2;
  while (openCount > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      result.timedOut = true;
      kill(pid, SIGKILL);
      break;
    }
    if (poll(fds, 2, static_cast<int>(left.count())) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char chunk[4096];
      const ssize_t n = read(fds[i].fd, chunk, sizeof chunk);
      if (n > 0) {
        (i == 0 ? result.out : result.err).append(chunk, static_cast<size_t>(n));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        --openCount;
      }
    }
  }
  for (auto& f : fds) {
    if (f.fd >= 0) close(f.fd);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  return result;
}

BackgroundProcess::BackgroundProcess(const std::vector<std::string>& argv, const Environment& environment) {
  const ExecArguments exec(argv, environment);
  const std::string out = outputs_.file("out"), err = outputs_.file("err");
  pid_ = fork();
  if (pid_ == 0) {
    const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(o, 1);
    dup2(e, 2);
    close(o);
    close(e);
    execve(exec.args[0], exec.args.data(), exec.envp.data());
    _exit(127);
  }
}

BackgroundProcess::~BackgroundProcess() {
  if (pid_ > 0 && !reaped_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

void BackgroundProcess::signal(int number) {
  if (pid_ > 0 && !reaped_) kill(pid_, number);
}

ProcessResult BackgroundProcess::wait(std::chrono::seconds timeout) {
  ProcessResult result;
  result.pid = pid_;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  int status = 0;
  while (!reaped_) {
    const pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
      reaped_ = true;
      break;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      result.timedOut = true;
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      reaped_ = true;
      break;
    }
    usleep(10000);
  }
  if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  result.out = readFile(outputs_.file("out"));
  result.err = readFile(outputs_.file("err"));
  return result;
}

int waitForPortFile(const std::string& path, std::chrono::seconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    const std::string text = readFile(path);
    if (!text.empty() && text.back() == '\n') return atoi(text.c_str());
    usleep(10000);
  }
  return -1;
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  std::string line;
  while (std::getline(stream, line)) lines.push_back(line);
  return lines;
}

size_t processesRunning(const std::string& commandLine) {
  size_t count = 0;
  for (const std::string& name : listDirectory("/proc")) {
    if (name.empty() || name[0] < '1' || name[0] > '9') continue;
    std::string arguments = readFile("/proc/" + name + "/cmdline");
    if (arguments.empty()) continue;  // gone, or a zombie
    std::replace(arguments.begin(), arguments.end(), '\0', ' ');
    if (arguments == commandLine + " ") ++count;
  }
  return count;
}

std::vector<std::string> linesContaining(const std::string& text, const std::string& needle) {
  std::vector<std::string> found;
  for (const auto& line : splitLines(text)) {
    if (line.find(needle) != std::string::npos) found.push_back(line);
  }
  return found;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

bool writeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  return static_cast<bool>(out);
}

std::vector<std::string> listDirectory(const std::string& path) {
  std::vector<std::string> names;
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) return names;
  while (dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(dir);
  return names;
}

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base ? base : "/tmp") + "/talvex-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) != nullptr) path_ = buffer.data();
}

TempDir::~TempDir() {
  if (path_.empty()) return;
  const std::string command = "rm -rf '" + path_ + "'";
  (void)!system(command.c_str());
}

sockaddr_in loopbackAddress(int port) {
  sockaddr_in address;
  memset(&address, 0, sizeof address);
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

int listenOnLoopback(int* port, int receiveBuffer) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (receiveBuffer > 0) setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
  sockaddr_in address = loopbackAddress(0);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, 1024) != 0) {
    close(fd);
    return -1;
  }
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  *port = ntohs(address.sin_port);
  return fd;
}

namespace {

// One thread for every client: a test may open hundreds of connections, and a thread each
// would not fit a 32-bit address space.
void echoLoop(int listener, int wake) {
  std::vector<int> clients;
  for (;;) {
    std::vector<pollfd> fds = {{listener, POLLIN, 0}, {wake, POLLIN, 0}};
    for (int c : clients) fds.push_back({c, POLLIN, 0});
    if (poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR) break;
    if (fds[1].revents) break;
    std::vector<int> open;
    for (size_t i = 2; i < fds.size(); ++i) {
      const int c = fds[i].fd;
      if (fds[i].revents == 0) {
        open.push_back(c);
        continue;
      }
      char chunk[65536];
      const ssize_t n = read(c, chunk, sizeof chunk);
      bool alive = n > 0;
      for (ssize_t sent = 0; alive && sent < n;) {
        const ssize_t w = write(c, chunk + sent, static_cast<size_t>(n - sent));
        if (w <= 0) alive = false;
        sent += w;
      }
      if (alive) {
        open.push_back(c);
      } else {
        close(c);
      }
    }
    clients.swap(open);
    if (fds[0].revents) {
      for (int client; (client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) clients.push_back(client);
    }
  }
  for (int c : clients) close(c);
}

}  // namespace

EchoServer::EchoServer() {
  listener_ = listenOnLoopback(&port_);
  fcntl(listener_, F_SETFL, fcntl(listener_, F_GETFL, 0) | O_NONBLOCK);
  if (pipe2(wake_, O_CLOEXEC) != 0) return;
  thread_ = new std::thread(echoLoop, listener_, wake_[0]);
}

EchoServer::~EchoServer() {
  if (wake_[1] >= 0) (void)!write(wake_[1], "x", 1);
  if (thread_ != nullptr) {
    auto* t = static_cast<std::thread*>(thread_);
    t->join();
    delete t;
  }
  close(listener_);
  close(wake_[0]);
  close(wake_[1]);
}

int connectToLoopback(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopbackAddress(port);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
  close(fd);
  return -1;
}

int closedLoopbackPort() {
  int port = 0;
  const int fd = listenOnLoopback(&port);
  close(fd);
  return port;
}

}  // namespace talvex_test

namespace talvex_test {

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (done()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    usleep(5000);
  }
}

bool waitForFileContent(const std::string& path, const std::string& content, std::chrono::milliseconds timeout) {
  return waitUntil([&] { return readFile(path) == content; }, timeout);
}

bool waitForFileLines(const std::string& path, size_t count, std::chrono::milliseconds timeout) {
  return waitUntil(
      [&] {
        const std::string text = readFile(path);
        return static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) >= count;
      },
      timeout);
}

bool waitForListener(int port, std::chrono::milliseconds timeout) {
  return waitUntil(
      [&] {
        const int fd = connectToLoopback(port);
        if (fd < 0) return false;
        close(fd);
        return true;
      },
      timeout);
}

}  // namespace talvex_test
