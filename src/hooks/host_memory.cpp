#include "hooks/host_memory.h"

#include <errno.h>
#include <stdint.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

const size_t kPage = 4096;
// Pages probed per system call: small enough for the stack of any host thread.
const size_t kBatch = 64;

// process_vm_readv on the agent's own process: the kernel copies what it can and reports a fault
// as a short count instead of a signal. The raw call keeps the agent free of the newer symbol
// version of the C library's wrapper.
ssize_t readOwnMemory(const iovec* local, size_t localCount, const iovec* remote, size_t remoteCount) {
  return syscall(SYS_process_vm_readv, static_cast<long>(getpid()), local, static_cast<unsigned long>(localCount),
                 remote, static_cast<unsigned long>(remoteCount), 0ul);
}

size_t fallback(size_t length, size_t proven) { return proven < length ? proven : length; }

}  // namespace

size_t readableBytes(const void* address, size_t length, size_t proven) {
  if (address == nullptr || length == 0) return 0;
  const int savedErrno = errno;
  const uintptr_t start = reinterpret_cast<uintptr_t>(address);
  // A range that wraps the address space ends where the address space does.
  const uintptr_t end = start + length < start ? UINTPTR_MAX : start + length;
  uintptr_t next = start;  // the first byte not yet known to be readable
  size_t result = 0;
  bool answered = false;
  while (!answered) {
    // One byte of each page from `next` on: readability is a property of whole pages.
    char scratch[kBatch];
    iovec local[1] = {{scratch, 0}};
    iovec remote[kBatch];
    size_t count = 0;
    for (uintptr_t page = next; count < kBatch && page < end;) {
      remote[count].iov_base = reinterpret_cast<void*>(page);
      remote[count].iov_len = 1;
      ++count;
      const uintptr_t following = (page & ~static_cast<uintptr_t>(kPage - 1)) + kPage;
      if (following <= page) break;  // the last page of the address space
      page = following;
    }
    local[0].iov_len = count;
    const ssize_t read = readOwnMemory(local, 1, remote, count);
    if (read < 0) {
      result = errno == EFAULT ? static_cast<size_t>(next - start) : fallback(length, proven);
      answered = true;
    } else if (static_cast<size_t>(read) < count) {
      result = static_cast<size_t>(reinterpret_cast<uintptr_t>(remote[read].iov_base) - start);
      answered = true;
    } else {
      const uintptr_t last = reinterpret_cast<uintptr_t>(remote[count - 1].iov_base);
      next = (last & ~static_cast<uintptr_t>(kPage - 1)) + kPage;
      if (next <= last || next >= end) {
        result = static_cast<size_t>(end - start);
        answered = true;
      }
    }
  }
  errno = savedErrno;
  return result < length ? result : length;
}

size_t copyHostBytes(void* destination, const void* address, size_t length, size_t proven) {
  const size_t readable = readableBytes(address, length, proven);
  if (readable != 0) memcpy(destination, address, readable);
  return readable;
}
