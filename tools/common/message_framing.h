// Cuts each connection's bytes into messages at their line feeds (the encoding escapes any inside
// a value). Memory stays bounded whatever peers send: a message longer than the limit is cut
// (dropped up to its line feed) and reported, and when all unfinished messages together exceed
// four times the limit the longest is cut.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string_view>
#include <map>

#include "pending_message.h"

namespace talvex {

class MessageFraming {
 public:
  // What one connection has begun and not yet finished.
  struct Stream {
    PendingMessage pending;
    bool cutting = false;  // the rest of an over-long message is being skipped
  };

  // Where whole messages and cuts go.
  class Sink {
   public:
    // `lasting`: the message lies in a ring and stays there until the ring is settled; otherwise
    // it is valid for the call only.
    virtual void onMessage(std::string_view message, bool lasting) = 0;
    virtual void onCut(size_t bytesDropped) = 0;

   protected:
    ~Sink() = default;
  };

  explicit MessageFraming(Sink& sink) : sink_(sink) {}
  MessageFraming(const MessageFraming&) = delete;
  MessageFraming& operator=(const MessageFraming&) = delete;

  void setLongestMessage(size_t bytes) { longest_ = bytes; }

  // A connection's stream takes part in the budget from `add` to `remove`; `order` is the
  // connection's place among those taken, which decides between streams equally long.
  void add(uint64_t order, Stream* stream) { streams_.emplace(order, stream); }
  // At its end: a message cut short by its peer's end is delivered as it stands (better evidence
  // than none), and the stream leaves the budget.
  void remove(uint64_t order);

  // Splits bytes of a stream into messages. `lasting`: the bytes lie in a ring.
  void split(Stream& stream, const char* at, const char* end, bool lasting);

  // The rest of a long message begun in an earlier read is read where it continues, into the
  // stream's own storage: room for `size` bytes there, or null where the next read is better made
  // into a buffer of the caller's (nothing long pending, or no memory, which cuts the message).
  char* roomToReadInto(Stream& stream, size_t size);
  // `n` bytes were read into that room: what belongs to the pending message is taken into it
  // (delivering it at its line feed), and the rest, which still has to be split, begins at the
  // returned address.
  const char* takeReadInto(Stream& stream, const char* into, size_t n);

 private:
  // The storage a stream keeps between messages; a larger one is freed.
  static const size_t kKeptStorage = 1u << 20;

  void cut(Stream& stream);
  void deliverPending(Stream& stream);

  Sink& sink_;
  size_t longest_ = 64u << 20;
  size_t pendingBytes_ = 0;  // in all streams together
  std::map<uint64_t, Stream*> streams_;
};

}  // namespace talvex
