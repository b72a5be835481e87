#include "message/command_line.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "config/extension_switches.h"
#include "message/recorder_message.h"

void addCommandLine(RecorderMessage& message) {
  if (!extensionOn(EXT_COMMAND_LINE)) return;
  const int savedErrno = errno;
  // Straight to the kernel: the C library's open, read and close may be the host's own wrappers,
  // and the descriptor lives only for these lines.
  const long fd = syscall(SYS_openat, AT_FDCWD, "/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    char text[kLongestCommandLine];
    unsigned length = 0;
    while (length < sizeof text) {
      const long n = syscall(SYS_read, fd, text + length, sizeof text - length);
      if (n <= 0) break;
      length += static_cast<unsigned>(n);
    }
    syscall(SYS_close, fd);
    if (length > 0) message.set(RMA_COMMANDLINE, text, static_cast<int>(length));
  }
  errno = savedErrno;
}
