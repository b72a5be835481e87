// The start of a message whose line feed has not come yet, with room for the rest to be read
// straight into it: a message longer than one read is copied once on its way, not once per read
// and again when it is whole. Growth doubles, so a long message costs linear time; running out
// of memory is an answer (false, or no room), never an abort.
#pragma once

#include <stdlib.h>
#include <string.h>

#include <string_view>

namespace talvex {

class PendingMessage {
 public:
  PendingMessage() = default;
  ~PendingMessage() { free(data_); }
  PendingMessage(PendingMessage&& other) noexcept : data_(other.data_), size_(other.size_), capacity_(other.capacity_) {
    other.data_ = nullptr;
    other.size_ = other.capacity_ = 0;
  }
  PendingMessage(const PendingMessage&) = delete;
  PendingMessage& operator=(const PendingMessage&) = delete;
  PendingMessage& operator=(PendingMessage&&) = delete;

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  std::string_view view() const { return std::string_view(data_, size_); }

  // `bytes` may lie in this message's own room past its end (what a read brought after a line
  // feed): the room is never reallocated for them, and they are moved, not copied.
  bool append(const char* bytes, size_t n) {
    if (!reserve(size_ + n)) return false;
    memmove(data_ + size_, bytes, n);
    size_ += n;
    return true;
  }
  // Room for `n` more bytes past the end, or null when there is no memory for it.
  char* room(size_t n) { return reserve(size_ + n) ? data_ + size_ : nullptr; }
  // The first `n` bytes of the room are now part of the message.
  void commit(size_t n) { size_ += n; }
  // Empties the message; its storage stays, unless it is larger than `kept`.
  void clear(size_t kept) {
    size_ = 0;
    if (capacity_ > kept) release();
  }
  void release() {
    free(data_);
    data_ = nullptr;
    size_ = capacity_ = 0;
  }

 private:
  bool reserve(size_t need) {
    if (need <= capacity_) return true;
    size_t grown = capacity_ < 4096 ? 4096 : capacity_;
    while (grown < need) {
      if (grown > static_cast<size_t>(-1) / 2) return false;
      grown *= 2;
    }
    char* moved = static_cast<char*>(realloc(data_, grown));
    if (moved == nullptr) return false;
    data_ = moved;
    capacity_ = grown;
    return true;
  }

  char* data_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

}  // namespace talvex
