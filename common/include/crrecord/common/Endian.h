// Byte order and fixed-width encoding: the one place that swaps bytes.
// Header-only and below everything else: the platform layer, the library,
// the tool and the tests include it as <crrecord/common/Endian.h>.
//
// Loads and stores go through memcpy, so they are safe on unaligned record
// bytes and compile to single moves; swaps use the compiler's builtins.
#ifndef CRRECORD_COMMON_ENDIAN_H
#define CRRECORD_COMMON_ENDIAN_H

#include <cstdint>
#include <cstring>

// uint64_t is unsigned long on the LP64 target, so every record field type
// (unsigned short/int/long) has its overload below.
static_assert(sizeof(unsigned long) == 8, "an LP64 target");

namespace crrecord {

inline uint8_t ByteSwap(uint8_t v) { return v; }
inline uint16_t ByteSwap(uint16_t v) { return __builtin_bswap16(v); }
inline uint32_t ByteSwap(uint32_t v) { return __builtin_bswap32(v); }
inline uint64_t ByteSwap(uint64_t v) { return __builtin_bswap64(v); }

template <typename T>
inline T Load(const void* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

template <typename T>
inline void Store(void* p, T v) {
  std::memcpy(p, &v, sizeof v);
}

// Big-endian ("network order") encodings on a little-endian host.
inline uint16_t LoadBE16(const void* p) { return ByteSwap(Load<uint16_t>(p)); }
inline uint32_t LoadBE32(const void* p) { return ByteSwap(Load<uint32_t>(p)); }
inline uint64_t LoadBE64(const void* p) { return ByteSwap(Load<uint64_t>(p)); }
inline void StoreBE16(void* p, uint16_t v) { Store(p, ByteSwap(v)); }
inline void StoreBE32(void* p, uint32_t v) { Store(p, ByteSwap(v)); }
inline void StoreBE64(void* p, uint64_t v) { Store(p, ByteSwap(v)); }

// Values of a record that stands in host or network order: swapped exactly
// when the record is in network order.
template <typename T>
inline T InRecordOrder(T v, bool networkOrder) {
  return networkOrder ? ByteSwap(v) : v;
}

template <typename T>
inline T LoadOrdered(const void* p, bool networkOrder) {
  return InRecordOrder(Load<T>(p), networkOrder);
}

template <typename T>
inline void StoreOrdered(void* p, T v, bool networkOrder) {
  Store(p, InRecordOrder(v, networkOrder));
}

// Swaps the T at p in place.
template <typename T>
inline void SwapInPlace(void* p) {
  Store(p, ByteSwap(Load<T>(p)));
}

}  // namespace crrecord

#endif  // CRRECORD_COMMON_ENDIAN_H
