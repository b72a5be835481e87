#include "message_framing.h"

#include <string.h>

namespace talvex {

void MessageFraming::cut(Stream& stream) {
  sink_.onCut(stream.pending.size());
  pendingBytes_ -= stream.pending.size();
  stream.pending.release();
  stream.cutting = true;
}

void MessageFraming::deliverPending(Stream& stream) {
  pendingBytes_ -= stream.pending.size();
  sink_.onMessage(stream.pending.view(), false);
}

void MessageFraming::remove(uint64_t order) {
  const auto it = streams_.find(order);
  if (it == streams_.end()) return;
  Stream& stream = *it->second;
  if (!stream.cutting && !stream.pending.empty()) deliverPending(stream);
  streams_.erase(it);
}

// A message that came whole in one read is handed over where it lies, one that came in pieces
// from its stream's own storage, which is kept from message to message: framing allocates nothing
// per message. What a long message made that storage grow to is given back, so that one long
// message does not pin its size for the connection's life.
void MessageFraming::split(Stream& stream, const char* at, const char* end, bool lasting) {
  while (at < end) {
    const char* feed = static_cast<const char*>(memchr(at, '\n', static_cast<size_t>(end - at)));
    const char* stop = feed != nullptr ? feed + 1 : end;
    if (feed != nullptr && !stream.cutting && stream.pending.empty()) {
      sink_.onMessage(std::string_view(at, static_cast<size_t>(stop - at)), lasting);
      at = stop;
      continue;
    }
    if (!stream.cutting) {
      if (stream.pending.append(at, static_cast<size_t>(stop - at))) {
        pendingBytes_ += static_cast<size_t>(stop - at);
      } else {
        cut(stream);
      }
    }
    if (feed != nullptr) {
      if (!stream.cutting) {
        deliverPending(stream);
        stream.pending.clear(kKeptStorage);
      }
      stream.cutting = false;
    } else if (!stream.cutting && stream.pending.size() > longest_) {
      cut(stream);
    }
    at = stop;
  }
  if (stream.pending.empty()) stream.pending.clear(kKeptStorage);
  // Over the budget for all streams together: the longest unfinished message goes.
  while (pendingBytes_ > 4 * longest_) {
    Stream* largest = nullptr;
    for (const auto& entry : streams_) {
      if (largest == nullptr || entry.second->pending.size() > largest->pending.size()) largest = entry.second;
    }
    cut(*largest);
  }
}

char* MessageFraming::roomToReadInto(Stream& stream, size_t size) {
  // A short start (the last of many small messages in a read) is cheaper copied once more.
  if (stream.cutting || stream.pending.size() < size / 4) return nullptr;
  char* room = stream.pending.room(size);
  if (room == nullptr) cut(stream);
  return room;
}

const char* MessageFraming::takeReadInto(Stream& stream, const char* into, size_t n) {
  const char* feed = static_cast<const char*>(memchr(into, '\n', n));
  const size_t part = feed != nullptr ? static_cast<size_t>(feed + 1 - into) : n;
  stream.pending.commit(part);
  pendingBytes_ += part;
  if (feed != nullptr) {
    deliverPending(stream);
    // What came after the line feed lies past the message in the same storage, which is kept
    // until the caller has split it.
    stream.pending.clear(static_cast<size_t>(-1));
  } else if (stream.pending.size() > longest_) {
    cut(stream);
  }
  return into + part;
}

}  // namespace talvex
