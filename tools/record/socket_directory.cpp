#include "socket_directory.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

namespace talvex {

SocketDirectory::~SocketDirectory() {
  if (directory_.empty()) return;
  // Left by an endpoint that could not stop cleanly, the socket goes too.
  unlink(socketPath().c_str());
  rmdir(directory_.c_str());
}

bool SocketDirectory::create() {
  const char* temporary = getenv("TMPDIR");
  std::string pattern = std::string(temporary != nullptr && temporary[0] == '/' ? temporary : "/tmp") +
                        "/talvex-record-XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  if (mkdtemp(name.data()) == nullptr) return false;
  directory_ = name.data();
  // A socket's path must fit in 108 bytes.
  if (socketPath().size() >= 108) {
    rmdir(directory_.c_str());
    directory_.clear();
    return false;
  }
  return true;
}

void SocketDirectory::openToEveryUser() const {
  chmod(directory_.c_str(), 0711);
  chmod(socketPath().c_str(), 0666);
}

}  // namespace talvex
