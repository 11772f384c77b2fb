// The hex codec in three implementations and the dispatch between them.
//
// Portable: one table lookup per byte to encode, one per character to
// decode, and a single validity test per call rather than one per character.
// SSSE3 and AVX2: 16 or 32 bytes at a time. Encoding splits each byte into
// its nibbles and looks the digits up with a byte shuffle. Decoding maps
// each character c to a nibble with two range tests, c - '0' <= 9 and
// (c | 0x20) - 'a' <= 5 (the OR folds 'A'..'F' onto 'a'..'f' and nothing
// else onto them), then joins nibble pairs with one multiply-add.
#include "hex.h"

#include <immintrin.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>

namespace crrecord {
namespace {

// --- Portable ------------------------------------------------------------------

constexpr std::array<char, 512> MakeEncodeTable() {
  constexpr char kDigits[] = "0123456789abcdef";
  std::array<char, 512> t{};
  for (int b = 0; b < 256; ++b) {
    t[2 * b] = kDigits[b >> 4];
    t[2 * b + 1] = kDigits[b & 15];
  }
  return t;
}

// Digit values 0..15; kBad for every other character, chosen so that OR-ing
// the lookups of a whole text leaves a bit above the low nibble set when any
// character was bad.
constexpr unsigned char kBad = 0xF0;

constexpr std::array<unsigned char, 256> MakeDecodeTable() {
  std::array<unsigned char, 256> t{};
  for (int c = 0; c < 256; ++c) t[c] = kBad;
  for (int d = 0; d < 10; ++d) t['0' + d] = static_cast<unsigned char>(d);
  for (int d = 0; d < 6; ++d) {
    t['a' + d] = static_cast<unsigned char>(10 + d);
    t['A' + d] = static_cast<unsigned char>(10 + d);
  }
  return t;
}

constexpr std::array<char, 512> kEncode = MakeEncodeTable();
constexpr std::array<unsigned char, 256> kDecode = MakeDecodeTable();

void EncodePortable(const unsigned char* in, size_t n, char* out) {
  for (size_t i = 0; i < n; ++i) std::memcpy(out + 2 * i, &kEncode[2 * in[i]], 2);
}

bool DecodePortable(const char* in, size_t nchars, unsigned char* out) {
  if (nchars % 2 != 0) return false;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(in);
  unsigned char seen = 0;
  for (size_t i = 0; i < nchars / 2; ++i) {
    unsigned char hi = kDecode[p[2 * i]];
    unsigned char lo = kDecode[p[2 * i + 1]];
    seen |= hi | lo;
    out[i] = static_cast<unsigned char>((hi << 4) | (lo & 15));
  }
  return (seen & kBad) == 0;
}

// --- SSSE3 -----------------------------------------------------------------------

#define CR_SSSE3 __attribute__((target("ssse3")))

CR_SSSE3 inline void Encode16SSSE3(const unsigned char* in, char* out) {
  const __m128i digits = _mm_setr_epi8('0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a',
                                       'b', 'c', 'd', 'e', 'f');
  const __m128i low = _mm_set1_epi8(0x0F);
  const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
  const __m128i hi = _mm_shuffle_epi8(digits, _mm_and_si128(_mm_srli_epi16(v, 4), low));
  const __m128i lo = _mm_shuffle_epi8(digits, _mm_and_si128(v, low));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi8(hi, lo));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16), _mm_unpackhi_epi8(hi, lo));
}

// Nibble values of 16 characters; `valid` loses the lanes that are no digit.
CR_SSSE3 inline __m128i Nibbles128(__m128i c, __m128i* valid) {
  const __m128i d = _mm_sub_epi8(c, _mm_set1_epi8('0'));
  const __m128i isDigit = _mm_cmpeq_epi8(_mm_min_epu8(d, _mm_set1_epi8(9)), d);
  const __m128i l = _mm_sub_epi8(_mm_or_si128(c, _mm_set1_epi8(0x20)), _mm_set1_epi8('a'));
  const __m128i isLetter = _mm_cmpeq_epi8(_mm_min_epu8(l, _mm_set1_epi8(5)), l);
  *valid = _mm_and_si128(*valid, _mm_or_si128(isDigit, isLetter));
  return _mm_or_si128(_mm_and_si128(isDigit, d),
                      _mm_and_si128(isLetter, _mm_add_epi8(l, _mm_set1_epi8(10))));
}

// 32 characters to 16 bytes; false when one of them is no hex digit.
CR_SSSE3 inline bool Decode32SSSE3(const char* in, unsigned char* out) {
  __m128i valid = _mm_set1_epi8(-1);
  const __m128i a = Nibbles128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in)), &valid);
  const __m128i b =
      Nibbles128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 16)), &valid);
  // Per character pair: high nibble * 16 + low nibble, as 16-bit lanes.
  const __m128i weights = _mm_set1_epi16(0x0110);
  const __m128i bytes = _mm_packus_epi16(_mm_maddubs_epi16(a, weights), _mm_maddubs_epi16(b, weights));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), bytes);
  return _mm_movemask_epi8(valid) == 0xFFFF;
}

CR_SSSE3 void EncodeSSSE3(const unsigned char* in, size_t n, char* out) {
  size_t i = 0;
  for (; i + 16 <= n; i += 16) Encode16SSSE3(in + i, out + 2 * i);
  EncodePortable(in + i, n - i, out + 2 * i);
}

CR_SSSE3 bool DecodeSSSE3(const char* in, size_t nchars, unsigned char* out) {
  if (nchars % 2 != 0) return false;
  bool ok = true;
  size_t i = 0;
  for (; i + 32 <= nchars; i += 32) ok &= Decode32SSSE3(in + i, out + i / 2);
  return DecodePortable(in + i, nchars - i, out + i / 2) && ok;
}

// --- AVX2 ------------------------------------------------------------------------

#define CR_AVX2 __attribute__((target("avx2")))

CR_AVX2 inline void Encode32AVX2(const unsigned char* in, char* out) {
  const __m256i digits =
      _mm256_setr_epi8('0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a', 'b', 'c', 'd', 'e',
                       'f', '0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a', 'b', 'c', 'd',
                       'e', 'f');
  const __m256i low = _mm256_set1_epi8(0x0F);
  const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in));
  const __m256i hi = _mm256_shuffle_epi8(digits, _mm256_and_si256(_mm256_srli_epi16(v, 4), low));
  const __m256i lo = _mm256_shuffle_epi8(digits, _mm256_and_si256(v, low));
  // The unpacks work within each 128-bit lane: bytes 0-7 and 16-23, then
  // 8-15 and 24-31. The permutes put the text back in byte order.
  const __m256i a = _mm256_unpacklo_epi8(hi, lo);
  const __m256i b = _mm256_unpackhi_epi8(hi, lo);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), _mm256_permute2x128_si256(a, b, 0x20));
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 32), _mm256_permute2x128_si256(a, b, 0x31));
}

CR_AVX2 inline __m256i Nibbles256(__m256i c, __m256i* valid) {
  const __m256i d = _mm256_sub_epi8(c, _mm256_set1_epi8('0'));
  const __m256i isDigit = _mm256_cmpeq_epi8(_mm256_min_epu8(d, _mm256_set1_epi8(9)), d);
  const __m256i l =
      _mm256_sub_epi8(_mm256_or_si256(c, _mm256_set1_epi8(0x20)), _mm256_set1_epi8('a'));
  const __m256i isLetter = _mm256_cmpeq_epi8(_mm256_min_epu8(l, _mm256_set1_epi8(5)), l);
  *valid = _mm256_and_si256(*valid, _mm256_or_si256(isDigit, isLetter));
  return _mm256_or_si256(_mm256_and_si256(isDigit, d),
                         _mm256_and_si256(isLetter, _mm256_add_epi8(l, _mm256_set1_epi8(10))));
}

// 64 characters to 32 bytes; false when one of them is no hex digit.
CR_AVX2 inline bool Decode64AVX2(const char* in, unsigned char* out) {
  __m256i valid = _mm256_set1_epi8(-1);
  const __m256i a = Nibbles256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(in)), &valid);
  const __m256i b =
      Nibbles256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(in + 32)), &valid);
  const __m256i weights = _mm256_set1_epi16(0x0110);
  // The pack interleaves the lanes (a0 b0 a1 b1); the permute restores order.
  const __m256i packed =
      _mm256_packus_epi16(_mm256_maddubs_epi16(a, weights), _mm256_maddubs_epi16(b, weights));
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), _mm256_permute4x64_epi64(packed, 0xD8));
  return _mm256_movemask_epi8(valid) == -1;
}

// 32 characters to 16 bytes in one register: the lanes hold bytes 0-7 and
// 8-15 after the multiply-add and pack, and the permute joins them.
CR_AVX2 inline bool Decode32AVX2(const char* in, unsigned char* out) {
  __m256i valid = _mm256_set1_epi8(-1);
  const __m256i a = Nibbles256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(in)), &valid);
  const __m256i words = _mm256_maddubs_epi16(a, _mm256_set1_epi16(0x0110));
  const __m256i packed = _mm256_permute4x64_epi64(_mm256_packus_epi16(words, words), 0x08);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(packed));
  return _mm256_movemask_epi8(valid) == -1;
}

CR_AVX2 void EncodeAVX2(const unsigned char* in, size_t n, char* out) {
  size_t i = 0;
  for (; i + 32 <= n; i += 32) Encode32AVX2(in + i, out + 2 * i);
  if (i + 16 <= n) {
    Encode16SSSE3(in + i, out + 2 * i);
    i += 16;
  }
  EncodePortable(in + i, n - i, out + 2 * i);
}

CR_AVX2 bool DecodeAVX2(const char* in, size_t nchars, unsigned char* out) {
  if (nchars % 2 != 0) return false;
  bool ok = true;
  size_t i = 0;
  for (; i + 64 <= nchars; i += 64) ok &= Decode64AVX2(in + i, out + i / 2);
  if (i + 32 <= nchars) {
    ok &= Decode32SSSE3(in + i, out + i / 2);
    i += 32;
  }
  return DecodePortable(in + i, nchars - i, out + i / 2) && ok;
}

// --- Strided forms -----------------------------------------------------------------
// Written out per implementation, so that the fixed fingerprint widths (16
// and 32 bytes) get straight-line code with no call per field. The width
// tests stay inside the loops: they are the same for every field, so they
// are predicted, and the loops stay one each.

void EncodeFieldsPortable(const unsigned char* in, size_t inStride, size_t width, char* out,
                          size_t outStride, size_t count, bool nul) {
  for (size_t k = 0; k < count; ++k, in += inStride, out += outStride) {
    EncodePortable(in, width, out);
    if (nul) out[2 * width] = '\0';
  }
}

size_t DecodeFieldsPortable(const char* in, size_t inStride, size_t width, unsigned char* out,
                            size_t outStride, size_t count, bool nul) {
  for (size_t k = 0; k < count; ++k, in += inStride, out += outStride) {
    if (!DecodePortable(in, 2 * width, out) || (nul && in[2 * width] != '\0')) return k;
  }
  return count;
}

CR_SSSE3 void EncodeFieldsSSSE3(const unsigned char* in, size_t inStride, size_t width, char* out,
                                size_t outStride, size_t count, bool nul) {
  for (size_t k = 0; k < count; ++k, in += inStride, out += outStride) {
    if (width == 16) {
      Encode16SSSE3(in, out);
    } else if (width == 32) {
      Encode16SSSE3(in, out);
      Encode16SSSE3(in + 16, out + 32);
    } else {
      EncodeSSSE3(in, width, out);
    }
    if (nul) out[2 * width] = '\0';
  }
}

CR_SSSE3 size_t DecodeFieldsSSSE3(const char* in, size_t inStride, size_t width,
                                  unsigned char* out, size_t outStride, size_t count, bool nul) {
  for (size_t k = 0; k < count; ++k, in += inStride, out += outStride) {
    bool ok;
    if (width == 16) {
      ok = Decode32SSSE3(in, out);
    } else if (width == 32) {
      const bool first = Decode32SSSE3(in, out);
      ok = Decode32SSSE3(in + 32, out + 16) && first;
    } else {
      ok = DecodeSSSE3(in, 2 * width, out);
    }
    if (!ok || (nul && in[2 * width] != '\0')) return k;
  }
  return count;
}

CR_AVX2 void EncodeFieldsAVX2(const unsigned char* in, size_t inStride, size_t width, char* out,
                              size_t outStride, size_t count, bool nul) {
  for (size_t k = 0; k < count; ++k, in += inStride, out += outStride) {
    if (width == 16) {
      Encode16SSSE3(in, out);
    } else if (width == 32) {
      Encode32AVX2(in, out);
    } else {
      EncodeAVX2(in, width, out);
    }
    if (nul) out[2 * width] = '\0';
  }
}

CR_AVX2 size_t DecodeFieldsAVX2(const char* in, size_t inStride, size_t width, unsigned char* out,
                                size_t outStride, size_t count, bool nul) {
  for (size_t k = 0; k < count; ++k, in += inStride, out += outStride) {
    bool ok;
    if (width == 16) {
      ok = Decode32AVX2(in, out);
    } else if (width == 32) {
      ok = Decode64AVX2(in, out);
    } else {
      ok = DecodeAVX2(in, 2 * width, out);
    }
    if (!ok || (nul && in[2 * width] != '\0')) return k;
  }
  return count;
}

// --- Dispatch ----------------------------------------------------------------------

struct HexImpl {
  HexPath path;
  void (*encode)(const unsigned char*, size_t, char*);
  bool (*decode)(const char*, size_t, unsigned char*);
  void (*encodeFields)(const unsigned char*, size_t, size_t, char*, size_t, size_t, bool);
  size_t (*decodeFields)(const char*, size_t, size_t, unsigned char*, size_t, size_t, bool);
};

constexpr HexImpl kPortable = {HexPath::kPortable, EncodePortable, DecodePortable,
                               EncodeFieldsPortable, DecodeFieldsPortable};
constexpr HexImpl kSSSE3 = {HexPath::kSSSE3, EncodeSSSE3, DecodeSSSE3, EncodeFieldsSSSE3,
                            DecodeFieldsSSSE3};
constexpr HexImpl kAVX2 = {HexPath::kAVX2, EncodeAVX2, DecodeAVX2, EncodeFieldsAVX2,
                           DecodeFieldsAVX2};

const HexImpl* ImplOf(HexPath path) {
  switch (path) {
    case HexPath::kAVX2: return &kAVX2;
    case HexPath::kSSSE3: return &kSSSE3;
    default: return &kPortable;
  }
}

// Null until the first call, which may come from another library's static
// initialisation; then the chosen implementation.
std::atomic<const HexImpl*> gActive{nullptr};

const HexImpl* Active() {
  const HexImpl* impl = gActive.load(std::memory_order_acquire);
  if (impl != nullptr) return impl;
  impl = HexPathAvailable(HexPath::kAVX2)    ? &kAVX2
         : HexPathAvailable(HexPath::kSSSE3) ? &kSSSE3
                                             : &kPortable;
  gActive.store(impl, std::memory_order_release);
  return impl;
}

}  // namespace

void HexEncode(const unsigned char* in, size_t n, char* out) { Active()->encode(in, n, out); }

bool HexDecode(const char* in, size_t nchars, unsigned char* out) {
  return Active()->decode(in, nchars, out);
}

void HexEncodeFields(const unsigned char* in, size_t inStride, size_t width, char* out,
                     size_t outStride, size_t count, bool nul) {
  Active()->encodeFields(in, inStride, width, out, outStride, count, nul);
}

size_t HexDecodeFields(const char* in, size_t inStride, size_t width, unsigned char* out,
                       size_t outStride, size_t count, bool nul) {
  return Active()->decodeFields(in, inStride, width, out, outStride, count, nul);
}

bool HexPathAvailable(HexPath path) {
  __builtin_cpu_init();  // the CPU model may be asked for before constructors ran
  switch (path) {
    case HexPath::kAVX2: return __builtin_cpu_supports("avx2");
    case HexPath::kSSSE3: return __builtin_cpu_supports("ssse3");
    default: return true;
  }
}

bool HexForcePath(HexPath path) {
  if (!HexPathAvailable(path)) return false;
  gActive.store(ImplOf(path), std::memory_order_release);
  return true;
}

HexPath HexActivePath() { return Active()->path; }

}  // namespace crrecord
