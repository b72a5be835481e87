// A recording as a person reads it: one block per conversation, payloads as text or hex.
#pragma once

#include <stdio.h>

#include "conversations.h"

namespace talvex {

struct TranscriptOptions {
  bool full = false;        // every byte, however long
  size_t abbreviate = 512;  // otherwise, bytes shown per event
};

void writeTranscript(const Recording& recording, const TranscriptOptions& options, FILE* out);

}  // namespace talvex
