// Shared pieces of the tool's tests: reproducible input bytes, records built
// by the tool, the line a refusal prints, and runs of the command line.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "build.h"
#include "cli.h"
#include "util.h"

namespace crtest {

using Image = std::vector<unsigned char>;

// Xorshift bytes: the same for the same seed on every machine.
inline Image Noise(size_t n, uint64_t seed) {
  Image v(n);
  uint64_t x = seed * 0x9e3779b97f4a7c15ull + 7;
  for (auto& b : v) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    b = static_cast<unsigned char>(x >> 32);
  }
  return v;
}

// A record of `size` noise bytes in containers of 100000, with a task-ID
// and a DSID reference; DO types 0 and 1 cut fixed sizes.
inline crrec::Built BuildNoise(unsigned char dotype, unsigned char fptype, size_t size = 300000) {
  static const Image data = Noise(400000, 3);
  crrec::BuildOptions o;
  o.dotype = dotype;
  o.fptype = fptype;
  o.containerSize = 100000;
  o.time = 1600000000;
  o.chunking.kind = dotype <= 1 ? crrec::ChunkerKind::kFixed : crrec::ChunkerKind::kContentDefined;
  o.taskIds = {42};
  o.dsids = {5};
  crrec::MemorySource source(data.data(), size);
  return crrec::BuildRecord(source, "built", o);
}

// A segment DB record: one task ID (42), one MD5 fingerprint, DCID 1000.
constexpr const char* kSegmentDbHex =
    "0200020080000000000000000100000000f1536500000000e8030000000000000000000000000000"
    "00000100000000000700000001000000404142434445464748494a4b4c4d4e4f5051525354555657"
    "58595a5b5c5d5e5f60010400000000002a000000000000000102030405060708090a0b0c0d0e0f10"
    "0000000000000000";

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
  std::string Read(const std::string& name) const {
    std::ifstream f(Path(name), std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  }
  std::string dir_;
};

}  // namespace crtest
