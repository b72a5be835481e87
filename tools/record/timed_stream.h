// The bytes one side of a conversation sent, joined in order, with the time each send or receive
// that carried them happened: HTTP messages span the calls that carried them, and their timings
// come from the calls that carried their first and last bytes.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <utility>
#include <vector>

namespace talvex {

class TimedStream {
 public:
  void append(const std::string& data, int64_t timeNs);
  // The peer or the program ended this direction (an end of stream, a close): what is in it is
  // all there was, so a body delimited by the end is whole.
  void markEnded() { ended_ = true; }

  const std::string& bytes() const { return bytes_; }
  bool ended() const { return ended_; }
  // When the byte at `offset` was carried; at or beyond the end, the time of the last call.
  int64_t timeAt(size_t offset) const;

 private:
  std::string bytes_;
  std::vector<std::pair<size_t, int64_t>> marks_;  // where each call's bytes begin, its time
  bool ended_ = false;
};

}  // namespace talvex
