// Table-driven hex codec: one lookup per byte to encode, one per character to
// decode, and a single validity test per call rather than one per character.
#include "hex.h"

#include <array>
#include <cstring>

namespace crrecord {
namespace {

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

}  // namespace

void HexEncode(const unsigned char* in, size_t n, char* out) {
  for (size_t i = 0; i < n; ++i) std::memcpy(out + 2 * i, &kEncode[2 * in[i]], 2);
}

bool HexDecode(const char* in, size_t nchars, unsigned char* out) {
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

}  // namespace crrecord
