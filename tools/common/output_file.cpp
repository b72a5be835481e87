#include "output_file.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>

namespace talvex {

OutputFile::~OutputFile() { close(); }

void OutputFile::removeEarlier(const std::string& path) {
  // Freeing a large file's pages takes a while, and is done by whoever drops the file's last
  // reference. The file is moved aside under a name nobody uses and unlinked there on a thread
  // of its own, while the command starts. A descriptor held open for that thread to close would
  // not do: the command, forked meanwhile, inherits it, and its exec would then free the pages on
  // the command's own time.
  static unsigned moved = 0;
  const std::string aside = path + ".talvex-old-" + std::to_string(getpid()) + "-" + std::to_string(++moved);
  if (renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) == 0) {
    try {
      remover_ = std::thread([aside] { unlink(aside.c_str()); });
      return;
    } catch (...) {
      unlink(aside.c_str());  // no thread to be had: freed here after all
      return;
    }
  }
  unlink(path.c_str());
}

bool OutputFile::create(const std::string& path, std::string* error) {
  close();
  failed_ = false;
  written_ = 0;
  heldBytes_ = 0;
  // A file of ours from an earlier run is unlinked rather than truncated: ext4 writes back the
  // whole of a file that was truncated to nothing as soon as it is closed, which for a large
  // recording costs more than writing it did. Anything else (a link to elsewhere, a file with other
  // names, a device, a pipe) is opened where it is, as any program would.
  struct stat existing;
  if (lstat(path.c_str(), &existing) == 0 && S_ISREG(existing.st_mode) && existing.st_nlink == 1) removeEarlier(path);
  fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd_ < 0) {
    *error = "cannot write " + path + ": " + strerror(errno);
    return false;
  }
  // ext4 takes a write into blocks allocated ahead (a block map already there, no delayed
  // allocation to account for each page) for about two thirds of the work. On tmpfs allocating
  // ahead costs more than it saves: pages are cleared first, then written over.
  struct statfs system;
  struct stat created;
  preallocate_ = fstatfs(fd_, &system) == 0 && system.f_type == EXT4_SUPER_MAGIC && fstat(fd_, &created) == 0 &&
                 S_ISREG(created.st_mode);
  allocatedTo_ = 0;
  held_ = static_cast<char*>(malloc(kBlock));
  if (held_ == nullptr) {
    *error = "cannot write " + path + ": out of memory";
    ::close(fd_);
    fd_ = -1;
    return false;
  }
  return true;
}

void OutputFile::append(std::string_view bytes) {
  if (fd_ < 0) return;
  settle();
  while (!bytes.empty()) {
    // Filled up to the next block boundary of the file, never past it.
    const size_t room = kBlock - static_cast<size_t>((written_ + heldBytes_) % kBlock);
    const size_t take = std::min(room, bytes.size());
    if (heldBytes_ == 0) heldSince_ = std::chrono::steady_clock::now();
    memcpy(held_ + heldBytes_, bytes.data(), take);
    heldBytes_ += take;
    bytes.remove_prefix(take);
    if (take == room) writeHeld();
  }
}

void OutputFile::appendLasting(std::string_view bytes) {
  if (fd_ < 0) return;
  if (!lasting_.empty() && lasting_.data() + lasting_.size() == bytes.data()) {
    lasting_ = std::string_view(lasting_.data(), lasting_.size() + bytes.size());
    return;
  }
  settle();
  lasting_ = bytes;
}

void OutputFile::settle() {
  if (lasting_.empty()) return;
  const std::string_view run = lasting_;
  lasting_ = std::string_view();
  if (run.size() < kWrittenWhereItLies) {
    append(run);
    return;
  }
  writeOut(std::string_view(held_, heldBytes_), run);
}

std::chrono::milliseconds OutputFile::flushWhenDue() {
  settle();
  if (fd_ < 0 || heldBytes_ == 0) return std::chrono::milliseconds(-1);
  const auto held = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - heldSince_);
  if (held < kLongestHold) return kLongestHold - held;
  writeHeld();
  return std::chrono::milliseconds(-1);
}

void OutputFile::allocateAhead(uint64_t end) {
  while (preallocate_ && end > allocatedTo_) {
    // Past the end of the file, which keeps its size: what is not written is given back at close.
    if (fallocate(fd_, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(allocatedTo_), static_cast<off_t>(kAllocationStep)) != 0) {
      preallocate_ = false;  // not supported, or the disk is nearly full: written as it comes
      return;
    }
    allocatedTo_ += kAllocationStep;
  }
}

void OutputFile::writeHeld() { writeOut(std::string_view(held_, heldBytes_), std::string_view()); }

void OutputFile::writeOut(std::string_view first, std::string_view second) {
  const uint64_t end = written_ + first.size() + second.size();
  allocateAhead(end);
  iovec parts[2] = {{const_cast<char*>(first.data()), first.size()}, {const_cast<char*>(second.data()), second.size()}};
  iovec* next = parts;
  int left = 2;
  while (left > 0 && !failed_) {
    if (next->iov_len == 0) {
      ++next;
      --left;
      continue;
    }
    const ssize_t n = writev(fd_, next, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      failed_ = true;
      break;
    }
    size_t done = static_cast<size_t>(n);
    while (left > 0 && done >= next->iov_len) {
      done -= next->iov_len;
      ++next;
      --left;
    }
    if (left > 0) {
      next->iov_base = static_cast<char*>(next->iov_base) + done;
      next->iov_len -= done;
    }
  }
  written_ = end;
  heldBytes_ = 0;
}

bool OutputFile::close() {
  // The earlier file must be gone before this process can end, or its aside name would stay.
  if (remover_.joinable()) remover_.join();
  if (fd_ < 0) return !failed_;
  settle();
  writeHeld();
  // Blocks allocated past what was written go back; the size stays what was written.
  struct stat written;
  if (allocatedTo_ != 0 && fstat(fd_, &written) == 0 && ftruncate(fd_, written.st_size) != 0) failed_ = true;
  if (::close(fd_) != 0) failed_ = true;
  fd_ = -1;
  free(held_);
  held_ = nullptr;
  return !failed_;
}

}  // namespace talvex
