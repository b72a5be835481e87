// What the kernel says of a file, asked without the C library's stat family: its functions moved
// to symbol versions newer than the oldest C library the agent loads on.
#pragma once

#include <stdint.h>

struct FileStatus {
  uint32_t devMajor;
  uint32_t devMinor;
  uint64_t inode;
  uint32_t mode;
};

// The status of the open descriptor `descriptor`; false (errno set) when it cannot be had,
// ENOSYS on a kernel that lacks the call.
bool statusOfDescriptor(int descriptor, FileStatus* out);
// The same for a path, links followed.
bool statusOfPath(const char* path, FileStatus* out);
