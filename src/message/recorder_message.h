// One event for the recorder: a kind and its attributes, encoded as they are set.
#pragma once

#include <stdint.h>
#include <sys/uio.h>
#include <wchar.h>

#include "message/print_buffer.h"
#include "message/recorder_vocabulary.h"

class RecorderMessage {
 public:
  RecorderMessage(RecorderMessageKind kind, int32_t sequence);
  RecorderMessage(const RecorderMessage&) = delete;
  RecorderMessage& operator=(const RecorderMessage&) = delete;

  // "return" is kept, not written; "error" is written only when the kept return value is -1.
  void set(RecorderMessageAttribute attribute, int value);
  void setInt(RecorderMessageAttribute attribute, int value) { set(attribute, value); }
  void set(RecorderMessageAttribute attribute, int64_t value);
  void setInt64(RecorderMessageAttribute attribute, int64_t value) { set(attribute, value); }
  void set(RecorderMessageAttribute attribute, unsigned value);
  void setSizeT(RecorderMessageAttribute attribute, unsigned value) { set(attribute, value); }
  void set(RecorderMessageAttribute attribute, const char* text, int n);
  void set(RecorderMessageAttribute attribute, const wchar_t* wide, int n);
  void setiovect(RecorderMessageAttribute attribute, const iovec* list, int count, uint64_t limit);
  // Something that belongs in the message cannot be encoded: it is not to be sent.
  void abandon();

  void finish();
  void display() const;
  // The text and length of a message that holds no payload (see releasePayload).
  const char* toString() const;
  unsigned length() const;
  // The message as it goes out, a held payload's escape still to be written in its place.
  OutgoingText outgoing() const { return buffer_.outgoing(); }
  bool holdsPayload() const { return buffer_.holdsPayload(); }
  void releasePayload() { buffer_.releasePayload(); }
  bool complete() const;
  int32_t sequence() const { return sequence_; }

 private:
  template <class Value>
  void setSigned(RecorderMessageAttribute attribute, Value value);
  static bool holdsPayloadOf(RecorderMessageAttribute attribute, uint64_t bytes);

  PrintBuffer buffer_;
  int32_t sequence_;
  int64_t return_;
  int64_t error_;
};

// Messages that outlive the call that built them (the pending process message) live on the
// heap; the agent allocates them without the C++ runtime.
RecorderMessage* createRecorderMessage(RecorderMessageKind kind, int32_t sequence);
void destroyRecorderMessage(RecorderMessage* message);
