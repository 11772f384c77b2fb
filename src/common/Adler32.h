// Adler-32 (RFC 1950): the checksum of the unique-DCID list and of the
// serialized forms. One implementation serves every use.
#ifndef CRRECORD_SRC_COMMON_ADLER32_H
#define CRRECORD_SRC_COMMON_ADLER32_H

#include <cstddef>
#include <cstdint>

namespace crrecord {

// Continues the checksum `adler` (1 to start) over `length` bytes.
uint32_t Adler32Update(uint32_t adler, const void* data, size_t length);

inline uint32_t Adler32(const void* data, size_t length) { return Adler32Update(1, data, length); }

// The implementations, so that tests can hold each against the others: the
// first call picks the widest one the CPU runs.
enum class Adler32Path { kPortable, kSSSE3, kAVX2, kAVX512 };
bool Adler32PathAvailable(Adler32Path path);
// Routes every later call through `path`; false, and no change, when the
// CPU cannot run it.
bool Adler32ForcePath(Adler32Path path);
Adler32Path Adler32ActivePath();
// The name benchmarks and test messages give the path.
inline const char* Adler32PathName(Adler32Path path) {
  return path == Adler32Path::kAVX512  ? "avx512"
         : path == Adler32Path::kAVX2  ? "avx2"
         : path == Adler32Path::kSSSE3 ? "ssse3"
                                       : "portable";
}

}  // namespace crrecord

#endif  // CRRECORD_SRC_COMMON_ADLER32_H
