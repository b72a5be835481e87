#include "message/print_buffer.h"

#include "message/payload_escaping.h"

#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

namespace {

const unsigned kInitialCapacity = 8192;
const unsigned kGrowthStep = 8192;
// Past the text there is always room for its terminating NUL and for the escaper's last
// fixed-size store.
const unsigned kAppendMargin = 9;
static_assert(kAppendMargin >= kEscapeSlack, "room for the escaper's last store");
const unsigned kExpandMargin = 8;
const char kEmpty[1] = {'\0'};

// A few arrays of the initial capacity kept for the next messages, in slots shared by all
// threads: a message built after another takes one again instead of allocating. Taken and given
// back by atomic exchange, so that a message built by a signal handler in the middle of another,
// or on another thread, finds an array or allocates one, never the same as another message's.
// At most this many are kept, for the life of the process.
const int kSpareSlots = 8;
char* spareArrays[kSpareSlots];

char* takeArray() {
  for (char*& slot : spareArrays) {
    if (__atomic_load_n(&slot, __ATOMIC_RELAXED) == nullptr) continue;
    char* array = __atomic_exchange_n(&slot, nullptr, __ATOMIC_ACQ_REL);
    if (array != nullptr) return array;
  }
  return static_cast<char*>(malloc(kInitialCapacity));
}

void giveBack(char* array) {
  if (array == nullptr) return;
  for (char*& slot : spareArrays) {
    char* none = nullptr;
    if (__atomic_compare_exchange_n(&slot, &none, array, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED)) return;
  }
  free(array);
}

// Arrays larger than the C library's allocator ever keeps in its heap (its largest dynamic mmap
// threshold) are mapped whole and filled in by the kernel at once: malloc would map them afresh
// for every message too, then take a page fault for every page the encoder writes, a large share
// of the cost of encoding a payload of megabytes.
const unsigned kMappedCapacity = sizeof(long) == 4 ? 512u * 1024 : 32u * 1024 * 1024;

char* allocate(unsigned capacity) {
  if (capacity < kMappedCapacity) return static_cast<char*>(malloc(capacity));
  void* mapped = mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
  return mapped != MAP_FAILED ? static_cast<char*>(mapped) : nullptr;
}

// Frees an array, keeping it for a next message when it is of the initial size.
void release(char* array, unsigned capacity) {
  if (capacity == kInitialCapacity) {
    giveBack(array);
  } else if (capacity >= kMappedCapacity) {
    munmap(array, capacity);
  } else {
    free(array);
  }
}

}  // namespace

PrintBuffer::PrintBuffer()
    : data_(takeArray()), capacity_(kInitialCapacity), length_(0), complete_(true), held_(), holeAt_(0) {
  if (data_ != nullptr) {
    data_[0] = '\0';
  } else {
    capacity_ = 0;
    complete_ = false;
  }
}

PrintBuffer::~PrintBuffer() { release(data_, capacity_); }

bool PrintBuffer::reserve(uint64_t n, unsigned margin) {
  if (!complete_) return false;
  // Sizes past what 32 bits can count are refused rather than wrapped: the message is then
  // incomplete, and dropped whole rather than sent cut short.
  if (n > static_cast<uint64_t>(UINT32_MAX) - kGrowthStep - margin - length_) {
    complete_ = false;
    return false;
  }
  const unsigned need = length_ + static_cast<unsigned>(n) + margin;
  if (need < capacity_) return true;
  const unsigned newCapacity = (need / kGrowthStep) * kGrowthStep + kGrowthStep;
  char* grown = allocate(newCapacity);
  if (grown == nullptr) {
    complete_ = false;
    return false;
  }
  memcpy(grown, data_, length_);
  grown[length_] = '\0';
  release(data_, capacity_);
  data_ = grown;
  capacity_ = newCapacity;
  return true;
}

void PrintBuffer::append(const char* text, unsigned n) {
  if (text == nullptr) return;
  if (n == 0) n = static_cast<unsigned>(strlen(text));
  if (n == 0 || !reserve(n, kAppendMargin)) return;
  memcpy(data_ + length_, text, n);
  length_ += n;
  data_[length_] = '\0';
}

void PrintBuffer::appendDigits(uint64_t bits, int minimumDigits) {
  char digits[16];
  int count = 0;
  do {
    digits[15 - count++] = HexaTable[bits & 0xf];
    bits >>= 4;
  } while (bits != 0 && count < 16);
  while (count < minimumDigits) digits[15 - count++] = '0';
  append(digits + 16 - count, static_cast<unsigned>(count));
}

void PrintBuffer::append(int64_t value) { appendDigits(static_cast<uint64_t>(value), 1); }
void PrintBuffer::append(uint32_t value) { appendDigits(value, 1); }
void PrintBuffer::append(uint16_t value) { appendDigits(value, 4); }
void PrintBuffer::append(uint8_t value) { appendDigits(value, 2); }

void PrintBuffer::startData(RecorderMessageAttribute attribute, RecorderMessageAttributeType type) {
  append(" ", 1);
  append(attributeName(attribute), 0);
  append("_", 1);
  append(MARKER_RMAT[type], 2);
  append("=\"", 2);
}

void PrintBuffer::endData() { append("\"", 1); }

void PrintBuffer::appendEscaped(unsigned char c) {
  if (!reserve(escapedSize(c), kAppendMargin)) return;
  char* end = escapeInto(data_ + length_, &c, 1);
  length_ = static_cast<unsigned>(end - data_);
  data_[length_] = '\0';
}

void PrintBuffer::appendUnicode(const wchar_t* wide, unsigned n) {
  if (wide == nullptr) return;
  if (n == 0) n = static_cast<unsigned>(wcslen(wide));
  // Measured first, so that a long string makes the buffer grow once; in 64 bits, so that a huge
  // one cannot wrap the sum to a small size.
  uint64_t size = 0;
  for (unsigned i = 0; i < n; ++i) {
    const int32_t c = static_cast<int32_t>(wide[i]);
    size += c <= 255 ? escapedSize(static_cast<unsigned char>(c)) : 4;
  }
  if (size == 0 || !reserve(size, kAppendMargin)) return;
  char* out = data_ + length_;
  for (unsigned i = 0; i < n; ++i) {
    const int32_t c = static_cast<int32_t>(wide[i]);
    const unsigned char low = static_cast<unsigned char>(c);
    if (c <= 255) {
      out = escapeInto(out, &low, 1);
    } else {
      // Only the low 8 bits of a wide character survive: the recorder reads it that way.
      *out++ = '\\';
      *out++ = 'u';
      *out++ = HexaTable[low >> 4];
      *out++ = HexaTable[low & 0xf];
    }
  }
  length_ = static_cast<unsigned>(out - data_);
  data_[length_] = '\0';
}

void PrintBuffer::appendAttr(RecorderMessageAttribute attribute, int value) {
  startData(attribute, RMAT_I4);
  append(static_cast<uint32_t>(value));
  endData();
}

void PrintBuffer::appendAttr(RecorderMessageAttribute attribute, unsigned value) {
  startData(attribute, RMAT_U4);
  append(static_cast<uint32_t>(value));
  endData();
}

void PrintBuffer::appendAttr(RecorderMessageAttribute attribute, int64_t value) {
  startData(attribute, RMAT_I8);
  append(value);
  endData();
}

void PrintBuffer::escapeAt(const HeldPayload& payload, unsigned at) {
  const uint64_t size = escapedSizeOfHeld(payload);
  // The escape's last store may overshoot its end: at the end of the text the margin takes it,
  // and text that follows the hole waits past it until the escape is written, then closes up.
  const unsigned after = length_ - at;
  const unsigned gap = after != 0 ? kEscapeSlack : 0;
  if (size == 0 || !reserve(size + gap, kAppendMargin)) return;
  char* hole = data_ + at;
  if (after != 0) memmove(hole + size + gap, hole, after);
  PayloadPieces pieces(payload);
  const unsigned char* bytes;
  size_t n;
  char* out = hole;
  while (pieces.next(static_cast<size_t>(-1), &bytes, &n)) out = escapeInto(out, bytes, n);
  if (after != 0) memmove(hole + size, hole + size + gap, after);
  length_ += static_cast<unsigned>(size);
  data_[length_] = '\0';
}

void PrintBuffer::appendAttr(RecorderMessageAttribute attribute, const char* text, unsigned n) {
  if (text == nullptr) return;
  startData(attribute, RMAT_AS);
  if (n == 0) n = static_cast<unsigned>(strlen(text));
  // The common case, escaped at the end of the text in one call each for its size and its escape.
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text);
  const uint64_t size = escapedSizeOf(bytes, n);
  if (size != 0 && reserve(size, kAppendMargin)) {
    length_ = static_cast<unsigned>(escapeInto(data_ + length_, bytes, n) - data_);
    data_[length_] = '\0';
  }
  endData();
}

void PrintBuffer::appendAttr(RecorderMessageAttribute attribute, const wchar_t* wide, unsigned n) {
  if (wide == nullptr) return;
  startData(attribute, RMAT_UN);
  appendUnicode(wide, n);
  endData();
}

void PrintBuffer::appendAttr(RecorderMessageAttribute attribute, const iovec* list, unsigned count, uint64_t limit) {
  if (list == nullptr) return;
  startData(attribute, RMAT_AS);
  escapeAt(HeldPayload{list, count, limit, {nullptr, 0}}, length_);
  endData();
}

void PrintBuffer::hold(const iovec* list, unsigned count, uint64_t limit) {
  held_.list = list;
  held_.count = count;
  held_.limit = limit;
  holeAt_ = length_;
}

void PrintBuffer::appendHeldAttr(RecorderMessageAttribute attribute, const char* text, unsigned n) {
  if (holdsPayload() || text == nullptr || n == 0) {
    appendAttr(attribute, text, n);
    return;
  }
  startData(attribute, RMAT_AS);
  held_.single = {const_cast<char*>(text), n};
  hold(&held_.single, 1, n);
  endData();
}

void PrintBuffer::appendHeldAttr(RecorderMessageAttribute attribute, const iovec* list, unsigned count,
                                 uint64_t limit) {
  if (holdsPayload() || list == nullptr) {
    appendAttr(attribute, list, count, limit);
    return;
  }
  startData(attribute, RMAT_AS);
  hold(list, count, limit);
  endData();
}

void PrintBuffer::releasePayload() {
  if (!holdsPayload()) return;
  escapeAt(held_, holeAt_);
  held_ = HeldPayload();
}

OutgoingText PrintBuffer::outgoing() const {
  return OutgoingText{toString(), length_, holdsPayload() ? &held_ : nullptr, holeAt_};
}

void PrintBuffer::expand(unsigned n) { reserve(n, kExpandMargin); }

const char* PrintBuffer::toString() const { return data_ != nullptr ? data_ : kEmpty; }
