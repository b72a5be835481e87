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

// Sums what each byte adds to its own one character, sixteen bytes at a time: 3 for "\xNN",
// 5 for "&#xNN;" (tab and line feed are below 0x20 too, so they take 3 + 2), 1 for "\\". The
// per-lane sums stay below 256 for kLaneRounds rounds before they are folded into the total.
__attribute__((target("sse2"))) uint64_t escapedSizeBySse2(const unsigned char* bytes, size_t n) {
  const int kLaneRounds = 48;  // 48 x 5 < 256
  const __m128i zero = _mm_setzero_si128();
  uint64_t extra = 0;
  size_t i = 0;
  while (i + 16 <= n) {
    __m128i lanes = zero;
    for (int round = 0; round < kLaneRounds && i + 16 <= n; ++round, i += 16) {
      const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i));
      const __m128i control =
          _mm_or_si128(_mm_cmplt_epi8(x, _mm_set1_epi8(0x20)), _mm_cmpeq_epi8(x, _mm_set1_epi8(0x7f)));
      const __m128i whitespace =
          _mm_or_si128(_mm_cmpeq_epi8(x, _mm_set1_epi8(0x09)), _mm_cmpeq_epi8(x, _mm_set1_epi8(0x0a)));
      const __m128i markup = _mm_or_si128(
          _mm_or_si128(_mm_cmpeq_epi8(x, _mm_set1_epi8(0x22)), _mm_cmpeq_epi8(x, _mm_set1_epi8(0x26))),
          _mm_cmpeq_epi8(x, _mm_set1_epi8(0x3c)));
      const __m128i backslash = _mm_cmpeq_epi8(x, _mm_set1_epi8(0x5c));
      const __m128i added = _mm_add_epi8(
          _mm_add_epi8(_mm_and_si128(control, _mm_set1_epi8(3)), _mm_and_si128(whitespace, _mm_set1_epi8(2))),
          _mm_add_epi8(_mm_and_si128(markup, _mm_set1_epi8(5)), _mm_and_si128(backslash, _mm_set1_epi8(1))));
      lanes = _mm_add_epi8(lanes, added);
    }
    const __m128i sums = _mm_sad_epu8(lanes, zero);
    extra += static_cast<uint64_t>(_mm_cvtsi128_si32(sums)) +
             static_cast<uint64_t>(_mm_cvtsi128_si32(_mm_unpackhi_epi64(sums, sums)));
  }
  return i + extra + escapedSizeByTable(bytes + i, n - i);
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
    for (int k = 0; k < 16; ++k) {
      // One 8-byte move through a vector register, which a 32-bit machine has no other way to
      // make; the length is the entry's top byte.
      const uint64_t* entry = &kEscapes.word[bytes[i + k]];
      _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_loadl_epi64(reinterpret_cast<const __m128i*>(entry)));
      out += reinterpret_cast<const unsigned char*>(entry)[7];
    }
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
