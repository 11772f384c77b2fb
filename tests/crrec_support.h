// Shared pieces of the tool's tests: reproducible input bytes, reference
// digests computed with OpenSSL, and the one line a refusal prints.
#pragma once

#include <openssl/evp.h>

#include <cstdint>
#include <string>
#include <vector>

#include "util.h"

namespace crtest {

// Xorshift bytes: the same for the same seed on every machine.
inline std::vector<unsigned char> Noise(size_t n, uint64_t seed) {
  std::vector<unsigned char> v(n);
  uint64_t x = seed * 0x9e3779b97f4a7c15ull + 7;
  for (auto& b : v) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    b = static_cast<unsigned char>(x >> 32);
  }
  return v;
}

inline std::vector<unsigned char> Digest(const EVP_MD* md, const unsigned char* p, size_t n) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EVP_Digest(p, n, out, &len, md, nullptr);
  return std::vector<unsigned char>(out, out + len);
}

// "<exit code> <line>" of the ToolError the call throws, or "done".
template <typename F>
std::string ToolLine(F call) {
  try {
    call();
  } catch (const crrec::ToolError& e) {
    return std::to_string(e.exitCode()) + " " + e.Line();
  }
  return "done";
}

}  // namespace crtest
