// Copies into memory that is written once and not read again soon: the
// outputs of tens of megabytes that the serializer and the builder write.
// Non-temporal stores send the bytes to memory without first reading each
// line they overwrite, which halves the memory traffic of such a write.
#ifndef CRRECORD_SRC_COMMON_STREAMCOPY_H
#define CRRECORD_SRC_COMMON_STREAMCOPY_H

#include <emmintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace crrecord {

// Outputs at least this large are written with StreamCopy; smaller ones are
// better left in the cache for whoever reads them next.
constexpr size_t kStreamingThreshold = size_t{8} << 20;

// Copies n bytes; src and dst must not overlap. The stores are weakly
// ordered: call StreamFence before the bytes are handed to anyone.
inline void StreamCopy(void* dst, const void* src, size_t n) {
  unsigned char* d = static_cast<unsigned char*>(dst);
  const unsigned char* s = static_cast<const unsigned char*>(src);
  // Each group of four stores must fill one whole cache line: a line the
  // write-combining buffer gets only part of is written out piecemeal, which
  // costs more than the read the stores were meant to save. So the head up to
  // a 64-byte boundary is copied as usual, wherever the caller's buffer starts.
  const size_t head = (64 - reinterpret_cast<uintptr_t>(d) % 64) % 64;
  if (n < head + 64) {
    std::memcpy(d, s, n);
    return;
  }
  std::memcpy(d, s, head);
  d += head;
  s += head;
  n -= head;
  for (; n >= 64; n -= 64, d += 64, s += 64) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 16));
    const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 32));
    const __m128i e = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 48));
    _mm_stream_si128(reinterpret_cast<__m128i*>(d), a);
    _mm_stream_si128(reinterpret_cast<__m128i*>(d + 16), b);
    _mm_stream_si128(reinterpret_cast<__m128i*>(d + 32), c);
    _mm_stream_si128(reinterpret_cast<__m128i*>(d + 48), e);
  }
  std::memcpy(d, s, n);
}

// Orders the non-temporal stores before every later store.
inline void StreamFence() { _mm_sfence(); }

}  // namespace crrecord

#endif  // CRRECORD_SRC_COMMON_STREAMCOPY_H
