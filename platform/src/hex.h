// Hexadecimal text of binary values (fingerprints, typed-reference payloads).
//
// Three implementations give the same bytes and the same verdict on bad
// text: AVX2, SSSE3 and portable code. The first call picks the widest one
// the CPU runs; tests and benchmarks may route the calls through another.
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

// Strided forms for fixed-width values, such as the fingerprints of a
// segment list: value k, `width` bytes at in + k * inStride, has its
// 2 * width digits at out + k * outStride, followed by a NUL when `nul` is
// set. Nothing else is read or written.
void HexEncodeFields(const unsigned char* in, size_t inStride, size_t width, char* out,
                     size_t outStride, size_t count, bool nul);
// Returns count when every field is 2 * width hex digits (followed by a NUL
// when `nul` is set), else the index of the first field that is not; the
// fields before it are decoded, that one may be partly written and the
// later ones are untouched.
size_t HexDecodeFields(const char* in, size_t inStride, size_t width, unsigned char* out,
                       size_t outStride, size_t count, bool nul);

// The implementations, so that tests can hold each against the others.
enum class HexPath { kPortable, kSSSE3, kAVX2 };
bool HexPathAvailable(HexPath path);
// Routes every later call through `path`; false, and no change, when the
// CPU cannot run it.
bool HexForcePath(HexPath path);
HexPath HexActivePath();
// The name benchmarks and test messages give the path.
inline const char* HexPathName(HexPath path) {
  return path == HexPath::kAVX2 ? "avx2" : path == HexPath::kSSSE3 ? "ssse3" : "portable";
}

}  // namespace crrecord

#endif  // CRRECORD_PLATFORM_SRC_HEX_H
