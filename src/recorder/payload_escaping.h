// The escaped text of a payload: each byte as itself, or as "\\", "\xNN" or "&#xNN;".
// Payloads are the bulk of what is recorded, so both functions go through plain text sixteen
// bytes at a time and through everything else one table entry per byte.
#pragma once

#include <stddef.h>
#include <stdint.h>

// The number of characters one byte takes once escaped.
unsigned escapedSize(unsigned char c);

// The escaped size of `n` bytes, in 64 bits so that a huge run cannot wrap it.
uint64_t escapedSizeOf(const unsigned char* bytes, size_t n);

// Writes the escaped form of `n` bytes at `out` and returns its end. `out` must have room for
// the escaped size plus kEscapeSlack bytes: each byte's escape is written as one 8-byte store.
char* escapeInto(char* out, const unsigned char* bytes, size_t n);
const unsigned kEscapeSlack = 8;
