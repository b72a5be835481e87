// Reading from a local connection, which may carry descriptors: an agent hands its shared ring
// over this way, with the connection's first byte.
#pragma once

#include <stddef.h>
#include <sys/types.h>

namespace talvex {

// Reads up to `size` bytes into `into`, as read() does. The first descriptor that came with them
// is handed back in `passed` (close-on-exec) if `passed` holds none yet; any other is closed at
// once, so that a peer cannot fill the recorder's table with descriptors.
ssize_t receiveWithDescriptor(int fd, char* into, size_t size, int* passed);

}  // namespace talvex
