// The tool's build: container placement, and records built from a byte
// stream checked against images and fingerprints computed here.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "build.h"
#include "crrec_support.h"
#include "images.h"

namespace {

using crrec::BuildOptions;
using crrec::Built;
using crrec::ChunkerKind;
using crrec::ContainerPlacer;
using crrec::MemorySource;
using crtest::Digest;
using crtest::Noise;

// CRC-32 (the zip polynomial), bit by bit.
uint32_t SlowCrc32(const unsigned char* p, size_t n) {
  uint32_t crc = 0xFFFFFFFFu;
  for (size_t i = 0; i < n; ++i) {
    crc ^= p[i];
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1)));
  }
  return ~crc;
}

std::vector<unsigned char> StoredImage(const DORecord& r) {
  const DORecordHeader* h = r.GetHeader();
  const unsigned char* p = reinterpret_cast<const unsigned char*>(h);
  return std::vector<unsigned char>(p, p + h->recsize);
}

Built BuildFrom(const std::vector<unsigned char>& data, const BuildOptions& o) {
  MemorySource source(data.data(), data.size());
  return crrec::BuildRecord(source, "input", o);
}

// Repeats go to their first container; a segment larger than a container
// gets one of its own, and the next one opens another; another width is
// another fingerprint.
TEST(CrrecPlacer, DcidsStartAtTheFirstAndRepeatsGoToTheirFirstContainer) {
  ContainerPlacer placer(/*containerSize=*/10000, /*firstDcid=*/64);
  const unsigned char a[16] = {1}, b[16] = {2}, c[16] = {3}, d[16] = {4};
  struct Step { const unsigned char* fp; size_t width, size; uint64_t dcid, offset; bool repeated; };
  const Step steps[] = {{a, 16, 6000, 64, 0, false}, {b, 16, 4000, 64, 6000, false},
                        {c, 16, 1, 65, 0, false},    {a, 16, 6000, 64, 0, true},
                        {d, 16, 25000, 66, 0, false}, {b, 8, 10, 67, 0, false}};
  for (const Step& s : steps) {
    auto p = placer.Place(s.fp, s.width, s.size);
    EXPECT_EQ(std::make_tuple(p.dcid, p.offset, p.repeated),
              std::make_tuple(s.dcid, s.offset, s.repeated)) << s.size;
  }
  EXPECT_EQ(placer.containers(), 4u);
  EXPECT_EQ(placer.lastDcid(), 67u);
  EXPECT_EQ(placer.distinctSegments(), 5u);
  EXPECT_EQ(placer.distinctBytes(), 6000u + 4000 + 1 + 25000 + 10);
}

// Three 4096-byte segments, the third a copy of the first; containers of
// 4096 bytes put the first two in 64 and 65 and the copy back in 64.
TEST(CrrecBuild, FixedSizeRecordMatchesTheImageWrittenByHand) {
  std::vector<unsigned char> data = Noise(8192, 1);
  data.insert(data.end(), data.begin(), data.begin() + 4096);
  BuildOptions o;
  o.chunking.kind = ChunkerKind::kFixed;
  o.chunking.fixedSize = 4096;
  o.dotype = CR_DO_TYPE_NO_SIZE;
  o.fptype = CR_FP_TYPE_MD5;
  o.containerSize = 4096;
  o.cid = 100;
  o.time = 1700000000;
  Built built = BuildFrom(data, o);

  std::vector<unsigned char> fp0 = Digest(EVP_md5(), data.data(), 4096);
  std::vector<unsigned char> fp1 = Digest(EVP_md5(), data.data() + 4096, 4096);
  crtest::Bytes udcid;
  udcid.le32(2).le64(64).le64(8192).le64(65).le64(4096);
  crtest::Bytes expected;
  expected.le16(3).le16(0x0002).le32(80 + 3 * 24 + 8 + 32).le32(0).le32(0)
      .le64(100).le64(12288).le64(4096)
      .le32(SlowCrc32(data.data(), data.size())).le32(1700000000).le32(1700000000)
      .le32(0).le32(3).le32(2).le32(0).le32(0).le32(0)
      .u8(CR_FP_TYPE_MD5).u8(CR_DO_TYPE_NO_SIZE).zeros(2)
      .raw(fp0.data(), 16).raw(fp1.data(), 16).raw(fp0.data(), 16)
      .le64(64).le64(65).le64(64)
      .le32(crtest::SlowAdler32(udcid.data(), udcid.size())).raw(udcid.data(), udcid.size());
  EXPECT_EQ(crtest::Hex(StoredImage(*built.record).data(), built.record->GetHeaderSize()),
            crtest::Hex(expected.data(), expected.size()));

  const auto& st = built.stats;
  EXPECT_EQ(std::vector<uint64_t>({st.bytes, st.segments, st.distinctSegments, st.distinctBytes,
                                   st.containers}),
            std::vector<uint64_t>({12288, 3, 2, 8192, 2}));
}

TEST(CrrecBuild, ContentDefinedRecordCarriesSizesOffsetsAndFingerprintsOfTheSlices) {
  std::vector<unsigned char> data = Noise(300000, 2);
  BuildOptions o;
  o.chunking.minSize = 1024;
  o.chunking.avgSize = 4096;
  o.chunking.maxSize = 16384;
  o.fptype = CR_FP_TYPE_SHA256;
  for (unsigned char dotype : {CR_DO_TYPE_8_BYTE_OFFSET, CR_DO_TYPE_4_BYTE_OFFSET,
                               CR_DO_TYPE_NO_OFFSET}) {
    o.dotype = dotype;
    Built built = BuildFrom(data, o);
    const DORecord& r = *built.record;
    ASSERT_GT(r.GetNfp(), 20u);
    EXPECT_EQ(r.GetSsize(), 4096u);  // the average: what ssize says of such a record
    uint64_t at = 0;
    for (unsigned int i = 0; i < r.GetNfp(); ++i) {
      const unsigned int size = r.GetSegmentSize(i);
      ASSERT_LE(at + size, data.size());
      if (dotype == CR_DO_TYPE_8_BYTE_OFFSET) {
        EXPECT_EQ(r.GetSegmentOffset(i), at) << i;
      }
      if (dotype == CR_DO_TYPE_4_BYTE_OFFSET) {
        EXPECT_EQ(r.GetSegmentObjectOffset(i), at) << i;
      }
      std::vector<unsigned char> fp = Digest(EVP_sha256(), data.data() + at, size);
      EXPECT_EQ(crtest::Hex(r.GetSegmentFP(i), 32), crtest::Hex(fp.data(), 32)) << i;
      at += size;
    }
    EXPECT_EQ(at, data.size());
  }
}

TEST(CrrecBuild, TimeAndReferencesAreStoredAndMtimeStaysTheGivenTime) {
  std::vector<unsigned char> data = Noise(20000, 3);
  BuildOptions o;
  o.time = 1234567890;
  o.crcGiven = true;
  o.crc = 0xfeedbeef;
  o.taskIds = {42, 7};
  o.dsids = {9};
  Built built = BuildFrom(data, o);
  const DORecord& r = *built.record;
  EXPECT_EQ(std::vector<uint64_t>({r.GetCrc(), r.GetCTime(), r.GetMTime(), r.GetNtaskid()}),
            std::vector<uint64_t>({0xfeedbeef, 1234567890, 1234567890, 2}));
  EXPECT_TRUE(r.HasTaskID(42) && r.HasTaskID(7) && r.HasDSID(9));
}

TEST(CrrecBuild, BloomRecordSetsTheBitsOfEveryDistinctFingerprint) {
  std::vector<unsigned char> data = Noise(40000, 4);
  BuildOptions o;
  o.chunking.kind = ChunkerKind::kFixed;
  o.chunking.fixedSize = 1000;
  o.dotype = CR_DO_TYPE_BLOOM_FILTER;
  o.fptype = CR_FP_TYPE_MD5;
  o.containerSize = 16000;
  o.bloomBytes = 64;
  Built built = BuildFrom(data, o);
  const DORecord& r = *built.record;
  ASSERT_EQ(r.GetBSize(), 64u);
  EXPECT_EQ(r.GetNfp(), 0u);
  const unsigned char* bitmap = r.GetBloom();
  for (size_t at = 0; at < data.size(); at += 1000) {
    std::vector<unsigned char> fp = Digest(EVP_md5(), data.data() + at, 1000);
    uint64_t h1, h2;
    std::memcpy(&h1, fp.data(), 8);
    std::memcpy(&h2, fp.data() + 8, 8);
    h2 |= 1;
    for (uint64_t i = 0; i < 7; ++i) {
      const uint64_t bit = (h1 + i * h2) % 512;
      EXPECT_TRUE(bitmap[bit / 8] & (1u << (bit % 8))) << at << " " << i;
    }
  }
  // 40 segments of 1000 bytes in containers of 16000: 16, 16 and 8 of them.
  crtest::Bytes udcid;
  udcid.le32(3).le64(64).le64(16000).le64(65).le64(16000).le64(66).le64(8000);
  crtest::Bytes section;
  section.le32(crtest::SlowAdler32(udcid.data(), udcid.size())).raw(udcid.data(), udcid.size());
  EXPECT_EQ(crtest::Hex(r.GetSegmentUDCIDList(), section.size()),
            crtest::Hex(section.data(), section.size()));
}

// DO types 0 and 1 need the fixed chunker; empty input has no segment.
TEST(CrrecBuild, UnusableOptionsAndEmptyInputAreRefused) {
  std::vector<unsigned char> data = Noise(100, 5);
  BuildOptions o;
  o.dotype = CR_DO_TYPE_ORIGINAL;
  EXPECT_EQ(crtest::ToolLine([&] { BuildFrom(data, o); }),
            std::to_string(crrec::kExitUsage) + " crrec: input: DO types 0 and 1 derive segment "
            "sizes from one segment size: use --chunker fixed");
  EXPECT_EQ(crtest::ToolLine([] { BuildFrom({}, BuildOptions()); }),
            std::to_string(crrec::kExitUnsound) +
                " crrec: input: empty input: a DO record needs at least one segment");
  o.dotype = CR_DO_TYPE_NO_OFFSET;
  o.firstDcid = 63;
  EXPECT_EQ(crrec::CheckBuildOptions(o),
            "DCIDs below 64 are invalid: --first-dcid must be at least 64");
  o.firstDcid = 64;
  o.fptype = 4;
  EXPECT_EQ(crrec::CheckBuildOptions(o), "fingerprint type 4 is not one of 1, 2, 3");
}

// A source that hands out a few bytes at a time must not move any cut.
TEST(CrrecBuild, StreamedInputGivesTheSameRecordWhateverTheReadSizes) {
  class Trickle : public crrec::ByteSource {
   public:
    explicit Trickle(const std::vector<unsigned char>& d) : d_(d) {}
    size_t Read(unsigned char* buffer, size_t n) override {
      size_t take = std::min<size_t>({n, 777, d_.size() - at_});
      std::memcpy(buffer, d_.data() + at_, take);
      at_ += take;
      return take;
    }

   private:
    const std::vector<unsigned char>& d_;
    size_t at_ = 0;
  };
  std::vector<unsigned char> data = Noise(3 << 20, 6);
  BuildOptions o;
  o.time = 1;
  Built whole = BuildFrom(data, o);
  Trickle trickle(data);
  Built streamed = crrec::BuildRecord(trickle, "input", o);
  EXPECT_EQ(StoredImage(*whole.record), StoredImage(*streamed.record));
}

}  // namespace
