// The shared ring's layout, as the agent makes it and the recorder endpoint reads it: a header
// page, then the ring's bytes. Both counters only grow; a byte's place in the ring is its count
// modulo the capacity. The agent alone writes the head (what it has written), the recorder alone
// the tail (what it has taken), each on a cache line of its own. The recorder sets the asleep
// word before it waits; the agent, having written, takes it back to 0 and, if it was set, rings
// the doorbell on the connection: a recorder that is busy anyway is not woken once a message.
// The other way round, an agent that finds the ring full sets the writer-waiting word and waits
// on the low 32 bits of the tail (a futex, shared by both mappings); the recorder, having moved
// the tail, takes the word back to 0 and, if it was set, wakes it: room is used as soon as it is
// made, not after a fixed pause.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace shared_ring {

const uint64_t kMagic = 0x31474e4952585654ULL;  // "TVXRING1"
const size_t kHeaderBytes = 4096;
const size_t kMagicAt = 0;
const size_t kCapacityAt = 8;
const size_t kHeadAt = 64;
const size_t kTailAt = 128;
const size_t kAsleepAt = 192;
const size_t kWriterWaitingAt = 256;
// The recorder takes capacities that are powers of two within these bounds.
const uint64_t kSmallestCapacity = 64u << 10;
const uint64_t kLargestCapacity = 64u << 20;
// The one byte that goes with the ring's descriptor, as the first byte of the connection.
const char kOfferByte = '\x01';

// A header word, aligned as the header places it: a 32-bit compiler otherwise assumes four bytes
// and makes the atomic operations on it library calls.
typedef uint64_t __attribute__((aligned(8))) Word;

inline Word* wordAt(char* base, size_t at) { return reinterpret_cast<Word*>(base + at); }

}  // namespace shared_ring
