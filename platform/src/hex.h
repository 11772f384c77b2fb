// Hexadecimal text of binary values (fingerprints, typed-reference payloads).
#ifndef CRRECORD_PLATFORM_SRC_HEX_H
#define CRRECORD_PLATFORM_SRC_HEX_H

#include <cstddef>

namespace crrecord {

// Writes the 2 * n lower-case hex digits of in[0..n) to out; no NUL.
void HexEncode(const unsigned char* in, size_t n, char* out);

// Decodes nchars hex digits (either case) into nchars / 2 bytes of out.
// False when nchars is odd or a character is not a hex digit; out is then
// partly written. Reads exactly nchars characters.
bool HexDecode(const char* in, size_t nchars, unsigned char* out);

}  // namespace crrecord

#endif  // CRRECORD_PLATFORM_SRC_HEX_H
