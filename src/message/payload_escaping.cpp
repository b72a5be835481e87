#include "message/payload_escaping.h"

#include "message/escape_classes.h"

#include <string.h>

#if defined(__i386__) || defined(__x86_64__)
#include <cpuid.h>
#include <emmintrin.h>
#define TALVEX_HAVE_SSE2_PATH 1
#endif

// The 64-bit agent only: with eight vector registers the wide path's constants live on the stack,
// and a 32-bit process that round-trips payloads of 64 KiB measured a fifth slower with it.
#if defined(__x86_64__)
#include <immintrin.h>
#define TALVEX_HAVE_AVX512_PATH 1
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
    const EscapeClass kind = escapeClassOf(static_cast<unsigned char>(c));
    if (kind == kEscapeEntity) {
      text[n++] = '&';
      text[n++] = '#';
      text[n++] = 'x';
      text[n++] = hexDigit(c >> 4);
      text[n++] = hexDigit(c);
      text[n++] = ';';
    } else if (kind == kEscapeBackslash) {
      text[n++] = '\\';
      text[n++] = '\\';
    } else if (kind == kEscapeHex) {
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

bool haveSse2() {
#if defined(__x86_64__)
  return true;
#else
  unsigned a = 0, b = 0, c = 0, d = 0;
  return __get_cpuid(1, &a, &b, &c, &d) && (d & bit_SSE2) != 0;
#endif
}

#ifdef TALVEX_HAVE_AVX512_PATH

// Whether the processor and the system (which must save the wide registers on a switch) let the
// 512-bit path run: it needs AVX-512 with byte instructions, byte permutes (VBMI) and byte
// compression (VBMI2).
bool haveAvx512Escaping() {
  unsigned a = 0, b = 0, c = 0, d = 0;
  if (!__get_cpuid(1, &a, &b, &c, &d) || (c & bit_OSXSAVE) == 0) return false;
  unsigned low = 0, high = 0;
  __asm__ volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
  // SSE, AVX, the mask registers and both halves of the 512-bit registers.
  const unsigned kSavedState = 0x2 | 0x4 | 0x20 | 0x40 | 0x80;
  if ((low & kSavedState) != kSavedState) return false;
  if (!__get_cpuid_count(7, 0, &a, &b, &c, &d)) return false;
  return (b & bit_AVX512F) != 0 && (b & bit_AVX512BW) != 0 && (b & bit_AVX512VL) != 0 &&
         (c & bit_AVX512VBMI) != 0 && (c & bit_AVX512VBMI2) != 0;
}

#endif

bool haveWidePath() {
#ifdef TALVEX_HAVE_AVX512_PATH
  return haveAvx512Escaping();
#else
  return false;
#endif
}

// The fastest path this processor has, asked once. 0 not yet asked. Two threads asking at once
// both get the same answer.
EscapePath bestPath() {
  static int known = 0;
  int answer = __atomic_load_n(&known, __ATOMIC_RELAXED);
  if (answer == 0) {
    const EscapePath path = haveWidePath() ? EscapePath::kAvx512 : haveSse2() ? EscapePath::kSse2 : EscapePath::kTable;
    answer = static_cast<int>(path) + 1;
    __atomic_store_n(&known, answer, __ATOMIC_RELAXED);
  }
  return static_cast<EscapePath>(answer - 1);
}

// The wide paths test the classes of escape_classes.h with compares: the first two entity bytes
// (tab, line feed) lie below the plain range, the other three inside it, and above the plain
// range there is only DEL before the signed bytes.
static_assert(kEntityBytes[0] < kFirstPlainByte && kEntityBytes[1] < kFirstPlainByte, "entities below the plain range");
static_assert(kEntityBytes[2] >= kFirstPlainByte && kEntityBytes[4] <= kLastPlainByte, "entities within the plain range");
static_assert(kLastPlainByte == 0x7e, "DEL is the one byte between the plain range and the signed bytes");

const char kSizeAddedByHex = static_cast<char>(escapeLengthOf(kEscapeHex) - 1);
const char kSizeAddedByEntity = static_cast<char>(escapeLengthOf(kEscapeEntity) - 1);
const char kSizeAddedByBackslash = static_cast<char>(escapeLengthOf(kEscapeBackslash) - 1);

// Bytes outside the plain range. Signed compare: below the range takes in 0x80-0xff too.
__attribute__((target("sse2"))) inline __m128i outsidePlainOf16(__m128i x) {
  return _mm_or_si128(_mm_cmplt_epi8(x, _mm_set1_epi8(kFirstPlainByte)),
                      _mm_cmpeq_epi8(x, _mm_set1_epi8(static_cast<char>(kLastPlainByte + 1))));
}

// The entity bytes below the plain range, and those within it.
__attribute__((target("sse2"))) inline __m128i controlEntitiesOf16(__m128i x) {
  return _mm_or_si128(_mm_cmpeq_epi8(x, _mm_set1_epi8(kEntityBytes[0])), _mm_cmpeq_epi8(x, _mm_set1_epi8(kEntityBytes[1])));
}

__attribute__((target("sse2"))) inline __m128i printableEntitiesOf16(__m128i x) {
  return _mm_or_si128(
      _mm_or_si128(_mm_cmpeq_epi8(x, _mm_set1_epi8(kEntityBytes[2])), _mm_cmpeq_epi8(x, _mm_set1_epi8(kEntityBytes[3]))),
      _mm_cmpeq_epi8(x, _mm_set1_epi8(kEntityBytes[4])));
}

// A mask of the bytes among 16 that need an escape, one bit each.
// One compare after another into one mask: the order the fastest code came from.
__attribute__((target("sse2"))) inline unsigned escapedBytesOf16(__m128i x) {
  __m128i m = outsidePlainOf16(x);
  m = _mm_or_si128(m, _mm_cmpeq_epi8(x, _mm_set1_epi8(kEntityBytes[2])));
  m = _mm_or_si128(m, _mm_cmpeq_epi8(x, _mm_set1_epi8(kEntityBytes[3])));
  m = _mm_or_si128(m, _mm_cmpeq_epi8(x, _mm_set1_epi8(kEntityBytes[4])));
  m = _mm_or_si128(m, _mm_cmpeq_epi8(x, _mm_set1_epi8(kBackslashByte)));
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
      const __m128i control = outsidePlainOf16(x);
      const __m128i whitespace = controlEntitiesOf16(x);
      const __m128i markup = printableEntitiesOf16(x);
      const __m128i backslash = _mm_cmpeq_epi8(x, _mm_set1_epi8(kBackslashByte));
      const __m128i added = _mm_add_epi8(
          _mm_add_epi8(_mm_and_si128(control, _mm_set1_epi8(kSizeAddedByHex)),
                       _mm_and_si128(whitespace, _mm_set1_epi8(kSizeAddedByEntity - kSizeAddedByHex))),
          _mm_add_epi8(_mm_and_si128(markup, _mm_set1_epi8(kSizeAddedByEntity)),
                       _mm_and_si128(backslash, _mm_set1_epi8(kSizeAddedByBackslash))));
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
#if defined(__x86_64__)
      out = escapeOne(out, bytes[i + k]);
#else
      // One 8-byte move through a vector register, which a 32-bit machine has no other way to
      // make; the length is the entry's top byte.
      const uint64_t* entry = &kEscapes.word[bytes[i + k]];
      _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_loadl_epi64(reinterpret_cast<const __m128i*>(entry)));
      out += reinterpret_cast<const unsigned char*>(entry)[7];
#endif
    }
  }
  return escapeByTable(out, bytes + i, n - i);
}

#endif

#ifdef TALVEX_HAVE_AVX512_PATH

#define TALVEX_AVX512_TARGET __attribute__((target("avx512f,avx512bw,avx512vl,avx512vbmi,avx512vbmi2,popcnt")))

// The bytes among 64 that need an escape, one bit each, as escapedBytesOf16 does for 16.
TALVEX_AVX512_TARGET inline __mmask64 escapedBytesOf64(__m512i x) {
  return _mm512_cmplt_epu8_mask(x, _mm512_set1_epi8(kFirstPlainByte)) |
         _mm512_cmpgt_epu8_mask(x, _mm512_set1_epi8(kLastPlainByte)) |
         _mm512_cmpeq_epi8_mask(x, _mm512_set1_epi8(kEntityBytes[2])) |
         _mm512_cmpeq_epi8_mask(x, _mm512_set1_epi8(kEntityBytes[3])) |
         _mm512_cmpeq_epi8_mask(x, _mm512_set1_epi8(kEntityBytes[4])) |
         _mm512_cmpeq_epi8_mask(x, _mm512_set1_epi8(kBackslashByte));
}

TALVEX_AVX512_TARGET inline unsigned bitsOf(__mmask64 mask) {
  return static_cast<unsigned>(__builtin_popcountll(static_cast<unsigned long long>(mask)));
}

// What escapedSizeBySse2 adds up, 64 bytes at a time: each class of byte is a mask, and what it
// adds is its weight times the mask's bit count.
TALVEX_AVX512_TARGET uint64_t escapedSizeByAvx512(const unsigned char* bytes, size_t n) {
  uint64_t extra = 0;
  size_t i = 0;
  for (; i + 64 <= n; i += 64) {
    const __m512i x = _mm512_loadu_si512(bytes + i);
    const __mmask64 control = _mm512_cmplt_epu8_mask(x, _mm512_set1_epi8(kFirstPlainByte)) |
                              _mm512_cmpgt_epu8_mask(x, _mm512_set1_epi8(kLastPlainByte));
    const __mmask64 whitespace = _mm512_cmpeq_epi8_mask(x, _mm512_set1_epi8(kEntityBytes[0])) |
                                 _mm512_cmpeq_epi8_mask(x, _mm512_set1_epi8(kEntityBytes[1]));
    const __mmask64 markup = _mm512_cmpeq_epi8_mask(x, _mm512_set1_epi8(kEntityBytes[2])) |
                             _mm512_cmpeq_epi8_mask(x, _mm512_set1_epi8(kEntityBytes[3])) |
                             _mm512_cmpeq_epi8_mask(x, _mm512_set1_epi8(kEntityBytes[4]));
    const __mmask64 backslash = _mm512_cmpeq_epi8_mask(x, _mm512_set1_epi8(kBackslashByte));
    extra += kSizeAddedByHex * bitsOf(control) + (kSizeAddedByEntity - kSizeAddedByHex) * bitsOf(whitespace) +
             kSizeAddedByEntity * bitsOf(markup) + kSizeAddedByBackslash * bitsOf(backslash);
  }
  return i + extra + escapedSizeBySse2(bytes + i, n - i);
}

// The 64-byte register the escapes of 16 bytes are picked from: the bytes themselves at 0, their
// high hex digits at 16, their low ones at 32, and the backslash and the x at 48 and 49.
TALVEX_AVX512_TARGET inline __m512i escapeSourceOf(__m128i x) {
  const __m128i nibbles = _mm_set1_epi8(0x0f);
  const __m128i digits = _mm_setr_epi8('0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a', 'b', 'c', 'd', 'e', 'f');
  const __m128i high = _mm_shuffle_epi8(digits, _mm_and_si128(_mm_srli_epi16(x, 4), nibbles));
  const __m128i low = _mm_shuffle_epi8(digits, _mm_and_si128(x, nibbles));
  const __m128i fixed = _mm_setr_epi8('\\', 'x', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
  return _mm512_inserti32x4(_mm512_inserti32x4(_mm512_inserti32x4(_mm512_castsi128_si512(x), high, 1), low, 2), fixed,
                            3);
}

// Sixteen bytes each of which is itself or "\xNN", the common case of binary data: four places
// a byte fill one register, every byte's as "\xNN" but for the first place of a byte that is
// itself, which takes the byte; compression drops the other three places of those.
TALVEX_AVX512_TARGET inline char* escapeHex16ByAvx512(char* out, __m128i x, __mmask16 hex) {
  const __m512i source = escapeSourceOf(x);
  // Place 4s + k: byte s's k-th character.
  const __m512i asHex = _mm512_set_epi32(
      0x2f1f3130, 0x2e1e3130, 0x2d1d3130, 0x2c1c3130, 0x2b1b3130, 0x2a1a3130, 0x29193130, 0x28183130, 0x27173130,
      0x26163130, 0x25153130, 0x24143130, 0x23133130, 0x22123130, 0x21113130, 0x20103130);
  const __m512i owner = _mm512_set_epi32(0x0f0f0f0f, 0x0e0e0e0e, 0x0d0d0d0d, 0x0c0c0c0c, 0x0b0b0b0b, 0x0a0a0a0a,
                                         0x09090909, 0x08080808, 0x07070707, 0x06060606, 0x05050505, 0x04040404,
                                         0x03030303, 0x02020202, 0x01010101, 0x00000000);
  const __mmask64 firstPlaces = 0x1111111111111111ULL;
  const __mmask64 ownPlaces =
      _mm512_movepi8_mask(_mm512_maskz_permutexvar_epi8(~0ULL, owner, _mm512_castsi128_si512(_mm_maskz_mov_epi8(~hex, _mm_set1_epi8(-1)))));
  const __m512i from = _mm512_mask_mov_epi8(asHex, ownPlaces & firstPlaces, owner);
  const __mmask64 kept = ~ownPlaces | firstPlaces;
  _mm512_storeu_si512(out, _mm512_maskz_compress_epi8(kept, _mm512_maskz_permutexvar_epi8(~0ULL, from, source)));
  return out + bitsOf(kept);
}

TALVEX_AVX512_TARGET char* escapeByAvx512(char* out, const unsigned char* bytes, size_t n) {
  size_t i = 0;
  // At least 64 bytes stay after every block, so that the overshoot of its last store lands
  // where their escapes will be written.
  for (; i + 128 <= n; i += 64) {
    const __m512i x = _mm512_loadu_si512(bytes + i);
    const uint64_t escaped = static_cast<uint64_t>(escapedBytesOf64(x));
    if (escaped == 0) {
      _mm512_storeu_si512(out, x);
      out += 64;
      continue;
    }
    // The bytes whose escape is not "\xNN". Four of its compares repeat ones above on purpose:
    // sharing them with the mask above, whether all before the early exit or the four alone,
    // measured up to 5% slower on binary payloads and 15 to 17% on text with markup.
    const uint64_t other = static_cast<uint64_t>(
        _mm512_cmpeq_epi8_mask(x, _mm512_set1_epi8(kEntityBytes[0])) |
        _mm512_cmpeq_epi8_mask(x, _mm512_set1_epi8(kEntityBytes[1])) |
        _mm512_cmpeq_epi8_mask(x, _mm512_set1_epi8(kEntityBytes[2])) |
        _mm512_cmpeq_epi8_mask(x, _mm512_set1_epi8(kEntityBytes[3])) |
        _mm512_cmpeq_epi8_mask(x, _mm512_set1_epi8(kEntityBytes[4])) |
        _mm512_cmpeq_epi8_mask(x, _mm512_set1_epi8(kBackslashByte)));
    for (unsigned block = 0; block < 4; ++block) {
      const __m128i sixteen = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i + 16 * block));
      const unsigned escapedHere = static_cast<unsigned>(escaped >> (16 * block)) & 0xffff;
      if (escapedHere == 0) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), sixteen);
        out += 16;
      } else if (((other >> (16 * block)) & 0xffff) == 0) {
        out = escapeHex16ByAvx512(out, sixteen, static_cast<__mmask16>(escapedHere));
      } else {
        // Rarer bytes among them: the table, which beats a second wide path for these.
        out = escapeByTable(out, bytes + i + 16 * block, 16);
      }
    }
  }
  return escapeBySse2(out, bytes + i, n - i);
}

#endif

}  // namespace

bool escapePathAvailable(EscapePath path) {
#ifdef TALVEX_HAVE_SSE2_PATH
  switch (path) {
    case EscapePath::kAvx512: return haveWidePath();
    case EscapePath::kSse2: return haveSse2();
    case EscapePath::kTable: return true;
  }
  return false;
#else
  return path == EscapePath::kTable;
#endif
}

uint64_t escapedSizeOfBy(EscapePath path, const unsigned char* bytes, size_t n) {
#ifdef TALVEX_HAVE_AVX512_PATH
  if (path == EscapePath::kAvx512) return escapedSizeByAvx512(bytes, n);
#endif
#ifdef TALVEX_HAVE_SSE2_PATH
  if (path == EscapePath::kSse2) return escapedSizeBySse2(bytes, n);
#endif
  (void)path;
  return escapedSizeByTable(bytes, n);
}

char* escapeIntoBy(EscapePath path, char* out, const unsigned char* bytes, size_t n) {
#ifdef TALVEX_HAVE_AVX512_PATH
  if (path == EscapePath::kAvx512) return escapeByAvx512(out, bytes, n);
#endif
#ifdef TALVEX_HAVE_SSE2_PATH
  if (path == EscapePath::kSse2) return escapeBySse2(out, bytes, n);
#endif
  (void)path;
  return escapeByTable(out, bytes, n);
}

unsigned escapedSize(unsigned char c) { return sizeOf(c); }

uint64_t escapedSizeOf(const unsigned char* bytes, size_t n) {
#ifdef TALVEX_HAVE_SSE2_PATH
  return escapedSizeOfBy(bestPath(), bytes, n);
#else
  return escapedSizeByTable(bytes, n);
#endif
}

char* escapeInto(char* out, const unsigned char* bytes, size_t n) {
#ifdef TALVEX_HAVE_SSE2_PATH
  return escapeIntoBy(bestPath(), out, bytes, n);
#else
  return escapeByTable(out, bytes, n);
#endif
}
