#include "message/recorder_message.h"

#include <new>
#include <stdlib.h>

#include "diag/debug_log.h"

// The buffer lives inside the message: building one costs no allocation of its own.
RecorderMessage::RecorderMessage(RecorderMessageKind kind, int32_t sequence)
    : sequence_(sequence), return_(0), error_(0) {
  buffer_.append("<", 1);
  buffer_.append(kindName(kind), 0);
}

// "return" is only kept; "error" is kept and written only after a return value of -1; anything
// else is written at once, at the width of the value's type.
template <class Value>
void RecorderMessage::setSigned(RecorderMessageAttribute attribute, Value value) {
  if (attribute == RMA_RETURN) {
    return_ = value;
    return;
  }
  if (attribute == RMA_ERROR) {
    error_ = value;
    if (return_ != -1) return;
  }
  buffer_.appendAttr(attribute, value);
}

void RecorderMessage::set(RecorderMessageAttribute attribute, int value) { setSigned(attribute, value); }
void RecorderMessage::set(RecorderMessageAttribute attribute, int64_t value) { setSigned(attribute, value); }

void RecorderMessage::set(RecorderMessageAttribute attribute, unsigned value) {
  buffer_.appendAttr(attribute, value);
}

// A large payload bound for a transport that escapes it on its way (a shared ring) is not escaped
// into this buffer first.
bool RecorderMessage::holdsPayloadOf(RecorderMessageAttribute attribute, uint64_t bytes) {
  return attribute == RMA_DATA && bytes >= kHeldPayloadBytes && heldPayloadWanted != nullptr && heldPayloadWanted();
}

void RecorderMessage::set(RecorderMessageAttribute attribute, const char* text, int n) {
  if (n < 0 || text == nullptr) return;
  if (holdsPayloadOf(attribute, static_cast<unsigned>(n))) {
    buffer_.appendHeldAttr(attribute, text, static_cast<unsigned>(n));
  } else {
    buffer_.appendAttr(attribute, text, static_cast<unsigned>(n));
  }
}

void RecorderMessage::set(RecorderMessageAttribute attribute, const wchar_t* wide, int n) {
  if (n < 0 || wide == nullptr) return;
  buffer_.appendAttr(attribute, wide, static_cast<unsigned>(n));
}

void RecorderMessage::abandon() { buffer_.abandon(); }

void RecorderMessage::setiovect(RecorderMessageAttribute attribute, const iovec* list, int count, uint64_t limit) {
  if (list == nullptr) return;
  const unsigned vectors = count > 0 ? static_cast<unsigned>(count) : 0u;
  if (holdsPayloadOf(attribute, limit)) {
    buffer_.appendHeldAttr(attribute, list, vectors, limit);
  } else {
    buffer_.appendAttr(attribute, list, vectors, limit);
  }
}

void RecorderMessage::finish() {
  buffer_.append("/>", 2);
  // The log line shows the message whole.
  if (buffer_.holdsPayload() && logLineWanted(DMK_DATA)) buffer_.releasePayload();
  x_disp(DMK_DATA, "[%d]%s", sequence_, buffer_.toString());
  buffer_.append("\n", 1);
}

void RecorderMessage::display() const { x_disp(DMK_DATA, "[%d]%s", sequence_, toString()); }

const char* RecorderMessage::toString() const { return buffer_.toString(); }
unsigned RecorderMessage::length() const { return buffer_.length(); }
bool RecorderMessage::complete() const { return buffer_.complete(); }

RecorderMessage* createRecorderMessage(RecorderMessageKind kind, int32_t sequence) {
  void* memory = malloc(sizeof(RecorderMessage));
  return memory != nullptr ? new (memory) RecorderMessage(kind, sequence) : nullptr;
}

void destroyRecorderMessage(RecorderMessage* message) {
  if (message == nullptr) return;
  message->~RecorderMessage();
  free(message);
}
