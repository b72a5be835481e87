// A payload a message refers to instead of holding its escape: the caller's bytes, read while the
// call that carries them runs (the message goes out before that call returns) and escaped
// straight to where the message goes. Through a shared ring, a large payload is then escaped into
// the ring itself, instead of into the message's own buffer first and copied from there, which
// took a sizing pass and a copy as large as the escape.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>

#include "message/payload_escaping.h"

struct HeldPayload {
  const iovec* list;  // null: nothing is held
  unsigned count;
  uint64_t limit;  // the bytes taken from the vectors in all
  iovec single;    // the list of a payload in one piece
};

// A message's text as it goes out: whole, or lacking a held payload's escape at `holeAt`.
struct OutgoingText {
  const char* text;
  unsigned length;
  const HeldPayload* payload;  // null: the text is whole
  unsigned holeAt;
};

// Payloads at least this long are held when a shared ring will take them; shorter ones cost less
// escaped at once than held.
const size_t kHeldPayloadBytes = 4096;
// Whether a message built now holds its large payload: the transport in use answers, and sets
// itself here when it is chosen (transport/transport_choice). Until then none is held.
typedef bool (*HeldPayloadWanted)();
extern HeldPayloadWanted heldPayloadWanted;
// A held payload is escaped a piece at a time: its escape fits the scratch buffer, and a ring
// reader sees the message's first pieces while the rest are escaped.
const size_t kPieceBytes = 16384;
const size_t kPieceEscapeRoom = 6 * kPieceBytes + kEscapeSlack;
// kPieceEscapeRoom bytes for the one writer that holds the channel's send lock.
char* pieceScratch();

// The held bytes a piece at a time, in order: each vector's bytes until `limit` bytes are taken
// in all; a null vector has none (the C library refused it too).
class PayloadPieces {
 public:
  explicit PayloadPieces(const HeldPayload& payload) : payload_(payload), index_(0), offset_(0), taken_(0) {}
  // The next piece, of at most `most` bytes; false when none is left.
  bool next(size_t most, const unsigned char** bytes, size_t* n);

 private:
  const HeldPayload& payload_;
  unsigned index_;
  size_t offset_;  // into the vector at index_
  uint64_t taken_;
};

// The escaped size of the whole payload.
uint64_t escapedSizeOfHeld(const HeldPayload& payload);

// Writes a message in order through the writer's two calls: text(const char*, size_t) for its
// text before and after the hole, piece(const unsigned char*, size_t) for each piece of a held
// payload, of at most kPieceBytes, to be escaped. False as soon as one of them is.
template <class Writer>
bool writeOutgoing(const OutgoingText& message, Writer& writer) {
  if (message.payload == nullptr) return writer.text(message.text, message.length);
  if (!writer.text(message.text, message.holeAt)) return false;
  PayloadPieces pieces(*message.payload);
  const unsigned char* bytes;
  size_t n;
  while (pieces.next(kPieceBytes, &bytes, &n)) {
    if (!writer.piece(bytes, n)) return false;
  }
  return writer.text(message.text + message.holeAt, message.length - message.holeAt);
}
