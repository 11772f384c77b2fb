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

}  // namespace crrecord

#endif  // CRRECORD_SRC_COMMON_ADLER32_H
