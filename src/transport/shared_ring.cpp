#include "transport/shared_ring.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "base/monotonic_clock.h"
#include "base/symbol_versions.h"
#include "base/variable_names.h"
#include "message/held_payload.h"
#include "real/real_functions.h"
#include "transport/shared_ring_layout.h"

// The first fcntl of each ABI: the agent loads on C libraries older than the one it is built on.
__asm__(".symver fcntl,fcntl@" TALVEX_GLIBC_FIRST);

const char* const kSharedRingVariable = TALVEX_VAR_SHARED_RING;

namespace {

// Large enough that a recorder busy for a moment does not hold the host up, small enough that a
// process and its forked children do not pin much memory (pages are taken as they are written).
const uint64_t kCapacity = 4u << 20;
const size_t kMappedBytes = shared_ring::kHeaderBytes + kCapacity;
// The longest the host waits at a time for the recorder to make room; the recorder wakes it
// sooner, as soon as it has.
const int64_t kRoomWaitNs = 1000 * 1000;

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

// Asked without the send lock, by a thread deciding how to build its message: an answer that is
// out of date by the time the message goes costs only the way it is written.
bool sharedRingActive() { return __atomic_load_n(&ring, __ATOMIC_RELAXED) != nullptr; }

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
    __atomic_store_n(&ring, static_cast<char*>(mapped), __ATOMIC_RELAXED);
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

namespace {

// Writes at the ring's head. What it writes is made visible to the recorder when the message is
// whole, or when the ring is full of it: a recorder that sees whole messages hands them on where
// they lie, one that sees a part of one copies it aside until the rest comes.
class RingWriter {
 public:
  RingWriter(int fd, int64_t deadlineNs)
      : fd_(fd),
        deadlineNs_(deadlineNs),
        head_(__atomic_load_n(counter(shared_ring::kHeadAt), __ATOMIC_RELAXED)),
        published_(head_) {}

  bool text(const char* from, size_t length) {
    while (length != 0) {
      char* at;
      const size_t room = waitForRoom(&at);
      if (room == 0) return false;
      const size_t n = room < length ? room : length;
      memcpy(at, from, n);
      from += n;
      length -= n;
      head_ += n;
    }
    return true;
  }

  // One piece of a payload, of at most kPieceBytes, escaped where it goes when the room at the
  // head takes its escape (and the escaper's overshoot), else through the scratch buffer.
  bool piece(const unsigned char* bytes, size_t n) {
    char* at;
    const size_t room = waitForRoom(&at);
    if (room == 0) return false;
    if (room >= 6 * n + kEscapeSlack || room >= escapedSizeOf(bytes, n) + kEscapeSlack) {
      head_ += static_cast<size_t>(escapeInto(at, bytes, n) - at);
      return true;
    }
    char* scratch = pieceScratch();
    return text(scratch, static_cast<size_t>(escapeInto(scratch, bytes, n) - scratch));
  }

  // Until the recorder moves the tail on from where it leaves this full ring, or for `leftNs`.
  void waitForTail(int64_t leftNs) {
    const uint64_t tail = head_ - kCapacity;
    shared_ring::Word* tailWord = counter(shared_ring::kTailAt);
    __atomic_store_n(counter(shared_ring::kWriterWaitingAt), 1, __ATOMIC_SEQ_CST);
    if (__atomic_load_n(tailWord, __ATOMIC_SEQ_CST) != tail) return;
    const int64_t waitNs = leftNs < kRoomWaitNs ? leftNs : kRoomWaitNs;
    const timespec timeout = {0, static_cast<long>(waitNs > 0 ? waitNs : 0)};
    // The tail's low half, where a little-endian machine keeps it.
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(tailWord), FUTEX_WAIT, static_cast<uint32_t>(tail), &timeout, nullptr, 0);
  }

  bool publish() {
    if (published_ == head_) return true;
    published_ = head_;
    // Sequentially consistent with the recorder's going to sleep: either it sees this head
    // before it waits, or this sees that it waits.
    __atomic_store_n(counter(shared_ring::kHeadAt), head_, __ATOMIC_SEQ_CST);
    return __atomic_exchange_n(counter(shared_ring::kAsleepAt), 0, __ATOMIC_SEQ_CST) == 0 || ringDoorbell(fd_);
  }

 private:
  // The free bytes that follow the head without wrapping, waiting within the deadline while there
  // are none; 0 with errno set when there will be none.
  size_t waitForRoom(char** at) {
    for (;;) {
      const uint64_t used = head_ - __atomic_load_n(counter(shared_ring::kTailAt), __ATOMIC_ACQUIRE);
      // More in use than the ring holds is a tail the recorder had no business writing.
      if (used > kCapacity) {
        errno = EPROTO;
        return 0;
      }
      if (used < kCapacity) {
        const size_t offset = static_cast<size_t>(head_ % kCapacity);
        const uint64_t toEnd = kCapacity - offset;
        *at = ring + shared_ring::kHeaderBytes + offset;
        return static_cast<size_t>(kCapacity - used < toEnd ? kCapacity - used : toEnd);
      }
      // Full, and only the recorder can make room: it must see what is there.
      if (!publish()) return 0;
      if (monotonicNs() >= deadlineNs_) {
        errno = ETIMEDOUT;
        return 0;
      }
      waitForTail(deadlineNs_ - monotonicNs());
    }
  }

  const int fd_;
  const int64_t deadlineNs_;
  uint64_t head_;
  uint64_t published_;
};

}  // namespace

bool writeToSharedRing(int fd, const OutgoingText& message, int64_t deadlineNs) {
  RingWriter writer(fd, deadlineNs);
  return writeOutgoing(message, writer) && writer.publish();
}

void dropSharedRing() {
  if (ring != nullptr) munmap(ring, kMappedBytes);
  __atomic_store_n(&ring, static_cast<char*>(nullptr), __ATOMIC_RELAXED);
}
