// Shared pieces of the tool's tests: reproducible input bytes, reference
// digests computed with OpenSSL, and the one line a refusal prints.
#pragma once

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <stdlib.h>

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "cli.h"
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

// One run of the command line, in process.
struct Result {
  int code;
  std::string out, err;
};

inline Result Crrec(std::vector<std::string> args) {
  args.insert(args.begin(), "crrec");
  std::ostringstream out, err;
  const int code = crrec::Run(args, out, err);
  return Result{code, out.str(), err.str()};
}

// A test with a scratch directory of its own, removed afterwards.
class ScratchDir : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/crrec_test_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { std::system(("rm -rf " + dir_).c_str()); }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  std::string dir_;
};

}  // namespace crtest
