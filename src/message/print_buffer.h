// The growable text buffer one recorder message is encoded into, attribute by attribute.
#pragma once

#include <stdint.h>
#include <sys/uio.h>
#include <wchar.h>

#include "message/held_payload.h"
#include "message/recorder_vocabulary.h"

class PrintBuffer {
 public:
  PrintBuffer();
  ~PrintBuffer();
  PrintBuffer(const PrintBuffer&) = delete;
  PrintBuffer& operator=(const PrintBuffer&) = delete;

  // `n` 0 means the string length of `text`.
  void append(const char* text, unsigned n);
  // Bare lower-case hexadecimal digits, no prefix.
  void append(int64_t value);
  void append(uint32_t value);
  void append(uint16_t value);  // exactly 4 digits
  void append(uint8_t value);   // exactly 2 digits

  void startData(RecorderMessageAttribute attribute, RecorderMessageAttributeType type);
  void endData();
  void appendEscaped(unsigned char c);
  void appendUnicode(const wchar_t* wide, unsigned n);

  void appendAttr(RecorderMessageAttribute attribute, int value);
  void appendAttr(RecorderMessageAttribute attribute, unsigned value);
  void appendAttr(RecorderMessageAttribute attribute, int64_t value);
  void appendAttr(RecorderMessageAttribute attribute, const char* text, unsigned n);
  void appendAttr(RecorderMessageAttribute attribute, const wchar_t* wide, unsigned n);
  void appendAttr(RecorderMessageAttribute attribute, const iovec* list, unsigned count, uint64_t limit);
  // The same attributes with their bytes held by reference (see held_payload.h): the text then
  // lacks their escape at the hole until releasePayload() puts it there, or a writer does on its
  // way out. One payload is held at most; a second is escaped at once.
  void appendHeldAttr(RecorderMessageAttribute attribute, const char* text, unsigned n);
  void appendHeldAttr(RecorderMessageAttribute attribute, const iovec* list, unsigned count, uint64_t limit);
  bool holdsPayload() const { return held_.list != nullptr; }
  void releasePayload();
  OutgoingText outgoing() const;

  void expand(unsigned n);
  const char* toString() const;
  unsigned length() const { return length_; }
  unsigned capacity() const { return capacity_; }
  // False once an allocation failed: the text is then incomplete and must not be sent.
  bool complete() const { return complete_; }
  // Marks the text as incomplete: something that belongs in it could not be encoded.
  void abandon() { complete_ = false; }

 private:
  // Room for `n` more bytes plus `margin`, by the growth rule; false when memory is exhausted.
  bool reserve(uint64_t n, unsigned margin);
  void appendDigits(uint64_t bits, int minimumDigits);
  // Escapes `payload` into the text at `at`, moving what follows.
  void escapeAt(const HeldPayload& payload, unsigned at);
  void hold(const iovec* list, unsigned count, uint64_t limit);

  char* data_;
  unsigned capacity_;
  unsigned length_;
  bool complete_;
  HeldPayload held_;
  unsigned holeAt_;
};
