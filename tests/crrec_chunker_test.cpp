// The tool's chunkers: fixed sizes, and content-defined cut points that
// respect the minimum and maximum, do not depend on how the input is
// buffered, and re-synchronise after an insertion.
#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <vector>

#include "chunker.h"

namespace {

using crrec::Chunker;
using crrec::ChunkerKind;
using crrec::ChunkerParams;

std::vector<unsigned char> Noise(size_t n, uint64_t seed) {
  std::vector<unsigned char> v(n);
  uint64_t x = seed * 2654435761u + 1;
  for (auto& b : v) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    b = static_cast<unsigned char>(x >> 24);
  }
  return v;
}

// Segment lengths of the whole input, handing the chunker exactly what the
// contract asks: MaxSize bytes ahead, or the rest at the end.
std::vector<size_t> CutAll(const Chunker& c, const std::vector<unsigned char>& data) {
  std::vector<size_t> cuts;
  size_t at = 0;
  while (at < data.size()) {
    size_t ahead = std::min<size_t>(c.MaxSize(), data.size() - at);
    size_t n = c.Cut(data.data() + at, ahead);
    EXPECT_GT(n, 0u);
    cuts.push_back(n);
    at += n;
  }
  return cuts;
}

// Absolute positions where segments end.
std::set<size_t> Ends(const std::vector<size_t>& cuts) {
  std::set<size_t> ends;
  size_t at = 0;
  for (size_t n : cuts) {
    at += n;
    ends.insert(at);
  }
  return ends;
}

ChunkerParams Cdc(uint32_t min, uint32_t avg, uint32_t max) {
  ChunkerParams p;
  p.kind = ChunkerKind::kContentDefined;
  p.minSize = min;
  p.avgSize = avg;
  p.maxSize = max;
  return p;
}

TEST(CrrecChunker, FixedSizeCutsEqualSegmentsAndAShortLastOne) {
  ChunkerParams p;
  p.kind = ChunkerKind::kFixed;
  p.fixedSize = 4096;
  Chunker c(p);
  std::vector<unsigned char> data = Noise(10000, 1);
  EXPECT_EQ(CutAll(c, data), (std::vector<size_t>{4096, 4096, 1808}));
  EXPECT_EQ(c.NominalSize(), 4096u);
}

TEST(CrrecChunker, ContentDefinedCutsRespectMinimumAndMaximum) {
  Chunker c(Cdc(512, 2048, 8192));
  std::vector<unsigned char> data = Noise(1 << 20, 2);
  std::vector<size_t> cuts = CutAll(c, data);
  for (size_t i = 0; i + 1 < cuts.size(); ++i) {
    EXPECT_GE(cuts[i], 512u) << i;
    EXPECT_LE(cuts[i], 8192u) << i;
  }
  // Normalized chunking keeps the mean near the average: between half and
  // twice it on random data.
  double mean = static_cast<double>(data.size()) / static_cast<double>(cuts.size());
  EXPECT_GT(mean, 1024);
  EXPECT_LT(mean, 4096);
}

TEST(CrrecChunker, DataWithoutCutPointsIsCutAtTheMaximum) {
  // A run of one byte value hashes to the same values over and over; the
  // chunker must still stop at the maximum.
  Chunker c(Cdc(256, 1024, 4096));
  std::vector<unsigned char> zeros(20000, 0);
  std::vector<size_t> cuts = CutAll(c, zeros);
  size_t total = 0;
  for (size_t n : cuts) {
    EXPECT_LE(n, 4096u);
    total += n;
  }
  EXPECT_EQ(total, zeros.size());
}

TEST(CrrecChunker, ShortTailIsOneSegment) {
  Chunker c(Cdc(512, 2048, 8192));
  std::vector<unsigned char> data = Noise(300, 3);
  EXPECT_EQ(c.Cut(data.data(), data.size()), 300u);
  EXPECT_EQ(c.Cut(data.data(), 0), 0u);
}

TEST(CrrecChunker, CutPointsAreDeterministicAndIgnoreBytesBeyondTheMaximum) {
  Chunker c(Cdc(512, 2048, 8192));
  std::vector<unsigned char> data = Noise(200000, 4);
  EXPECT_EQ(CutAll(c, data), CutAll(Chunker(Cdc(512, 2048, 8192)), data));
  // A cut never depends on what lies past MaxSize: handing more is the same.
  size_t exact = c.Cut(data.data(), 8192);
  EXPECT_EQ(c.Cut(data.data(), data.size()), exact);
}

TEST(CrrecChunker, CutPointsResynchroniseAfterAnInsertion) {
  Chunker c(Cdc(512, 2048, 8192));
  std::vector<unsigned char> original = Noise(400000, 5);
  std::vector<unsigned char> edited(original);
  const size_t at = 100000;
  std::vector<unsigned char> inserted = Noise(77, 6);
  edited.insert(edited.begin() + at, inserted.begin(), inserted.end());

  std::set<size_t> before = Ends(CutAll(c, original));
  std::set<size_t> after = Ends(CutAll(c, edited));
  // Before the insertion the cuts are the same; well after it, once the
  // segments meet a common cut point again, every cut is shared (moved by
  // the inserted bytes).
  size_t sharedLate = 0, lateBefore = 0;
  for (size_t end : before) {
    if (end < at) {
      EXPECT_TRUE(after.count(end)) << end;
    }
    if (end > at + 20000) {
      ++lateBefore;
      sharedLate += after.count(end + inserted.size());
    }
  }
  EXPECT_GT(lateBefore, 100u);
  EXPECT_EQ(sharedLate, lateBefore);
}

TEST(CrrecChunker, FixedSizeDoesNotResynchroniseAfterAnInsertion) {
  // The reason the tool offers content-defined chunking: with fixed sizes
  // one inserted byte moves every later cut.
  ChunkerParams p;
  p.kind = ChunkerKind::kFixed;
  p.fixedSize = 2048;
  Chunker c(p);
  std::vector<unsigned char> original = Noise(100000, 7);
  std::vector<unsigned char> edited(original);
  edited.insert(edited.begin() + 1000, 0x5a);
  std::set<size_t> before = Ends(CutAll(c, original));
  std::set<size_t> after = Ends(CutAll(c, edited));
  for (size_t end : before) {
    if (end > 1000 && end < original.size()) {
      EXPECT_EQ(after.count(end + 1), 0u) << end;
    }
  }
}

TEST(CrrecChunker, GearTableIsTheFixedSplitMixSequence) {
  // Computed here independently: changing the table would move every cut
  // point of every content-defined record ever built.
  uint64_t state = 0x63727265632d6364ull;
  const uint64_t* gear = crrec::GearTable();
  for (int i = 0; i < 256; ++i) {
    uint64_t z = (state += 0x9e3779b97f4a7c15ull);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    ASSERT_EQ(gear[i], z ^ (z >> 31)) << i;
  }
}

TEST(CrrecChunker, UnusableParametersAreNamed) {
  EXPECT_EQ(crrec::CheckChunkerParams(Cdc(512, 2048, 8192)), "");
  EXPECT_EQ(crrec::CheckChunkerParams(Cdc(4096, 2048, 8192)),
            "segment sizes must grow: minimum 4096 < average 2048 < maximum 8192");
  EXPECT_EQ(crrec::CheckChunkerParams(Cdc(32, 2048, 8192)),
            "the minimum segment size must be at least 64 bytes");
  EXPECT_EQ(crrec::CheckChunkerParams(Cdc(512, 2048, (1u << 30) + 1)),
            "the maximum segment size must be at most 1 GiB");
  ChunkerParams fixed;
  fixed.kind = ChunkerKind::kFixed;
  fixed.fixedSize = 0;
  EXPECT_EQ(crrec::CheckChunkerParams(fixed), "the segment size must be at least 1 byte");
}

}  // namespace
