#include "ring_mapping.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <stdint.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "transport/shared_ring_layout.h"

namespace talvex {

RingMapping::RingMapping(RingMapping&& other) noexcept
    : base_(other.base_), size_(other.size_), capacity_(other.capacity_), tail_(other.tail_) {
  other.base_ = nullptr;
  other.size_ = 0;
}

bool RingMapping::map(int fd) {
  unmap();
  struct stat status;
  const int seals = fcntl(fd, F_GET_SEALS);
  const bool usable = fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && seals >= 0 && (seals & F_SEAL_SHRINK) != 0 &&
                      status.st_size >= static_cast<off_t>(shared_ring::kHeaderBytes + shared_ring::kSmallestCapacity) &&
                      status.st_size <= static_cast<off_t>(shared_ring::kHeaderBytes + shared_ring::kLargestCapacity);
  void* mapped = MAP_FAILED;
  if (usable) mapped = mmap(nullptr, static_cast<size_t>(status.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (mapped == MAP_FAILED) return false;
  base_ = static_cast<char*>(mapped);
  size_ = static_cast<size_t>(status.st_size);
  capacity_ = __atomic_load_n(shared_ring::wordAt(base_, shared_ring::kCapacityAt), __ATOMIC_RELAXED);
  const bool ring = __atomic_load_n(shared_ring::wordAt(base_, shared_ring::kMagicAt), __ATOMIC_RELAXED) == shared_ring::kMagic &&
                    capacity_ == size_ - shared_ring::kHeaderBytes && (capacity_ & (capacity_ - 1)) == 0;
  if (!ring) {
    unmap();
    return false;
  }
  // Nothing is taken yet, whatever the header says.
  tail_ = 0;
  __atomic_store_n(shared_ring::wordAt(base_, shared_ring::kTailAt), tail_, __ATOMIC_RELEASE);
  return true;
}

bool RingMapping::unread(std::string_view* first, std::string_view* second) const {
  const uint64_t head = __atomic_load_n(shared_ring::wordAt(base_, shared_ring::kHeadAt), __ATOMIC_ACQUIRE);
  const uint64_t written = head - tail_;
  if (written > capacity_) return false;
  const char* bytes = base_ + shared_ring::kHeaderBytes;
  const size_t at = static_cast<size_t>(tail_ & (capacity_ - 1));
  const size_t toEnd = static_cast<size_t>(capacity_) - at;
  const size_t n = static_cast<size_t>(written);
  *first = std::string_view(bytes + at, n < toEnd ? n : toEnd);
  *second = std::string_view(bytes, n < toEnd ? 0 : n - toEnd);
  return true;
}

void RingMapping::take(uint64_t n) {
  tail_ += n;
  // Sequentially consistent with the agent's going to wait for room: either it sees this tail
  // before it waits, or this sees that it waits.
  __atomic_store_n(shared_ring::wordAt(base_, shared_ring::kTailAt), tail_, __ATOMIC_SEQ_CST);
  shared_ring::Word* waiting = shared_ring::wordAt(base_, shared_ring::kWriterWaitingAt);
  if (__atomic_load_n(waiting, __ATOMIC_SEQ_CST) != 0 && __atomic_exchange_n(waiting, 0, __ATOMIC_SEQ_CST) != 0) {
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(shared_ring::wordAt(base_, shared_ring::kTailAt)), FUTEX_WAKE, 1,
            nullptr, nullptr, 0);
  }
}

bool RingMapping::hasUnread() const {
  return __atomic_load_n(shared_ring::wordAt(base_, shared_ring::kHeadAt), __ATOMIC_ACQUIRE) != tail_;
}

bool RingMapping::askForDoorbell() {
  __atomic_store_n(shared_ring::wordAt(base_, shared_ring::kAsleepAt), 1, __ATOMIC_SEQ_CST);
  return __atomic_load_n(shared_ring::wordAt(base_, shared_ring::kHeadAt), __ATOMIC_SEQ_CST) != tail_;
}

void RingMapping::unmap() {
  if (base_ != nullptr) munmap(base_, size_);
  base_ = nullptr;
  size_ = 0;
}

}  // namespace talvex
