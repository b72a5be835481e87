#include "base/file_status.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

bool query(int directory, const char* path, int flags, FileStatus* out) {
#ifdef SYS_statx
  struct statx status;
  if (syscall(SYS_statx, directory, path, flags, STATX_TYPE | STATX_INO, &status) != 0) return false;
  out->devMajor = status.stx_dev_major;
  out->devMinor = status.stx_dev_minor;
  out->inode = status.stx_ino;
  out->mode = status.stx_mode;
  return true;
#else
  (void)directory;
  (void)path;
  (void)flags;
  (void)out;
  errno = ENOSYS;
  return false;
#endif
}

}  // namespace

bool statusOfDescriptor(int descriptor, FileStatus* out) { return query(descriptor, "", AT_EMPTY_PATH, out); }
bool statusOfPath(const char* path, FileStatus* out) { return query(AT_FDCWD, path, 0, out); }
