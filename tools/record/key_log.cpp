#include "key_log.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <unistd.h>

namespace talvex {

bool prepareKeylog(std::string* path, std::string* error) {
  // Secrets: readable by their owner alone.
  const int fd = open(path->c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600);
  if (fd < 0) {
    *error = "cannot write the key log " + *path + ": " + strerror(errno);
    return false;
  }
  close(fd);
  if ((*path)[0] != '/') {
    char directory[PATH_MAX];
    if (getcwd(directory, sizeof directory) == nullptr) {
      *error = "cannot name the key log " + *path + " by its full path: " + strerror(errno);
      return false;
    }
    *path = std::string(directory) + "/" + *path;
  }
  return true;
}

}  // namespace talvex
