// How wide a fingerprint stands in a record and in text. Every record kind
// keeps fingerprints of type 3 in 32 bytes and those of every other type,
// unknown ones included, in 16; the text form takes two characters per
// byte and a NUL.
#ifndef CRRECORD_COMMON_FINGERPRINTWIDTH_H
#define CRRECORD_COMMON_FINGERPRINTWIDTH_H

namespace crrecord {

constexpr unsigned int FingerprintWidth(unsigned char fptype) { return fptype == 3 ? 32 : 16; }

constexpr unsigned int FingerprintTextWidth(unsigned char fptype) {
  return 2 * FingerprintWidth(fptype) + 1;
}

}  // namespace crrecord

#endif  // CRRECORD_COMMON_FINGERPRINTWIDTH_H
