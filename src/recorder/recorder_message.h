// One event for the recorder: a kind and its attributes, encoded as they are set.
#pragma once

#include <stdint.h>
#include <sys/uio.h>
#include <wchar.h>

#include "recorder/print_buffer.h"
#include "recorder/recorder_vocabulary.h"

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
  const char* toString() const;
  unsigned length() const;
  bool complete() const;
  int32_t sequence() const { return sequence_; }

 private:
  template <class Value>
  void setSigned(RecorderMessageAttribute attribute, Value value);

  PrintBuffer buffer_;
  int32_t sequence_;
  int64_t return_;
  int64_t error_;
};

// Messages that outlive the call that built them (the pending process message) live on the
// heap; the agent allocates them without the C++ runtime.
RecorderMessage* createRecorderMessage(RecorderMessageKind kind, int32_t sequence);
void destroyRecorderMessage(RecorderMessage* message);
