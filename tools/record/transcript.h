// A recording as a person reads it: one block per conversation, payloads as text or hex.
#pragma once

#include <stdio.h>

#include <string>

#include "conversations.h"
#include <stdint.h>

#include <vector>

#include "recorder_message_parser.h"

namespace talvex {

struct TranscriptOptions {
  bool full = false;        // every byte, however long
  size_t abbreviate = 512;  // otherwise, bytes shown per event
  std::string note;         // a line before the summary (what became of the command)
};

void writeTranscript(const Recording& recording, const TranscriptOptions& options, FILE* out);

// A time of day as the transcript and the live view show it: "14:03:07.123456", local time.
std::string clockTime(int64_t timeNs);
// "127.0.0.1:8080", "[::1]:8080", "?" when the address is unknown.
std::string endpointText(const Peer& peer);
// How a conversation opened, as its transcript block begins: "connect 127.0.0.1:40112 ->
// 127.0.0.1:8080 (0 ms) [TLS: plaintext from OpenSSL]".
std::string conversationHeadline(const Conversation& c);
// "resolved NAME -> A, B (FAMILY)", or "could not resolve NAME: EAI_NONAME: Name or service not
// known" for a failed one.
std::string resolutionSentence(const std::string& name, const std::string& family,
                               const std::vector<std::string>& addresses, int64_t resolverError);

}  // namespace talvex
