#include "timed_stream.h"

#include <algorithm>

namespace talvex {

void TimedStream::append(const std::string& data, int64_t timeNs) {
  if (data.empty()) return;
  marks_.emplace_back(bytes_.size(), timeNs);
  bytes_ += data;
}

int64_t TimedStream::timeAt(size_t offset) const {
  if (marks_.empty()) return 0;
  // The last call that began at or before the offset.
  auto after = std::upper_bound(marks_.begin(), marks_.end(), offset,
                                [](size_t o, const std::pair<size_t, int64_t>& mark) { return o < mark.first; });
  if (after == marks_.begin()) return marks_.front().second;
  return std::prev(after)->second;
}

}  // namespace talvex
