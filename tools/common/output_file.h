// An output file written in large writes: whole, aligned blocks, or runs of a megabyte or more
// written from where they lie. The raw recording of a large transfer is three times the size of
// its payload; the file system takes it for about half the work when it comes in megabyte writes
// (large page-cache folios, one allocation each) rather than a message at a time. A partial block
// is held back for a moment when the recorder catches up with its peers, in case more comes, and
// written then: the file lags what arrived by at most one block and a fiftieth of a second.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <chrono>
#include <string>
#include <string_view>
#include <thread>

#include "byte_sink.h"

namespace talvex {

class OutputFile : public ByteSink {
 public:
  OutputFile() = default;
  ~OutputFile() override;
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Creates `path`, replacing what is there. False with `error` filled in.
  bool create(const std::string& path, std::string* error);
  bool isOpen() const { return fd_ >= 0; }
  void append(std::string_view bytes) override;
  // Bytes that stay valid until settle() is next called (a message in a shared ring): a run of
  // them that lie one after another in memory is written from where it lies once it is large,
  // in the same write as what is held, and copied like any other bytes when it is not.
  void appendLasting(std::string_view bytes) override;
  // Takes what appendLasting kept a view of: once this returns, the views may go.
  void settle() override;
  // Flushes what has been held back for kLongestHold; otherwise returns how long until it will
  // have been, or a negative duration when nothing is held.
  std::chrono::milliseconds flushWhenDue() override;
  // Flushes and closes; false if any write failed (what could not be written is dropped).
  bool close() override;

  static const size_t kBlock = 1u << 20;
  static constexpr std::chrono::milliseconds kLongestHold{20};
  static const uint64_t kAllocationStep = 64u << 20;
  // A run written from where it lies: the file system takes writes this large almost as cheaply
  // as whole blocks on block boundaries; smaller ones are cheaper gathered into a block.
  static const size_t kWrittenWhereItLies = kBlock;

 private:
  void writeHeld();
  // Writes both in order; on a failure the rest is dropped and the file marked failed.
  void writeOut(std::string_view first, std::string_view second);
  void removeEarlier(const std::string& path);
  // Allocates the file's blocks ahead of a write that ends at `end`, where that saves work.
  void allocateAhead(uint64_t end);

  int fd_ = -1;
  char* held_ = nullptr;  // kBlock bytes: what follows `written_` in the file
  size_t heldBytes_ = 0;
  uint64_t written_ = 0;
  std::chrono::steady_clock::time_point heldSince_;  // when the first byte held back came
  bool failed_ = false;
  bool preallocate_ = false;
  uint64_t allocatedTo_ = 0;  // blocks are allocated up to here
  std::string_view lasting_;  // what follows the held bytes, not yet copied
  std::thread remover_;  // unlinks an earlier run's file
};

}  // namespace talvex
