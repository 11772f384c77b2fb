// Adler-32 in four implementations (AVX-512, AVX2, SSSE3, portable) with
// run-time dispatch. Our own rather than a library's: the record library then needs
// no dependency beyond those it already has, and the tests hold every path
// against zlib's adler32.
//
// The vector paths take the bytes in blocks of V (64, 32 or 16). Over a run of
// k blocks starting from sums a and b, with S_j the byte sum of block j and
// T_j its bytes weighted V, V-1, ..., 1:
//   a' = a + sum S_j
//   b' = b + k V a + V sum_{j} (S_0 + ... + S_{j-1}) + sum T_j
// psadbw gives the S_j, pmaddubsw + pmaddwd the T_j; the lanes hold partial
// sums, added up and reduced once per run.
#include "common/Adler32.h"

#include <immintrin.h>

#include <atomic>

namespace crrecord {

namespace {
constexpr uint32_t kModulus = 65521;
// The largest n such that 255 n (n + 1) / 2 + (n + 1) (kModulus - 1) fits
// 32 bits: the sums may go this many bytes without a reduction.
constexpr size_t kMaxDeferred = 5552;

uint32_t UpdatePortable(uint32_t adler, const unsigned char* p, size_t length) {
  uint32_t a = adler & 0xFFFF;
  uint32_t b = adler >> 16;
  while (length > 0) {
    size_t n = length < kMaxDeferred ? length : kMaxDeferred;
    length -= n;
    while (n >= 8) {
      a += p[0]; b += a;
      a += p[1]; b += a;
      a += p[2]; b += a;
      a += p[3]; b += a;
      a += p[4]; b += a;
      a += p[5]; b += a;
      a += p[6]; b += a;
      a += p[7]; b += a;
      p += 8;
      n -= 8;
    }
    while (n-- > 0) {
      a += *p++;
      b += a;
    }
    a %= kModulus;
    b %= kModulus;
  }
  return (b << 16) | a;
}

// Folds the sums of a run of `bytes` bytes into (a, b), in 64 bits so that
// no run length within kMaxDeferred can overflow, and reduces them.
inline void FoldRun(uint32_t* a, uint32_t* b, uint64_t bytes, uint64_t byteSum,
                    uint64_t prefixSums, uint64_t weighted, unsigned int blockSize) {
  const uint64_t newB = *b + bytes * *a + blockSize * prefixSums + weighted;
  *a = static_cast<uint32_t>((*a + byteSum) % kModulus);
  *b = static_cast<uint32_t>(newB % kModulus);
}

#define CR_SSSE3 __attribute__((target("ssse3")))
#define CR_AVX2 __attribute__((target("avx2")))

CR_SSSE3 inline uint64_t Sum32x4(__m128i v) {
  alignas(16) uint32_t lanes[4];
  _mm_store_si128(reinterpret_cast<__m128i*>(lanes), v);
  return uint64_t{lanes[0]} + lanes[1] + lanes[2] + lanes[3];
}

CR_SSSE3 uint32_t UpdateSSSE3(uint32_t adler, const unsigned char* p, size_t length) {
  uint32_t a = adler & 0xFFFF;
  uint32_t b = adler >> 16;
  const __m128i zero = _mm_setzero_si128();
  const __m128i weights = _mm_setr_epi8(16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1);
  const __m128i ones = _mm_set1_epi16(1);
  while (length >= 16) {
    const size_t blocks = (length < kMaxDeferred ? length : kMaxDeferred) / 16;
    length -= blocks * 16;
    __m128i sums = zero, prefix = zero, weighted = zero;
    for (size_t k = 0; k < blocks; ++k, p += 16) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
      prefix = _mm_add_epi32(prefix, sums);
      sums = _mm_add_epi32(sums, _mm_sad_epu8(v, zero));
      weighted = _mm_add_epi32(weighted, _mm_madd_epi16(_mm_maddubs_epi16(v, weights), ones));
    }
    FoldRun(&a, &b, blocks * 16, Sum32x4(sums), Sum32x4(prefix), Sum32x4(weighted), 16);
  }
  return UpdatePortable((b << 16) | a, p, length);
}

CR_AVX2 inline uint64_t Sum32x8(__m256i v) {
  alignas(32) uint32_t lanes[8];
  _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), v);
  uint64_t sum = 0;
  for (uint32_t lane : lanes) sum += lane;
  return sum;
}

CR_AVX2 uint32_t UpdateAVX2(uint32_t adler, const unsigned char* p, size_t length) {
  uint32_t a = adler & 0xFFFF;
  uint32_t b = adler >> 16;
  const __m256i zero = _mm256_setzero_si256();
  const __m256i weights =
      _mm256_setr_epi8(32, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17, 16, 15, 14,
                       13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1);
  const __m256i ones = _mm256_set1_epi16(1);
  while (length >= 32) {
    const size_t blocks = (length < kMaxDeferred ? length : kMaxDeferred) / 32;
    length -= blocks * 32;
    __m256i sums = zero, prefix = zero, weighted = zero;
    for (size_t k = 0; k < blocks; ++k, p += 32) {
      const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
      prefix = _mm256_add_epi32(prefix, sums);
      sums = _mm256_add_epi32(sums, _mm256_sad_epu8(v, zero));
      weighted =
          _mm256_add_epi32(weighted, _mm256_madd_epi16(_mm256_maddubs_epi16(v, weights), ones));
    }
    FoldRun(&a, &b, blocks * 32, Sum32x8(sums), Sum32x8(prefix), Sum32x8(weighted), 32);
  }
  // Clean upper register halves, or the SSE code that runs next (ours or
  // the caller's) may be slowed by them.
  _mm256_zeroupper();
  return UpdatePortable((b << 16) | a, p, length);
}

#define CR_AVX512 __attribute__((target("avx512bw")))

CR_AVX512 inline uint64_t Sum32x16(__m512i v) {
  alignas(64) uint32_t lanes[16];
  _mm512_store_si512(lanes, v);
  uint64_t sum = 0;
  for (uint32_t lane : lanes) sum += lane;
  return sum;
}

CR_AVX512 uint32_t UpdateAVX512(uint32_t adler, const unsigned char* p, size_t length) {
  // Up to the next 64-byte boundary with the narrower code, so that no load
  // below spans two cache lines.
  const size_t head = (64 - reinterpret_cast<uintptr_t>(p) % 64) % 64;
  if (head != 0) {
    const size_t n = head < length ? head : length;
    adler = UpdateAVX2(adler, p, n);
    p += n;
    length -= n;
  }
  uint32_t a = adler & 0xFFFF;
  uint32_t b = adler >> 16;
  const __m512i zero = _mm512_setzero_si512();
  // _mm512_set_epi8 lists the bytes from the last to the first: byte 0 of a
  // block weighs 64, byte 63 weighs 1.
  const __m512i weights = _mm512_set_epi8(
      1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25,
      26, 27, 28, 29, 30, 31, 32, 33, 34, 35, 36, 37, 38, 39, 40, 41, 42, 43, 44, 45, 46, 47, 48,
      49, 50, 51, 52, 53, 54, 55, 56, 57, 58, 59, 60, 61, 62, 63, 64);
  const __m512i ones = _mm512_set1_epi16(1);
  while (length >= 64) {
    const size_t blocks = (length < kMaxDeferred ? length : kMaxDeferred) / 64;
    length -= blocks * 64;
    __m512i sums = zero, prefix = zero, weighted = zero;
    for (size_t k = 0; k < blocks; ++k, p += 64) {
      const __m512i v = _mm512_load_si512(p);
      prefix = _mm512_add_epi32(prefix, sums);
      sums = _mm512_add_epi32(sums, _mm512_sad_epu8(v, zero));
      weighted =
          _mm512_add_epi32(weighted, _mm512_madd_epi16(_mm512_maddubs_epi16(v, weights), ones));
    }
    FoldRun(&a, &b, blocks * 64, Sum32x16(sums), Sum32x16(prefix), Sum32x16(weighted), 64);
  }
  return UpdateAVX2((b << 16) | a, p, length);  // which clears the upper halves
}

struct Adler32Impl {
  Adler32Path path;
  uint32_t (*update)(uint32_t, const unsigned char*, size_t);
};

constexpr Adler32Impl kPortable = {Adler32Path::kPortable, UpdatePortable};
constexpr Adler32Impl kSSSE3 = {Adler32Path::kSSSE3, UpdateSSSE3};
constexpr Adler32Impl kAVX2 = {Adler32Path::kAVX2, UpdateAVX2};
constexpr Adler32Impl kAVX512 = {Adler32Path::kAVX512, UpdateAVX512};

// Null until the first call (which may come during static initialisation),
// then the chosen implementation.
std::atomic<const Adler32Impl*> gActive{nullptr};

const Adler32Impl* Active() {
  const Adler32Impl* impl = gActive.load(std::memory_order_acquire);
  if (impl != nullptr) return impl;
  impl = Adler32PathAvailable(Adler32Path::kAVX512) ? &kAVX512
         : Adler32PathAvailable(Adler32Path::kAVX2)  ? &kAVX2
         : Adler32PathAvailable(Adler32Path::kSSSE3) ? &kSSSE3
                                                     : &kPortable;
  gActive.store(impl, std::memory_order_release);
  return impl;
}

}  // namespace

uint32_t Adler32Update(uint32_t adler, const void* data, size_t length) {
  return Active()->update(adler, static_cast<const unsigned char*>(data), length);
}

bool Adler32PathAvailable(Adler32Path path) {
  __builtin_cpu_init();  // the CPU model may be asked for before constructors ran
  switch (path) {
    case Adler32Path::kAVX512: return __builtin_cpu_supports("avx512bw");
    case Adler32Path::kAVX2: return __builtin_cpu_supports("avx2");
    case Adler32Path::kSSSE3: return __builtin_cpu_supports("ssse3");
    default: return true;
  }
}

bool Adler32ForcePath(Adler32Path path) {
  if (!Adler32PathAvailable(path)) return false;
  gActive.store(path == Adler32Path::kAVX512  ? &kAVX512
                : path == Adler32Path::kAVX2  ? &kAVX2
                : path == Adler32Path::kSSSE3 ? &kSSSE3
                                              : &kPortable,
                std::memory_order_release);
  return true;
}

Adler32Path Adler32ActivePath() { return Active()->path; }

}  // namespace crrecord
