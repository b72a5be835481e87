// The vectors of a host's message header, as the agent may read them: the header and its vector
// list copied where they can be read, each vector cut to the bytes that can be read, and the list
// ended at the first vector cut short (a stream's later bytes cannot follow a hole).
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/uio.h>

class HostVectors {
 public:
  // `moved` is what the C library reports it sent or received (-1: nothing); it vouches for that
  // many bytes where the agent cannot look for itself.
  HostVectors(const msghdr* header, ssize_t moved);
  ~HostVectors();
  HostVectors(const HostVectors&) = delete;
  HostVectors& operator=(const HostVectors&) = delete;

  // False when the header or its vector list could not be read, or holds more than
  // kLargestVectorList vectors.
  bool valid() const { return valid_; }
  // Null when the host gave no vector list: its message then has no data at all.
  const iovec* list() const { return hostListNull_ ? nullptr : list_; }
  int count() const { return count_; }
  // The lengths the host gave, added up (what it asked to move).
  uint64_t requested() const { return requested_; }
  // The bytes that can be read, over all kept vectors.
  uint64_t readable() const { return readable_; }

 private:
  // More vectors than the kernel takes (IOV_MAX) are still read, so that a send it refused with
  // EMSGSIZE is recorded with what was asked; past this bound, the list (16 bytes a vector) is
  // not copied at all.
  static const size_t kLargestVectorList = 65536;
  static const int kOnStack = 16;
  iovec onStack_[kOnStack];
  iovec* list_;
  int count_;
  bool valid_;
  bool hostListNull_;
  uint64_t requested_;
  uint64_t readable_;
};
