#include "recorder/shared_ring.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "agent/monotonic_clock.h"
#include "interpose/real_functions.h"
#include "interpose/symbol_versions.h"
#include "recorder/shared_ring_layout.h"

// The first fcntl of each ABI: the agent loads on C libraries older than the one it is built on.
__asm__(".symver fcntl,fcntl@" TALVEX_GLIBC_FIRST);

const char* const kSharedRingVariable = "TALVEX_SOCKET_AGENT_SHARED_RING";

namespace {

// Large enough that a recorder busy for a moment does not hold the host up, small enough that a
// process and its forked children do not pin much memory (pages are taken as they are written).
const uint64_t kCapacity = 4u << 20;
const size_t kMappedBytes = shared_ring::kHeaderBytes + kCapacity;
// How long the host sleeps at a time while the ring is full.
const long kRoomWaitNs = 50 * 1000;

bool wanted = false;
char* ring = nullptr;

shared_ring::Word* counter(size_t at) { return shared_ring::wordAt(ring, at); }

// The descriptor goes with the offer byte, in one message of its own.
bool handOver(int fd, int memory) {
  char byte = shared_ring::kOfferByte;
  iovec data = {&byte, 1};
  union {
    cmsghdr header;
    char space[CMSG_SPACE(sizeof(int))];
  } control;
  memset(&control, 0, sizeof control);
  msghdr message;
  memset(&message, 0, sizeof message);
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control.space;
  message.msg_controllen = sizeof control.space;
  cmsghdr* rights = CMSG_FIRSTHDR(&message);
  rights->cmsg_level = SOL_SOCKET;
  rights->cmsg_type = SCM_RIGHTS;
  rights->cmsg_len = CMSG_LEN(sizeof(int));
  memcpy(CMSG_DATA(rights), &memory, sizeof memory);
  return True_sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT) == 1;
}

// One byte that wakes the recorder; a full socket means it has doorbells enough to come.
bool ringDoorbell(int fd) {
  const char byte = 0;
  for (;;) {
    if (True_send(fd, &byte, 1, MSG_NOSIGNAL | MSG_DONTWAIT) == 1) return true;
    if (errno == EINTR) continue;
    return errno == EAGAIN || errno == EWOULDBLOCK;
  }
}

}  // namespace

void readSharedRing() { wanted = getenv(kSharedRingVariable) != nullptr; }

bool sharedRingWanted() { return wanted; }

bool sharedRingActive() { return ring != nullptr; }

bool offerSharedRing(int fd) {
  dropSharedRing();
  const int memory = static_cast<int>(syscall(SYS_memfd_create, "talvex-ring", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (memory < 0) return false;
  void* mapped = MAP_FAILED;
  if (ftruncate(memory, static_cast<off_t>(kMappedBytes)) == 0 &&
      fcntl(memory, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0) {
    mapped = mmap(nullptr, kMappedBytes, PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0);
  }
  bool offered = false;
  if (mapped != MAP_FAILED) {
    ring = static_cast<char*>(mapped);
    *counter(shared_ring::kMagicAt) = shared_ring::kMagic;
    *counter(shared_ring::kCapacityAt) = kCapacity;
    // Until the recorder says otherwise, it waits for a doorbell.
    *counter(shared_ring::kAsleepAt) = 1;
    offered = handOver(fd, memory);
  }
  // The recorder has its own descriptor now; the host never sees this one.
  True_close(memory);
  if (!offered) dropSharedRing();
  return offered;
}

bool writeToSharedRing(int fd, const char* text, unsigned length, int64_t deadlineNs) {
  char* bytes = ring + shared_ring::kHeaderBytes;
  uint64_t head = __atomic_load_n(counter(shared_ring::kHeadAt), __ATOMIC_RELAXED);
  unsigned done = 0;
  while (done < length) {
    const uint64_t used = head - __atomic_load_n(counter(shared_ring::kTailAt), __ATOMIC_ACQUIRE);
    // More in use than the ring holds is a tail the recorder had no business writing.
    if (used > kCapacity) {
      errno = EPROTO;
      return false;
    }
    if (used == kCapacity) {
      if (monotonicNs() >= deadlineNs) {
        errno = ETIMEDOUT;
        return false;
      }
      const timespec pause = {0, kRoomWaitNs};
      nanosleep(&pause, nullptr);
      continue;
    }
    const uint64_t room = kCapacity - used;
    const unsigned n = room < length - done ? static_cast<unsigned>(room) : length - done;
    const size_t at = static_cast<size_t>(head % kCapacity);
    const size_t first = n < kCapacity - at ? n : static_cast<size_t>(kCapacity - at);
    memcpy(bytes + at, text + done, first);
    memcpy(bytes, text + done + first, n - first);
    head += n;
    done += n;
    // Sequentially consistent with the recorder's going to sleep: either it sees this head
    // before it waits, or this sees that it waits.
    __atomic_store_n(counter(shared_ring::kHeadAt), head, __ATOMIC_SEQ_CST);
    if (__atomic_exchange_n(counter(shared_ring::kAsleepAt), 0, __ATOMIC_SEQ_CST) != 0 && !ringDoorbell(fd)) {
      return false;
    }
  }
  return true;
}

void dropSharedRing() {
  if (ring != nullptr) munmap(ring, kMappedBytes);
  ring = nullptr;
}
