// Replays every stored fuzz corpus and crash input through the fuzz
// targets' entry functions, so that each run of the suite repeats them
// without libFuzzer.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "fuzz_targets.h"

namespace {

namespace fs = std::filesystem;

const fs::path kFuzzDir = CRRECORD_FUZZ_DIR;

// The files of dir in name order; none when there is no such directory.
std::vector<fs::path> FilesIn(const fs::path& dir) {
  std::vector<fs::path> files;
  if (fs::is_directory(dir)) files.assign(fs::directory_iterator(dir), fs::directory_iterator());
  std::sort(files.begin(), files.end());
  return files;
}

// Broken invariants are collected instead of trapping.
std::vector<std::string> broken;
void Collect(const char* what) { broken.push_back(what); }

class FuzzReplay : public testing::TestWithParam<crfuzz::Target> {
 protected:
  void SetUp() override { crfuzz::SetInvariantHandler(&Collect); }
  void TearDown() override { crfuzz::SetInvariantHandler(nullptr); }

  // An exact-size heap copy, as libFuzzer passes it, so that a read past
  // the end shows under the sanitizer build.
  void ExpectInvariantsKept(const std::vector<uint8_t>& bytes, const std::string& name) {
    std::unique_ptr<uint8_t[]> copy(new uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), copy.get());
    broken.clear();
    GetParam().run(copy.get(), bytes.size());
    EXPECT_EQ(broken, std::vector<std::string>()) << name;
  }
};

// Every target has a corpus: a wrong directory must not pass unnoticed.
// The empty input and every one-byte input are replayed as well. A
// failure names the input's file.
TEST_P(FuzzReplay, EveryStoredInputKeepsEveryInvariant) {
  EXPECT_FALSE(FilesIn(kFuzzDir / "corpus" / GetParam().name).empty());
  for (const char* kind : {"corpus", "crashes"}) {
    for (const fs::path& file : FilesIn(kFuzzDir / kind / GetParam().name)) {
      std::ifstream in(file, std::ios::binary);
      ExpectInvariantsKept({std::istreambuf_iterator<char>(in), {}}, file.string());
    }
  }
  ExpectInvariantsKept({}, "empty");
  for (int b = 0; b < 256; ++b) ExpectInvariantsKept({static_cast<uint8_t>(b)}, "one byte");
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzReplay,
                         testing::ValuesIn(crfuzz::kTargets,
                                           crfuzz::kTargets + crfuzz::kTargetCount));

}  // namespace
