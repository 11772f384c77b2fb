// The tool's chunkers and build: cut points and stored bytes for known
// inputs, computed apart from the code under test.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "build.h"
#include "chunker.h"
#include "crrec_support.h"
#include "test_support.h"

namespace {

using crrec::ChunkerKind;
using crrec::ChunkerParams;
using crtest::Image;

ChunkerParams Params(ChunkerKind kind, uint32_t min, uint32_t avg = 0, uint32_t max = 0) {
  ChunkerParams p;
  p.kind = kind;
  p.fixedSize = p.minSize = min;
  p.avgSize = avg;
  p.maxSize = max;
  return p;
}

// Sizes of the segments, handing the chunker what its contract asks: the
// maximum ahead, or the rest at the end. The content-defined rows were
// computed by a separate implementation of the gear hash (a 64-bit hash
// shifted left per byte, table from a SplitMix64 sequence of the fixed seed
// "crrec-cd"; a cut where the top bits are zero, strict below the average
// and loose above it, none inside the minimum).
TEST(CrrecChunker, KnownInputsAreCutAtKnownPoints) {
  const struct {
    ChunkerParams params;
    Image data;
    std::vector<size_t> sizes;
  } rows[] = {
      {Params(ChunkerKind::kFixed, 4096), crtest::Noise(10000, 1), {4096, 4096, 1808}},
      {Params(ChunkerKind::kContentDefined, 64, 256, 1024), crtest::Noise(6000, 2),
       {138, 407, 118, 244, 268, 322, 264, 305, 260, 263, 329, 262, 267, 448, 385, 266, 111, 98,
        282, 420, 277, 212, 54}},
      // A run of one byte value has no cut point: the maximum ends it.
      {Params(ChunkerKind::kContentDefined, 512, 2048, 8192), Image(20000, 0), {8192, 8192, 3616}},
      {Params(ChunkerKind::kContentDefined, 512, 2048, 8192), crtest::Noise(300, 3), {300}},
  };
  for (const auto& row : rows) {
    const crrec::Chunker c(row.params);
    std::vector<size_t> sizes;
    for (size_t at = 0; at < row.data.size(); at += sizes.back()) {
      sizes.push_back(c.Cut(&row.data[at], std::min<size_t>(c.MaxSize(), row.data.size() - at)));
      ASSERT_GT(sizes.back(), 0u);
    }
    EXPECT_EQ(sizes, row.sizes);
    // Bytes past the maximum change nothing.
    EXPECT_EQ(c.Cut(row.data.data(), row.data.size()), row.sizes[0]);
  }
}

// Three 4096-byte segments "a...", "b...", "a..." in containers of 4096
// bytes: 64 and 65, and the repeat back in 64. The fingerprints are the MD5
// sums of the slices, the CRC is the CRC-32 of the input, and the list's
// checksum the Adler-32 of its count and entries.
TEST(CrrecBuild, StoredRecordHasTheBytesWrittenByHand) {
  std::string text = std::string(4096, 'a') + std::string(4096, 'b') + std::string(4096, 'a');
  crrec::BuildOptions o;
  o.chunking = Params(ChunkerKind::kFixed, 4096);
  o.dotype = CR_DO_TYPE_NO_SIZE;
  o.fptype = CR_FP_TYPE_MD5;
  o.containerSize = 4096;
  o.cid = 100;
  o.time = 1700000000;
  crrec::MemorySource source(reinterpret_cast<const unsigned char*>(text.data()), text.size());
  const crrec::Built built = crrec::BuildRecord(source, "input", o);
  Image e;
  auto le = [&e](uint64_t v, int n) {
    for (int i = 0; i < n; ++i) e.push_back(static_cast<unsigned char>(v >> (8 * i)));
  };
  le(3, 2), le(2, 2), le(80 + 3 * 24 + 8 + 32, 4), le(0, 8), le(100, 8), le(12288, 8);
  le(4096, 8), le(0x2916f42e, 4), le(1700000000, 4), le(1700000000, 4);
  le(0, 4), le(3, 4), le(2, 4), le(0, 12), le(CR_FP_TYPE_MD5, 1), le(1, 1), le(0, 2);
  const std::string a = "21a199c53f422a380e20b162fb6ebe9c", b = "bdb166b6061ee9331efe719dcee62b41";
  Image fps;
  ASSERT_TRUE(crrec::HexDecode(a + b + a, &fps));
  e.insert(e.end(), fps.begin(), fps.end());
  le(64, 8), le(65, 8), le(64, 8), le(0x0fcc00b4, 4), le(2, 4), le(64, 8), le(8192, 8);
  le(65, 8), le(4096, 8);
  const auto* stored = reinterpret_cast<const unsigned char*>(built.record->GetHeader());
  EXPECT_EQ(crtest::Hex(stored, built.record->GetHeader()->recsize), crtest::Hex(e.data(), e.size()));
}

// 40 segments of 1000 bytes, segment k all bytes k, in containers of 16000.
// Bits h1 + i * h2 (mod 512), i < 7, of each MD5 sum: h1 its first eight
// bytes, h2 its last eight with the lowest bit set, both little-endian.
TEST(CrrecBuild, BloomRecordSetsTheBitsOfEveryFingerprint) {
  Image data;
  for (int k = 0; k < 40; ++k) data.insert(data.end(), 1000, static_cast<unsigned char>(k));
  crrec::BuildOptions o;
  o.chunking = Params(ChunkerKind::kFixed, 1000);
  o.dotype = CR_DO_TYPE_BLOOM_FILTER;
  o.fptype = CR_FP_TYPE_MD5;
  o.containerSize = 16000;
  o.bloomBytes = 64;
  crrec::MemorySource source(data.data(), data.size());
  const crrec::Built built = crrec::BuildRecord(source, "input", o);
  EXPECT_EQ(crtest::Hex(built.record->GetBloom(), built.record->GetBSize()),
            "aef5e96c71180a3f448448c26a570c71c391410c50a9620812c40457e610a3808c9a911a2039240"
            "95d1371068d4ea2b74c2672a4e28e19b16c52618adcba73a6");
  // 16, 16 and 8 segments in containers 64, 65 and 66; then the checksum.
  EXPECT_EQ(crtest::Hex(built.record->GetSegmentUDCIDList(), 4 + 4 + 3 * 16),
            "a202ed4a03000000" "4000000000000000803e000000000000"
            "4100000000000000803e000000000000" "4200000000000000401f000000000000");
}

}  // namespace
