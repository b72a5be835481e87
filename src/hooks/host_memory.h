// Reading the host's memory without ever faulting. The agent looks at buffers and addresses the
// host handed to the C library, and the C library may well have refused them (EFAULT), read only
// part of them, or not looked at them at all (a send on a closed socket): a plain read of such a
// pointer would kill a host that runs fine without the agent.
#pragma once

#include <stddef.h>

// How many leading bytes of [address, address + length) can be read. `proven` is how many the C
// library itself has just read or written there; it is the answer where the kernel will not let
// the agent look (a seccomp profile that forbids process_vm_readv).
size_t readableBytes(const void* address, size_t length, size_t proven);

// Copies the readable leading part of [address, address + length) and says how long it was.
size_t copyHostBytes(void* destination, const void* address, size_t length, size_t proven);
