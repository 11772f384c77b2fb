#include "common/Adler32.h"

#include "crrecord/DORecord.h"

namespace crrecord {

namespace {
constexpr uint32_t kModulus = 65521;
// The largest n such that 255 n (n + 1) / 2 + (n + 1) (kModulus - 1) fits
// 32 bits: the sums may go this many bytes without a reduction.
constexpr size_t kMaxDeferred = 5552;
}  // namespace

uint32_t Adler32Update(uint32_t adler, const void* data, size_t length) {
  const unsigned char* p = static_cast<const unsigned char*>(data);
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

}  // namespace crrecord

unsigned int DORecordAdler32(const void* data, size_t length) {
  return crrecord::Adler32(data, length);
}
