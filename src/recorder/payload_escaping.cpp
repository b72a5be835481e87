#include "recorder/payload_escaping.h"

#include <string.h>

#if defined(__i386__) || defined(__x86_64__)
#include <cpuid.h>
#include <emmintrin.h>
#define TALVEX_HAVE_SSE2_PATH 1
#endif

namespace {

// Every byte's escape in the low bytes of a little-endian 64-bit word and its length in the top
// byte, worked out by the compiler: escaping a byte is then one load, one store and one add, with
// no branch on the byte's class.
struct EscapeWords {
  uint64_t word[256];
};

constexpr char hexDigit(unsigned value) { return "0123456789abcdef"[value & 0xf]; }

constexpr EscapeWords buildEscapeWords() {
  EscapeWords table{};
  for (unsigned c = 0; c < 256; ++c) {
    char text[6] = {};
    unsigned n = 0;
    if (c == 0x09 || c == 0x0a || c == 0x22 || c == 0x26 || c == 0x3c) {
      text[n++] = '&';
      text[n++] = '#';
      text[n++] = 'x';
      text[n++] = hexDigit(c >> 4);
      text[n++] = hexDigit(c);
      text[n++] = ';';
    } else if (c == 0x5c) {
      text[n++] = '\\';
      text[n++] = '\\';
    } else if (c < 0x20 || c > 0x7e) {
      text[n++] = '\\';
      text[n++] = 'x';
      text[n++] = hexDigit(c >> 4);
      text[n++] = hexDigit(c);
    } else {
      text[n++] = static_cast<char>(c);
    }
    uint64_t word = static_cast<uint64_t>(n) << 56;
    for (unsigned k = 0; k < n; ++k) word |= static_cast<uint64_t>(static_cast<unsigned char>(text[k])) << (8 * k);
    table.word[c] = word;
  }
  return table;
}

constexpr EscapeWords kEscapes = buildEscapeWords();

inline unsigned sizeOf(unsigned char c) { return static_cast<unsigned>(kEscapes.word[c] >> 56); }

inline char* escapeOne(char* out, unsigned char c) {
#if defined(__x86_64__)
  const uint64_t word = kEscapes.word[c];
  memcpy(out, &word, 8);
  return out + (word >> 56);
#else
  // Two 32-bit halves: 64-bit arithmetic is a pair of registers on a 32-bit machine.
  uint32_t halves[2];
  memcpy(halves, &kEscapes.word[c], 8);
  memcpy(out, &halves[0], 4);
  memcpy(out + 4, &halves[1], 4);
  return out + (halves[1] >> 24);
#endif
}

uint64_t escapedSizeByTable(const unsigned char* bytes, size_t n) {
  uint64_t size = 0;
  for (size_t i = 0; i < n; ++i) size += sizeOf(bytes[i]);
  return size;
}

char* escapeByTable(char* out, const unsigned char* bytes, size_t n) {
  for (size_t i = 0; i < n; ++i) out = escapeOne(out, bytes[i]);
  return out;
}

#ifdef TALVEX_HAVE_SSE2_PATH

// Every x86-64 processor has SSE2; a 32-bit host might not, so there it is asked once.
bool haveSse2() {
#if defined(__x86_64__)
  return true;
#else
  // 0 not yet asked, 1 absent, 2 present. Two threads asking at once both get the same answer.
  static int known = 0;
  int answer = __atomic_load_n(&known, __ATOMIC_RELAXED);
  if (answer == 0) {
    unsigned a = 0, b = 0, c = 0, d = 0;
    answer = __get_cpuid(1, &a, &b, &c, &d) && (d & bit_SSE2) != 0 ? 2 : 1;
    __atomic_store_n(&known, answer, __ATOMIC_RELAXED);
  }
  return answer == 2;
#endif
}

// A mask of the bytes among 16 that need an escape, one bit each.
__attribute__((target("sse2"))) inline unsigned escapedBytesOf16(__m128i x) {
  // Signed compare: below 0x20 takes in 0x80-0xff too, which need escapes as well.
  __m128i m = _mm_or_si128(_mm_cmplt_epi8(x, _mm_set1_epi8(0x20)), _mm_cmpeq_epi8(x, _mm_set1_epi8(0x7f)));
  m = _mm_or_si128(m, _mm_cmpeq_epi8(x, _mm_set1_epi8(0x22)));
  m = _mm_or_si128(m, _mm_cmpeq_epi8(x, _mm_set1_epi8(0x26)));
  m = _mm_or_si128(m, _mm_cmpeq_epi8(x, _mm_set1_epi8(0x3c)));
  m = _mm_or_si128(m, _mm_cmpeq_epi8(x, _mm_set1_epi8(0x5c)));
  return static_cast<unsigned>(_mm_movemask_epi8(m));
}

__attribute__((target("sse2"))) uint64_t escapedSizeBySse2(const unsigned char* bytes, size_t n) {
  uint64_t size = 0;
  size_t i = 0;
  for (; i + 16 <= n; i += 16) {
    const unsigned mask = escapedBytesOf16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i)));
    if (mask == 0) {
      size += 16;
      continue;
    }
    unsigned even = 0, odd = 0;
    for (int k = 0; k < 16; k += 2) {
      even += sizeOf(bytes[i + k]);
      odd += sizeOf(bytes[i + k + 1]);
    }
    size += even + odd;
  }
  return size + escapedSizeByTable(bytes + i, n - i);
}

__attribute__((target("sse2"))) char* escapeBySse2(char* out, const unsigned char* bytes, size_t n) {
  size_t i = 0;
  for (; i + 16 <= n; i += 16) {
    const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i));
    if (escapedBytesOf16(x) == 0) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out), x);
      out += 16;
      continue;
    }
    for (int k = 0; k < 16; ++k) out = escapeOne(out, bytes[i + k]);
  }
  return escapeByTable(out, bytes + i, n - i);
}

#endif

}  // namespace

unsigned escapedSize(unsigned char c) { return sizeOf(c); }

uint64_t escapedSizeOf(const unsigned char* bytes, size_t n) {
#ifdef TALVEX_HAVE_SSE2_PATH
  if (haveSse2()) return escapedSizeBySse2(bytes, n);
#endif
  return escapedSizeByTable(bytes, n);
}

char* escapeInto(char* out, const unsigned char* bytes, size_t n) {
#ifdef TALVEX_HAVE_SSE2_PATH
  if (haveSse2()) return escapeBySse2(out, bytes, n);
#endif
  return escapeByTable(out, bytes, n);
}
