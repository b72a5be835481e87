#include "recorder/print_buffer.h"

#include <stdlib.h>
#include <string.h>

namespace {

const unsigned kInitialCapacity = 8192;
const unsigned kGrowthStep = 8192;
const unsigned kAppendMargin = 9;
const unsigned kExpandMargin = 8;
const char kEmpty[1] = {'\0'};

bool needsEntity(unsigned char c) { return c == 0x09 || c == 0x0a || c == 0x22 || c == 0x26 || c == 0x3c; }

}  // namespace

unsigned escapedSize(unsigned char c) {
  if (needsEntity(c)) return 6;  // &#xNN;
  if (c == 0x5c) return 2;       // two backslashes
  if (c < 0x20 || c > 0x7e) return 4;  // \xNN
  return 1;
}

PrintBuffer::PrintBuffer()
    : data_(static_cast<char*>(malloc(kInitialCapacity))), capacity_(kInitialCapacity), length_(0), complete_(true) {
  if (data_ != nullptr) {
    data_[0] = '\0';
  } else {
    capacity_ = 0;
    complete_ = false;
  }
}

PrintBuffer::~PrintBuffer() { free(data_); }

bool PrintBuffer::reserve(uint64_t n, unsigned margin) {
  if (!complete_) return false;
  // Sizes past what 32 bits can count are refused rather than wrapped: the message is then
  // incomplete, and dropped whole rather than sent cut short.
  if (n > static_cast<uint64_t>(UINT32_MAX) - kGrowthStep - margin - length_) {
    complete_ = false;
    return false;
  }
  const unsigned need = length_ + static_cast<unsigned>(n) + margin;
  if (need < capacity_) return true;
  const unsigned newCapacity = (need / kGrowthStep) * kGrowthStep + kGrowthStep;
  char* grown = static_cast<char*>(malloc(newCapacity));
  if (grown == nullptr) {
    complete_ = false;
    return false;
  }
  memcpy(grown, data_, length_);
  grown[length_] = '\0';
  free(data_);
  data_ = grown;
  capacity_ = newCapacity;
  return true;
}

void PrintBuffer::append(const char* text, unsigned n) {
  if (text == nullptr) return;
  if (n == 0) n = static_cast<unsigned>(strlen(text));
  if (n == 0 || !reserve(n, kAppendMargin)) return;
  memcpy(data_ + length_, text, n);
  length_ += n;
  data_[length_] = '\0';
}

void PrintBuffer::appendDigits(uint64_t bits, int minimumDigits) {
  char digits[16];
  int count = 0;
  do {
    digits[15 - count++] = HexaTable[bits & 0xf];
    bits >>= 4;
  } while (bits != 0 && count < 16);
  while (count < minimumDigits) digits[15 - count++] = '0';
  append(digits + 16 - count, static_cast<unsigned>(count));
}

void PrintBuffer::append(int64_t value) { appendDigits(static_cast<uint64_t>(value), 1); }
void PrintBuffer::append(uint32_t value) { appendDigits(value, 1); }
void PrintBuffer::append(uint16_t value) { appendDigits(value, 4); }
void PrintBuffer::append(uint8_t value) { appendDigits(value, 2); }

void PrintBuffer::startData(RecorderMessageAttribute attribute, RecorderMessageAttributeType type) {
  append(" ", 1);
  append(MARKER_RMA[attribute], 0);
  append("_", 1);
  append(MARKER_RMAT[type], 2);
  append("=\"", 2);
}

void PrintBuffer::endData() { append("\"", 1); }

char* PrintBuffer::writeEscaped(char* out, unsigned char c) {
  if (needsEntity(c)) {
    *out++ = '&';
    *out++ = '#';
    *out++ = 'x';
    *out++ = HexaTable[c >> 4];
    *out++ = HexaTable[c & 0xf];
    *out++ = ';';
  } else if (c == 0x5c) {
    *out++ = '\\';
    *out++ = '\\';
  } else if (c < 0x20 || c > 0x7e) {
    *out++ = '\\';
    *out++ = 'x';
    *out++ = HexaTable[c >> 4];
    *out++ = HexaTable[c & 0xf];
  } else {
    *out++ = static_cast<char>(c);
  }
  return out;
}

void PrintBuffer::appendEscaped(unsigned char c) {
  if (!reserve(escapedSize(c), kAppendMargin)) return;
  char* end = writeEscaped(data_ + length_, c);
  length_ = static_cast<unsigned>(end - data_);
  data_[length_] = '\0';
}

void PrintBuffer::appendUnicode(const wchar_t* wide, unsigned n) {
  if (wide == nullptr) return;
  if (n == 0) n = static_cast<unsigned>(wcslen(wide));
  // Measured first, so that a long string makes the buffer grow once; in 64 bits, so that a huge
  // one cannot wrap the sum to a small size.
  uint64_t size = 0;
  for (unsigned i = 0; i < n; ++i) {
    const int32_t c = static_cast<int32_t>(wide[i]);
    size += c <= 255 ? escapedSize(static_cast<unsigned char>(c)) : 4;
  }
  if (size == 0 || !reserve(size, kAppendMargin)) return;
  char* out = data_ + length_;
  for (unsigned i = 0; i < n; ++i) {
    const int32_t c = static_cast<int32_t>(wide[i]);
    const unsigned char low = static_cast<unsigned char>(c);
    if (c <= 255) {
      out = writeEscaped(out, low);
    } else {
      // Only the low 8 bits of a wide character survive: the recorder reads it that way.
      *out++ = '\\';
      *out++ = 'u';
      *out++ = HexaTable[low >> 4];
      *out++ = HexaTable[low & 0xf];
    }
  }
  length_ = static_cast<unsigned>(out - data_);
  data_[length_] = '\0';
}

void PrintBuffer::appendAttr(RecorderMessageAttribute attribute, int value) {
  startData(attribute, RMAT_I4);
  append(static_cast<uint32_t>(value));
  endData();
}

void PrintBuffer::appendAttr(RecorderMessageAttribute attribute, unsigned value) {
  startData(attribute, RMAT_U4);
  append(static_cast<uint32_t>(value));
  endData();
}

void PrintBuffer::appendAttr(RecorderMessageAttribute attribute, int64_t value) {
  startData(attribute, RMAT_I8);
  append(value);
  endData();
}

void PrintBuffer::appendAttr(RecorderMessageAttribute attribute, const char* text, unsigned n) {
  if (text == nullptr) return;
  startData(attribute, RMAT_AS);
  if (n == 0) n = static_cast<unsigned>(strlen(text));
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text);
  uint64_t size = 0;
  for (unsigned i = 0; i < n; ++i) size += escapedSize(bytes[i]);
  if (size != 0 && reserve(size, kAppendMargin)) {
    char* out = data_ + length_;
    for (unsigned i = 0; i < n; ++i) out = writeEscaped(out, bytes[i]);
    length_ = static_cast<unsigned>(out - data_);
    data_[length_] = '\0';
  }
  endData();
}

void PrintBuffer::appendAttr(RecorderMessageAttribute attribute, const wchar_t* wide, unsigned n) {
  if (wide == nullptr) return;
  startData(attribute, RMAT_UN);
  appendUnicode(wide, n);
  endData();
}

void PrintBuffer::appendAttr(RecorderMessageAttribute attribute, const iovec* list, unsigned count, uint64_t limit) {
  if (list == nullptr) return;
  startData(attribute, RMAT_AS);
  uint64_t size = 0;
  uint64_t taken = 0;
  for (unsigned i = 0; i < count && taken < limit; ++i) {
    const unsigned char* bytes = static_cast<const unsigned char*>(list[i].iov_base);
    if (bytes == nullptr) continue;  // nothing to read there; the C library refused it too
    for (size_t j = 0; j < list[i].iov_len && taken < limit; ++j, ++taken) size += escapedSize(bytes[j]);
  }
  if (size != 0 && reserve(size, kAppendMargin)) {
    char* out = data_ + length_;
    taken = 0;
    for (unsigned i = 0; i < count && taken < limit; ++i) {
      const unsigned char* bytes = static_cast<const unsigned char*>(list[i].iov_base);
      if (bytes == nullptr) continue;
      for (size_t j = 0; j < list[i].iov_len && taken < limit; ++j, ++taken) out = writeEscaped(out, bytes[j]);
    }
    length_ = static_cast<unsigned>(out - data_);
    data_[length_] = '\0';
  }
  endData();
}

void PrintBuffer::expand(unsigned n) { reserve(n, kExpandMargin); }

const char* PrintBuffer::toString() const { return data_ != nullptr ? data_ : kEmpty; }
