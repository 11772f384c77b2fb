// The byte streams of the structured fuzz targets: Input takes parameters
// from the front of a fuzzer's bytes, little-endian; Writer, the tests' byte
// writer, lays them out the same way for the seed generator, so a seed
// written with Writer reads back as the values written.
#ifndef CRRECORD_FUZZ_FUZZ_INPUT_H
#define CRRECORD_FUZZ_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#define CRTEST_NO_GTEST
#include "../tests/images.h"
#undef CRTEST_NO_GTEST

namespace crfuzz {

// An exhausted input reads as zeros, so every prefix of an input is an input
// too, and the fuzzer's shortening of an input changes only its tail values.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), left_(size) {}

  uint8_t U8() { return Read<uint8_t>(); }
  uint16_t U16() { return Read<uint16_t>(); }
  uint32_t U32() { return Read<uint32_t>(); }
  uint64_t U64() { return Read<uint64_t>(); }

  // n bytes, zero-padded past the end of the input.
  std::vector<uint8_t> Bytes(size_t n) {
    std::vector<uint8_t> out(n, 0);
    const size_t k = n < left_ ? n : left_;
    if (k != 0) std::memcpy(out.data(), data_, k);
    Skip(k);
    return out;
  }

  // Everything not read yet.
  std::vector<uint8_t> Rest() { return Bytes(left_); }
  size_t Left() const { return left_; }

 private:
  template <typename T>
  T Read() {
    uint8_t raw[sizeof(T)] = {};
    const size_t k = sizeof(T) < left_ ? sizeof(T) : left_;
    if (k != 0) std::memcpy(raw, data_, k);
    Skip(k);
    T v = 0;
    for (size_t i = sizeof(T); i-- > 0;) v = static_cast<T>((v << 8) | raw[i]);
    return v;
  }
  void Skip(size_t k) {
    data_ += k;
    left_ -= k;
  }

  const uint8_t* data_;
  size_t left_;
};

// The seed generator lays parameters out with the tests' byte writer, in
// little-endian order as Input reads them.
struct Writer : crtest::Bytes {
  const std::vector<uint8_t>& Get() const { return vec(); }
};

}  // namespace crfuzz

#endif  // CRRECORD_FUZZ_FUZZ_INPUT_H
