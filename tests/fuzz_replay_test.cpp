// Replays every stored fuzz corpus and crash input through the fuzz
// targets' entry functions, so that each run of the suite repeats them
// without libFuzzer; and checks the pieces the replay relies on.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "crrecord/DORecord.h"
#include "fuzz_input.h"
#include "fuzz_support.h"
#include "fuzz_targets.h"

namespace {

namespace fs = std::filesystem;

const fs::path kFuzzDir = CRRECORD_FUZZ_DIR;

std::vector<fs::path> FilesIn(const fs::path& dir) {
  std::vector<fs::path> files;
  if (!fs::is_directory(dir)) return files;
  for (const fs::directory_entry& e : fs::directory_iterator(dir)) {
    if (e.is_regular_file()) files.push_back(e.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::vector<uint8_t> Read(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

// A dictionary line as libFuzzer reads it: name="value" or "value", with
// \xNN, \\ and \" the only escapes.
bool WellFormedEntry(const std::string& line) {
  size_t i = 0;
  while (i < line.size() && (std::isalnum(static_cast<unsigned char>(line[i])) || line[i] == '_')) {
    ++i;
  }
  if (i != 0 && (i == line.size() || line[i++] != '=')) return false;
  if (i == line.size() || line[i++] != '"') return false;
  while (i + 1 < line.size()) {
    const char c = line[i++];
    if (c == '"') return false;
    if (c != '\\') continue;
    if (line[i] == '\\' || line[i] == '"') {
      ++i;
    } else if (line[i] == 'x' && i + 2 < line.size() &&
               std::isxdigit(static_cast<unsigned char>(line[i + 1])) &&
               std::isxdigit(static_cast<unsigned char>(line[i + 2]))) {
      i += 3;
    } else {
      return false;
    }
  }
  return i + 1 == line.size() && line[i] == '"';
}

// Broken invariants are collected instead of trapping.
std::vector<std::string> broken;
void Collect(const char* what) { broken.push_back(what); }

class FuzzReplay : public testing::TestWithParam<crfuzz::Target> {
 protected:
  void SetUp() override {
    broken.clear();
    crfuzz::SetInvariantHandler(&Collect);
  }
  void TearDown() override { crfuzz::SetInvariantHandler(nullptr); }

  crfuzz::Outcome Run(const std::vector<uint8_t>& bytes) {
    // An exact-size heap copy, as libFuzzer passes it, so a read past the
    // end shows under the sanitizer build.
    std::unique_ptr<uint8_t[]> copy(new uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), copy.get());
    return GetParam().run(copy.get(), bytes.size());
  }
};

TEST_P(FuzzReplay, EveryStoredInputKeepsEveryInvariant) {
  for (const char* kind : {"corpus", "crashes"}) {
    for (const fs::path& file : FilesIn(kFuzzDir / kind / GetParam().name)) {
      SCOPED_TRACE(file.string());
      broken.clear();
      Run(Read(file));
      EXPECT_EQ(broken, std::vector<std::string>());
    }
  }
}

// Seeds that all fail at the first check, or all pass every check, would
// leave half of the target unexercised: the corpus must hold both.
TEST_P(FuzzReplay, CorpusReachesBothAcceptanceAndRefusal) {
  int accepted = 0, refused = 0;
  for (const fs::path& file : FilesIn(kFuzzDir / "corpus" / GetParam().name)) {
    (Run(Read(file)) == crfuzz::Outcome::kAccepted ? accepted : refused) += 1;
  }
  EXPECT_GE(accepted, 1);
  EXPECT_GE(refused, 1);
}

TEST_P(FuzzReplay, DictionaryHoldsOnlyWellFormedEntries) {
  std::ifstream in(kFuzzDir / (std::string(GetParam().name) + ".dict"));
  ASSERT_TRUE(in.good());
  int entries = 0;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    EXPECT_TRUE(WellFormedEntry(line)) << line;
    ++entries;
  }
  EXPECT_GE(entries, 3);
}

TEST_P(FuzzReplay, EmptyAndOneByteInputsKeepEveryInvariant) {
  Run({});
  for (int b = 0; b < 256; ++b) Run({static_cast<uint8_t>(b)});
  EXPECT_EQ(broken, std::vector<std::string>());
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzReplay,
                         testing::ValuesIn(crfuzz::kTargets,
                                           crfuzz::kTargets + crfuzz::kTargetCount),
                         [](const testing::TestParamInfo<crfuzz::Target>& info) {
                           return std::string(info.param.name);
                         });

TEST(FuzzSupport, CheckReportsOnlyBrokenInvariantsToTheHandler) {
  broken.clear();
  crfuzz::SetInvariantHandler(&Collect);
  EXPECT_TRUE(crfuzz::Check(true, "kept"));
  EXPECT_FALSE(crfuzz::Check(false, "round trip differs"));
  crfuzz::SetInvariantHandler(nullptr);
  EXPECT_EQ(broken, std::vector<std::string>{"round trip differs"});
}

TEST(FuzzSupport, InputReadsLittleEndianAndZerosPastTheEnd) {
  const uint8_t bytes[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06};
  crfuzz::Input in(bytes, sizeof bytes);
  EXPECT_EQ(in.U8(), 0x01);
  EXPECT_EQ(in.U16(), 0x0302);
  EXPECT_EQ(in.U32(), 0x00060504u);  // three bytes left, then zeros
  EXPECT_EQ(in.Left(), 0u);
  EXPECT_EQ(in.U64(), 0u);
  EXPECT_EQ(in.Bytes(3), (std::vector<uint8_t>{0, 0, 0}));
}

// The seed generator writes with RecordParams::Encode what the targets read
// with Decode; if the two drifted apart every seed would mean something else.
TEST(FuzzSupport, RecordParamsDecodeWhatEncodeWrote) {
  crfuzz::RecordParams p;
  p.dotypeByte = 3;
  p.fptypeByte = 2;  // fingerprint type 3: 32-byte fingerprints
  p.options = crfuzz::kBuildConsistent | crfuzz::kBuildUniqueDcids;
  p.cid = 0x1122334455667788ull;
  p.size = 10000;
  p.ssize = 4096;
  p.crc = 0xDEADBEEF;
  p.ctime = 5;
  p.mtime = 6;
  crfuzz::SegmentParams s;
  s.fp.assign(32, 0xAB);
  s.size = 4096;
  s.offset = 8192;
  s.objectOffset = 12;
  s.dcid = 77;
  p.segments = {s, s};
  p.udcids = {{64, 1}, {65, 2}};
  p.udcidChecksum = 9;
  p.refs = {{1, 42}, {3, 7}};
  crfuzz::Writer w;
  p.Encode(w);
  // 3 type/option bytes, 6 header values, a count and two segments of
  // 32 + 4 + 8 + 4 + 8 bytes, the unique DCIDs, then the references.
  EXPECT_EQ(w.Get().size(), 3 + 36 + 2 + 2 * 56 + 1 + 4 + 2 * 16 + 1 + 2 * 9u);

  crfuzz::Input in(w.Get().data(), w.Get().size());
  crfuzz::RecordParams q;
  q.Decode(in);
  EXPECT_EQ(in.Left(), 0u);
  EXPECT_EQ(q.cid, p.cid);
  EXPECT_EQ(q.crc, p.crc);
  ASSERT_EQ(q.segments.size(), 2u);
  EXPECT_EQ(q.segments[1].fp, s.fp);
  EXPECT_EQ(q.segments[1].offset, 8192u);
  EXPECT_EQ(q.segments[1].dcid, 77u);
  EXPECT_EQ(q.udcids, p.udcids);
  EXPECT_EQ(q.udcidChecksum, 9u);
  ASSERT_EQ(q.refs.size(), 2u);
  EXPECT_EQ(q.refs[1].kind, 3);
  EXPECT_EQ(q.refs[1].value, 7u);
}

// Every byte maps to some type, the valid ones all reachable, and refused
// ones too (255 among the DO types), so the targets cover both.
TEST(FuzzSupport, TypeBytesReachEveryValidTypeAndSomeRefusedOnes) {
  std::set<int> dotypes, fptypes;
  for (int b = 0; b < 256; ++b) {
    dotypes.insert(crfuzz::DOTypeFrom(static_cast<uint8_t>(b)));
    fptypes.insert(crfuzz::FPTypeFrom(static_cast<uint8_t>(b)));
  }
  for (int t : {0, 1, 2, 3, 4, 5, 6, 255}) EXPECT_EQ(dotypes.count(t), 1u) << t;
  for (int t : {0, 1, 2, 3, 4}) EXPECT_EQ(fptypes.count(t), 1u) << t;
  EXPECT_EQ(crfuzz::DOTypeFrom(3), 3);
  EXPECT_EQ(crfuzz::FPTypeFrom(2), 3);
}

// A deterministic stream of parameter bytes.
std::vector<uint8_t> PseudoRandomBytes(uint32_t seed, size_t n) {
  std::vector<uint8_t> out(n);
  for (uint8_t& b : out) {
    seed = seed * 1103515245u + 12345u;
    b = static_cast<uint8_t>(seed >> 16);
  }
  return out;
}

// With kBuildConsistent the round-trip targets must get past the builder
// whatever the other values say; a builder that lets bad sizes or DCIDs
// through would leave them testing refusals only.
TEST(FuzzSupport, ConsistentParametersBuildEveryTypeAndWidth) {
  constexpr size_t kCountAt = 3 + 3 * 8 + 3 * 4;  // after the types, options and header values
  for (uint32_t seed = 0; seed < 60; ++seed) {
    std::vector<uint8_t> bytes = PseudoRandomBytes(seed, 2000);
    bytes[0] = static_cast<uint8_t>(seed % 6);      // DO type
    bytes[1] = static_cast<uint8_t>(seed / 6 % 3);  // fingerprint type - 1
    bytes[2] |= crfuzz::kBuildConsistent;
    bytes[kCountAt] = static_cast<uint8_t>(1 + seed % 7);  // segments or bitmap bytes
    bytes[kCountAt + 1] = 0;
    crfuzz::Input in(bytes.data(), bytes.size());
    crfuzz::RecordParams p;
    p.Decode(in);
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::unique_ptr<DORecord> r = crfuzz::BuildRecord(p);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->GetDOType(), p.dotypeByte);
    EXPECT_EQ(r->GetFPType(), p.fptypeByte + 1);
    EXPECT_TRUE(crfuzz::AddRefs(*r, p));
  }
}

TEST(FuzzSupport, UncheckedParametersAreRefusedNotCrashed) {
  crfuzz::RecordParams p;
  p.dotypeByte = 2;
  p.options = 0;  // DCIDs as given: 5 is below 64
  crfuzz::SegmentParams s;
  s.fp.assign(16, 0);
  s.size = 10;
  s.dcid = 5;
  p.segments = {s};
  p.size = 10;
  EXPECT_EQ(crfuzz::BuildRecord(p), nullptr);
  p.options = crfuzz::kBuildConsistent;
  EXPECT_NE(crfuzz::BuildRecord(p), nullptr);
}

// Fields 0 to 11 of the text form are the header's; the segment list after
// them keeps its commas.
TEST(FuzzSupport, TextWithoutBlanksOnlyTheNamedHeaderFields) {
  const std::string text = "3,1,2,100,10,4096,7,1000,2000,1,0,1,[[00ff][64]],[]";
  EXPECT_EQ(crfuzz::TextWithout(text, {6, 7, 8}), "3,1,2,100,10,4096,*,*,*,1,0,1,[[00ff][64]],[]");
  EXPECT_EQ(crfuzz::TextWithout(text, {}), text);
}

TEST(FuzzSupport, CopiesAreAlignedForTheHeaderAndNeverNull) {
  const uint8_t bytes[] = {1, 2, 3};
  crfuzz::Buffer empty = crfuzz::CopyOf(nullptr, 0);
  EXPECT_NE(empty.get(), nullptr);
  crfuzz::Buffer copy = crfuzz::CopyOf(bytes, sizeof bytes, 5);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(copy.get()) % alignof(DORecordHeader), 0u);
  EXPECT_EQ(std::vector<uint8_t>(copy.get(), copy.get() + 8),
            (std::vector<uint8_t>{1, 2, 3, 0, 0, 0, 0, 0}));
}

}  // namespace
