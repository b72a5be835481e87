// A recording as a person reads it: one block per conversation, payloads as text or hex.
#pragma once

#include <stdio.h>

#include <string>

#include "conversations.h"
#include "live_connections.h"
#include "recorder_message_parser.h"

namespace talvex {

struct TranscriptOptions {
  bool full = false;        // every byte, however long
  size_t abbreviate = 512;  // otherwise, bytes shown per event
  std::string note;         // a line before the summary (what became of the command)
};

void writeTranscript(const Recording& recording, const TranscriptOptions& options, FILE* out);

// One line for a message as it arrives, for the live view: when, which process and socket, what.
void writeLiveEvent(const ParsedMessage& message, const LiveConnection* connection, FILE* out);

}  // namespace talvex
