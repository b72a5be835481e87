// A ring an agent shares with the recorder, mapped once its descriptor has been checked, and read
// from what the recorder has taken (its tail) to what the agent has written (its head).
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string_view>

namespace talvex {

class RingMapping {
 public:
  RingMapping() = default;
  ~RingMapping() { unmap(); }
  RingMapping(RingMapping&& other) noexcept;
  RingMapping(const RingMapping&) = delete;
  RingMapping& operator=(const RingMapping&) = delete;
  RingMapping& operator=(RingMapping&&) = delete;

  // Maps the ring behind `fd`, which is closed in any case. False for anything but a ring as the
  // agent makes them: a memfd sealed against shrinking (else the peer could make the recorder's
  // reads fault), of a size the header agrees with.
  bool map(int fd);
  bool mapped() const { return base_ != nullptr; }
  // What was written and not yet taken, in up to two spans (the second from the ring's start).
  // False when the agent's head is not to be believed.
  bool unread(std::string_view* first, std::string_view* second) const;
  // The first `n` unread bytes are taken: the agent may write over them.
  void take(uint64_t n);
  bool hasUnread() const;
  // Asks the agent for a doorbell with its next write; says whether something was written
  // already, which no doorbell will announce.
  bool askForDoorbell();

 private:
  void unmap();

  char* base_ = nullptr;
  size_t size_ = 0;
  uint64_t capacity_ = 0;
  uint64_t tail_ = 0;
};

}  // namespace talvex
