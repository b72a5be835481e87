#include "diag/log_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

struct FileIdentity {
  uint32_t devMajor;
  uint32_t devMinor;
  uint64_t inode;
  bool known;
};

FileIdentity logIdentity = {0, 0, 0, false};

// statx through the raw call: the C library's stat family moved to new symbol versions that an
// agent meant for older systems cannot bind. A kernel without statx leaves identities unknown.
bool identify(int descriptor, FileIdentity* out) {
#ifdef SYS_statx
  struct statx status;
  if (syscall(SYS_statx, descriptor, "", AT_EMPTY_PATH, STATX_INO, &status) != 0) return false;
  out->devMajor = status.stx_dev_major;
  out->devMinor = status.stx_dev_minor;
  out->inode = status.stx_ino;
  out->known = true;
  return true;
#else
  (void)descriptor;
  (void)out;
  errno = ENOSYS;
  return false;
#endif
}

void remember(FILE* file) {
  logIdentity.known = false;
  if (file != nullptr) identify(fileno(file), &logIdentity);
}

// Whether the file's descriptor still names the file the log opened.
bool stillOurs(FILE* file) {
  if (!logIdentity.known) return true;
  FileIdentity now = {0, 0, 0, false};
  if (!identify(fileno(file), &now)) return errno == ENOSYS;
  return now.inode == logIdentity.inode && now.devMajor == logIdentity.devMajor &&
         now.devMinor == logIdentity.devMinor;
}

}  // namespace

FILE* openLogFile(const char* path) {
  FILE* file = fopen(path, "we");
  remember(file);
  return file;
}

void writeLogLine(FILE** file, const char* path, const char* line, size_t length) {
  if (*file == nullptr) return;
  const int savedErrno = errno;
  if (!stillOurs(*file)) {
    // The old stream is left as it is, never flushed or closed: its descriptor is the host's now,
    // and it holds no unwritten byte, since every line is flushed.
    *file = path != nullptr ? fopen(path, "ae") : nullptr;
    remember(*file);
  }
  if (*file != nullptr) {
    fwrite(line, 1, length, *file);
    fflush(*file);
  }
  errno = savedErrno;
}
