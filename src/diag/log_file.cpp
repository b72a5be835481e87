#include "diag/log_file.h"

#include <errno.h>

#include "base/file_status.h"

namespace {

FileStatus logIdentity;
bool logIdentityKnown = false;

void remember(FILE* file) {
  logIdentityKnown = file != nullptr && statusOfDescriptor(fileno(file), &logIdentity);
}

// Whether the file's descriptor still names the file the log opened. A kernel that cannot say
// (no statx) is taken at its word.
bool stillOurs(FILE* file) {
  if (!logIdentityKnown) return true;
  FileStatus now;
  if (!statusOfDescriptor(fileno(file), &now)) return errno == ENOSYS;
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
