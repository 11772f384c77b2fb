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
// and a DSID reference unless told; DO types 0 and 1 cut fixed sizes.
inline crrec::Built BuildNoise(unsigned char dotype, unsigned char fptype, size_t size = 300000,
                               bool refs = true) {
  static const Image data = Noise(400000, 3);
  crrec::BuildOptions o;
  o.dotype = dotype;
  o.fptype = fptype;
  o.containerSize = 100000;
  o.time = 1600000000;
  o.chunking.kind = dotype <= 1 ? crrec::ChunkerKind::kFixed : crrec::ChunkerKind::kContentDefined;
  if (refs) o.taskIds = {42};
  if (refs) o.dsids = {5};
  crrec::MemorySource source(data.data(), size);
  return crrec::BuildRecord(source, "built", o);
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
  std::string Write(const std::string& name, const Image& bytes) const {
    std::ofstream(Path(name), std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<long>(bytes.size()));
    return Path(name);
  }
  std::string Read(const std::string& name) const {
    std::ifstream f(Path(name), std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  }
  std::string dir_;
};

}  // namespace crtest
