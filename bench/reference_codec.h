// A plain writer of the serialized DO record (drawn in
// <crrecord/DORecordSerialized.h>), the yardstick that the library's
// SerializeInto is measured against: each step done the obvious way, with SIMD
// where it is simplest (SSSE3 hex, AVX2 Adler-32), into a caller's buffer, and
// the checksum taken in a separate pass over the finished output rather than
// fused with the writing. It works from the segment list's host-order columns
// and shares nothing with the library but the byte-order helpers, so that the
// benchmark can check the two against each other.
#ifndef CRRECORD_BENCH_REFERENCE_CODEC_H
#define CRRECORD_BENCH_REFERENCE_CODEC_H

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "crrecord/common/Endian.h"

namespace refcodec {

// A host-order segment list, one column per field.
struct SegmentColumns {
  unsigned int dotype = 0;          // 0, 1, 2, 3 or 5
  unsigned int fptype = 1;          // 1 (16-byte fingerprints) or 3 (32-byte)
  uint32_t n = 0;                   // segments
  uint64_t size = 0, ssize = 0;     // the head's file and segment sizes
  uint32_t crc = 0;                 // the head's checksum without the Adler-32
  const unsigned char* fps = nullptr;      // n fingerprints back to back
  const uint32_t* sizes = nullptr;         // DO types 2, 3 and 5
  const uint64_t* offsets = nullptr;       // DO types 3 and 5 (5: below 2^32)
  const unsigned long* dcids = nullptr;
};

inline unsigned int FingerprintBytes(unsigned int fptype) { return fptype == 3 ? 32 : 16; }

inline unsigned int FieldBytes(unsigned int dotype) {
  return dotype == 2 ? 4 : dotype == 3 ? 12 : dotype == 5 ? 8 : 0;
}

// Bytes of the form, or 0 for a DO or fingerprint type it does not cover.
inline uint64_t SerializedSize(const SegmentColumns& s) {
  if (s.dotype == 4 || s.dotype > 5 || (s.fptype != 1 && s.fptype != 3)) return 0;
  const uint64_t text = 2 * FingerprintBytes(s.fptype) + 1;
  return 28 + 1 + uint64_t{s.n} * (text + FieldBytes(s.dotype) + 8);
}

// Whether this CPU runs the two kernels below.
inline bool Supported() {
  return __builtin_cpu_supports("ssse3") && __builtin_cpu_supports("avx2");
}

// 16 bytes as 32 lower-case hex digits: each nibble looked up in a 16-entry
// table with pshufb, high nibble first.
__attribute__((target("ssse3"))) inline void Hex16(unsigned char* out, const unsigned char* in) {
  const __m128i digits = _mm_setr_epi8('0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a',
                                       'b', 'c', 'd', 'e', 'f');
  const __m128i nibble = _mm_set1_epi8(0x0f);
  const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
  const __m128i hi = _mm_shuffle_epi8(digits, _mm_and_si128(_mm_srli_epi16(v, 4), nibble));
  const __m128i lo = _mm_shuffle_epi8(digits, _mm_and_si128(v, nibble));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi8(hi, lo));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16), _mm_unpackhi_epi8(hi, lo));
}

__attribute__((target("avx2"))) inline uint64_t SumLanes(__m256i v) {
  alignas(32) uint32_t lanes[8];
  _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), v);
  uint64_t sum = 0;
  for (uint32_t lane : lanes) sum += lane;
  return sum;
}

// Adler-32 continued from `adler` over p[0, length), 32 bytes a step: the
// byte sums with vpsadbw, the position-weighted sums with vpmaddubsw.
__attribute__((target("avx2"))) inline uint32_t Adler32(uint32_t adler, const unsigned char* p,
                                                         size_t length) {
  constexpr uint32_t kModulus = 65521;
  // 173 steps of 32 bytes between reductions keep every 32-bit lane below
  // 2^30 (the largest is 32 times `before`).
  constexpr size_t kChunk = 173 * 32;
  const __m256i weights = _mm256_setr_epi8(32, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20,
                                           19, 18, 17, 16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6,
                                           5, 4, 3, 2, 1);
  const __m256i ones = _mm256_set1_epi16(1);
  const __m256i zero = _mm256_setzero_si256();
  uint64_t a = adler & 0xffff, b = adler >> 16;
  while (length >= 32) {
    const size_t steps = (length < kChunk ? length : kChunk) / 32;
    // s1: the bytes' sum; before: the sum, step by step, of the bytes of the
    // steps before, which each count 32 more times in b than the step after.
    __m256i s1 = zero, before = zero, s2 = zero;
    for (size_t i = 0; i < steps; ++i, p += 32) {
      const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
      before = _mm256_add_epi32(before, s1);
      s1 = _mm256_add_epi32(s1, _mm256_sad_epu8(v, zero));
      s2 = _mm256_add_epi32(s2, _mm256_madd_epi16(_mm256_maddubs_epi16(v, weights), ones));
    }
    s2 = _mm256_add_epi32(s2, _mm256_slli_epi32(before, 5));
    b = (b + a * steps * 32 + SumLanes(s2)) % kModulus;
    a = (a + SumLanes(s1)) % kModulus;
    length -= steps * 32;
  }
  for (; length != 0; --length) {
    a += *p++;
    b += a;
  }
  return static_cast<uint32_t>((b % kModulus) << 16 | (a % kModulus));
}

// The entries from the head's end: per segment the fingerprint's text field
// (hex, NUL) and the DO type's fields, big-endian. Returns their end.
__attribute__((target("ssse3"))) inline unsigned char* WriteEntries(const SegmentColumns& s,
                                                                     unsigned char* p) {
  const unsigned int width = FingerprintBytes(s.fptype);
  for (uint32_t i = 0; i < s.n; ++i) {
    const unsigned char* fp = s.fps + uint64_t{i} * width;
    Hex16(p, fp);
    if (width == 32) Hex16(p + 32, fp + 16);
    p[2 * width] = 0;
    p += 2 * width + 1;
    if (s.dotype == 2 || s.dotype == 3 || s.dotype == 5) crrecord::StoreBE32(p, s.sizes[i]);
    if (s.dotype == 3) crrecord::StoreBE64(p + 4, s.offsets[i]);
    if (s.dotype == 5) crrecord::StoreBE32(p + 4, static_cast<uint32_t>(s.offsets[i]));
    p += FieldBytes(s.dotype);
  }
  return p;
}

// Writes the form of `s` into out[0, length) and returns its size, or 0
// (nothing written) when `length` is short or the types are not covered.
// With `checksum` the head carries the Adler-32 of bytes 28..end, else `crc`.
inline uint64_t Serialize(const SegmentColumns& s, unsigned char* out, uint64_t length,
                          bool checksum) {
  const uint64_t total = SerializedSize(s);
  if (total == 0 || length < total) return 0;
  crrecord::StoreBE64(out, s.size);
  crrecord::StoreBE64(out + 8, s.ssize);
  crrecord::StoreBE32(out + 16, s.crc);
  crrecord::StoreBE32(out + 20, s.n);
  crrecord::StoreBE32(out + 24, 0);
  unsigned char* p = WriteEntries(s, out + 28);
  *p++ = 0;
  for (uint32_t i = 0; i < s.n; ++i, p += 8) crrecord::StoreBE64(p, s.dcids[i]);
  if (checksum) crrecord::StoreBE32(out + 16, Adler32(1, out + 28, total - 28));
  return total;
}

}  // namespace refcodec

#endif  // CRRECORD_BENCH_REFERENCE_CODEC_H
