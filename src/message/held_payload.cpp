#include "message/held_payload.h"

namespace {

char scratch[kPieceEscapeRoom];

}  // namespace

HeldPayloadWanted heldPayloadWanted = nullptr;

char* pieceScratch() { return scratch; }

bool PayloadPieces::next(size_t most, const unsigned char** bytes, size_t* n) {
  while (index_ < payload_.count && taken_ < payload_.limit) {
    const iovec& vector = payload_.list[index_];
    size_t left = vector.iov_base != nullptr ? vector.iov_len - offset_ : 0;
    if (left > payload_.limit - taken_) left = static_cast<size_t>(payload_.limit - taken_);
    if (left == 0) {
      ++index_;
      offset_ = 0;
      continue;
    }
    const size_t piece = left < most ? left : most;
    *bytes = static_cast<const unsigned char*>(vector.iov_base) + offset_;
    *n = piece;
    offset_ += piece;
    taken_ += piece;
    return true;
  }
  return false;
}

uint64_t escapedSizeOfHeld(const HeldPayload& payload) {
  PayloadPieces pieces(payload);
  const unsigned char* bytes;
  size_t n;
  uint64_t size = 0;
  while (pieces.next(static_cast<size_t>(-1), &bytes, &n)) size += escapedSizeOf(bytes, n);
  return size;
}
