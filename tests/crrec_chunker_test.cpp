// The tool's chunkers: fixed sizes, and content-defined cut points that
// respect the minimum and maximum, do not depend on how the input is
// buffered, and re-synchronise after an insertion.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <set>
#include <vector>

#include "chunker.h"
#include "crrec_support.h"

namespace {

using crrec::Chunker;
using crrec::ChunkerKind;
using crrec::ChunkerParams;
using crtest::Noise;

// Absolute positions where segments end, handing the chunker exactly what
// the contract asks: MaxSize bytes ahead, or the rest at the end.
std::vector<size_t> Ends(const Chunker& c, const std::vector<unsigned char>& data) {
  std::vector<size_t> ends;
  for (size_t at = 0; at < data.size();) {
    size_t n = c.Cut(data.data() + at, std::min<size_t>(c.MaxSize(), data.size() - at));
    EXPECT_GT(n, 0u);
    if (n == 0) break;
    ends.push_back(at += n);
  }
  return ends;
}

std::vector<size_t> Sizes(const std::vector<size_t>& ends) {
  std::vector<size_t> sizes;
  for (size_t i = 0; i < ends.size(); ++i) sizes.push_back(ends[i] - (i ? ends[i - 1] : 0));
  return sizes;
}

ChunkerParams Cdc(uint32_t min, uint32_t avg, uint32_t max) {
  ChunkerParams p;
  p.kind = ChunkerKind::kContentDefined;
  p.minSize = min;
  p.avgSize = avg;
  p.maxSize = max;
  return p;
}

ChunkerParams Fixed(uint32_t size) {
  ChunkerParams p;
  p.kind = ChunkerKind::kFixed;
  p.fixedSize = size;
  return p;
}

// With fixed sizes one inserted byte moves every later cut: the reason the
// tool offers content-defined chunking.
TEST(CrrecChunker, FixedSizeCutsEqualSegmentsAndDoesNotResynchronise) {
  Chunker c(Fixed(4096));
  EXPECT_EQ(Sizes(Ends(c, Noise(10000, 1))), (std::vector<size_t>{4096, 4096, 1808}));
  EXPECT_EQ(c.NominalSize(), 4096u);
  std::vector<unsigned char> original = Noise(100000, 7), edited(original);
  edited.insert(edited.begin() + 1000, 0x5a);
  std::vector<size_t> before = Ends(c, original), after = Ends(c, edited);
  for (size_t end : before) {
    if (end > 1000 && end < original.size()) {
      EXPECT_EQ(std::count(after.begin(), after.end(), end + 1), 0) << end;
    }
  }
}

// Normalized chunking keeps the mean between half and twice the average on
// random data. A run of one byte value has no cut points: the chunker must
// still stop at the maximum. A short tail is one segment.
TEST(CrrecChunker, ContentDefinedCutsRespectMinimumAndMaximum) {
  Chunker c(Cdc(512, 2048, 8192));
  for (const std::vector<unsigned char>& data :
       {Noise(1 << 20, 2), std::vector<unsigned char>(20000, 0)}) {
    std::vector<size_t> sizes = Sizes(Ends(c, data));
    for (size_t i = 0; i + 1 < sizes.size(); ++i) {
      EXPECT_GE(sizes[i], 512u) << i;
      EXPECT_LE(sizes[i], 8192u) << i;
    }
    EXPECT_EQ(Ends(c, data).back(), data.size());
    if (data[0] != 0) {
      double mean = static_cast<double>(data.size()) / static_cast<double>(sizes.size());
      EXPECT_GT(mean, 1024);
      EXPECT_LT(mean, 4096);
    }
  }
  std::vector<unsigned char> tail = Noise(300, 3);
  EXPECT_EQ(c.Cut(tail.data(), tail.size()), 300u);
  EXPECT_EQ(c.Cut(tail.data(), 0), 0u);
}

// A cut never depends on what lies past MaxSize: handing more is the same.
TEST(CrrecChunker, CutPointsAreDeterministicAndIgnoreBytesBeyondTheMaximum) {
  Chunker c(Cdc(512, 2048, 8192));
  std::vector<unsigned char> data = Noise(200000, 4);
  EXPECT_EQ(Ends(c, data), Ends(Chunker(Cdc(512, 2048, 8192)), data));
  EXPECT_EQ(c.Cut(data.data(), data.size()), c.Cut(data.data(), 8192));
}

// Before the insertion the cuts are the same; well after it, once the
// segments meet a common cut point again, every cut is shared (moved by
// the inserted bytes).
TEST(CrrecChunker, CutPointsResynchroniseAfterAnInsertion) {
  Chunker c(Cdc(512, 2048, 8192));
  std::vector<unsigned char> original = Noise(400000, 5), edited(original);
  const size_t at = 100000;
  std::vector<unsigned char> inserted = Noise(77, 6);
  edited.insert(edited.begin() + at, inserted.begin(), inserted.end());
  std::vector<size_t> ends = Ends(c, original), edit = Ends(c, edited);
  std::set<size_t> after(edit.begin(), edit.end());
  size_t sharedLate = 0, lateBefore = 0;
  for (size_t end : ends) {
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

// Computed here independently: changing the table would move every cut
// point of every content-defined record ever built.
TEST(CrrecChunker, GearTableIsTheFixedSplitMixSequence) {
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
  EXPECT_EQ(crrec::CheckChunkerParams(Fixed(0)), "the segment size must be at least 1 byte");
}

}  // namespace
