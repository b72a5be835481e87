// The escaped text of a payload: each byte as itself, or as "\\", "\xNN" or "&#xNN;".
// Payloads are the bulk of what is recorded, so both functions take the widest path the
// processor has: in the 64-bit agent 64 bytes at a time with AVX-512 (sixteen bytes that are
// themselves or "\xNN" are spread and squeezed into their escapes at once), 16 at a time with
// SSE2 through plain text, and one table entry per byte everywhere else.
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

// The paths, for tests and benches that hold each to the same output. escapeInto and
// escapedSizeOf take the fastest one available.
enum class EscapePath { kAvx512, kSse2, kTable };
bool escapePathAvailable(EscapePath path);
uint64_t escapedSizeOfBy(EscapePath path, const unsigned char* bytes, size_t n);
char* escapeIntoBy(EscapePath path, char* out, const unsigned char* bytes, size_t n);
