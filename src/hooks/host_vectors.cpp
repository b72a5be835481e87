#include "hooks/host_vectors.h"

#include <stdlib.h>
#include <string.h>

#include "hooks/host_memory.h"

HostVectors::HostVectors(const msghdr* header, ssize_t moved)
    : list_(onStack_), count_(0), valid_(false), hostListNull_(false), requested_(0), readable_(0) {
  msghdr copy;
  const bool proven = moved >= 0;
  if (header == nullptr || copyHostBytes(&copy, header, sizeof copy, proven ? sizeof copy : 0) < sizeof copy) return;
  if (copy.msg_iovlen > kLargestVectorList || (copy.msg_iov == nullptr && copy.msg_iovlen != 0)) return;
  hostListNull_ = copy.msg_iov == nullptr;
  const size_t count = copy.msg_iovlen;
  if (count > static_cast<size_t>(kOnStack)) {
    list_ = static_cast<iovec*>(malloc(count * sizeof(iovec)));
    if (list_ == nullptr) {
      list_ = onStack_;
      return;
    }
  }
  const size_t listSize = count * sizeof(iovec);
  if (copyHostBytes(list_, copy.msg_iov, listSize, proven ? listSize : 0) < listSize) return;
  valid_ = true;
  uint64_t vouched = moved > 0 ? static_cast<uint64_t>(moved) : 0;
  bool cut = false;
  for (size_t i = 0; i < count; ++i) {
    requested_ += list_[i].iov_len;
    if (cut) continue;
    const size_t proof = vouched < list_[i].iov_len ? static_cast<size_t>(vouched) : list_[i].iov_len;
    const size_t readable = readableBytes(list_[i].iov_base, list_[i].iov_len, proof);
    vouched -= proof;
    if (readable < list_[i].iov_len) {
      list_[i].iov_len = readable;
      cut = true;
    }
    readable_ += readable;
    count_ = static_cast<int>(i + 1);
  }
}

HostVectors::~HostVectors() {
  if (list_ != onStack_) free(list_);
}
