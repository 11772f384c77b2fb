// The tool's build: container placement, and records built from a byte
// stream checked against images and fingerprints computed here.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstring>
#include <map>
#include <vector>

#include "build.h"
#include "test_support.h"
#include "util.h"

namespace {

using crrec::BuildOptions;
using crrec::Built;
using crrec::ChunkerKind;
using crrec::ContainerPlacer;
using crrec::MemorySource;

std::vector<unsigned char> Noise(size_t n, uint64_t seed) {
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

std::vector<unsigned char> Digest(const EVP_MD* md, const unsigned char* p, size_t n) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EVP_Digest(p, n, out, &len, md, nullptr);
  return std::vector<unsigned char>(out, out + len);
}

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

TEST(CrrecPlacer, DcidsStartAtTheFirstAndRepeatsGoToTheirFirstContainer) {
  ContainerPlacer placer(/*containerSize=*/10000, /*firstDcid=*/64);
  const unsigned char a[16] = {1}, b[16] = {2}, c[16] = {3}, d[16] = {4};
  auto pa = placer.Place(a, 16, 6000);
  auto pb = placer.Place(b, 16, 4000);  // fills container 64 exactly
  auto pc = placer.Place(c, 16, 1);     // does not fit: container 65
  auto again = placer.Place(a, 16, 6000);
  EXPECT_EQ(pa.dcid, 64u);
  EXPECT_EQ(pa.offset, 0u);
  EXPECT_FALSE(pa.repeated);
  EXPECT_EQ(pb.dcid, 64u);
  EXPECT_EQ(pb.offset, 6000u);
  EXPECT_EQ(pc.dcid, 65u);
  EXPECT_EQ(pc.offset, 0u);
  EXPECT_EQ(again.dcid, 64u);
  EXPECT_EQ(again.offset, 0u);
  EXPECT_TRUE(again.repeated);
  // A segment larger than a container gets one of its own, and the next
  // one opens another.
  EXPECT_EQ(placer.Place(d, 16, 25000).dcid, 66u);
  EXPECT_EQ(placer.Place(b, 8, 10).dcid, 67u);  // other width: another fingerprint
  EXPECT_EQ(placer.containers(), 4u);
  EXPECT_EQ(placer.lastDcid(), 67u);
  EXPECT_EQ(placer.distinctSegments(), 5u);
  EXPECT_EQ(placer.distinctBytes(), 6000u + 4000 + 1 + 25000 + 10);
}

TEST(CrrecBuild, FixedSizeRecordMatchesTheImageWrittenByHand) {
  // Three 4096-byte segments, the third a copy of the first; containers of
  // 4096 bytes put the first two in 64 and 65 and the copy back in 64.
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

  EXPECT_EQ(built.stats.bytes, 12288u);
  EXPECT_EQ(built.stats.segments, 3u);
  EXPECT_EQ(built.stats.distinctSegments, 2u);
  EXPECT_EQ(built.stats.distinctBytes, 8192u);
  EXPECT_EQ(built.stats.containers, 2u);
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
  EXPECT_EQ(built.record->GetCrc(), 0xfeedbeefu);
  EXPECT_EQ(built.record->GetCTime(), 1234567890u);
  EXPECT_EQ(built.record->GetMTime(), 1234567890u);
  EXPECT_EQ(built.record->GetNtaskid(), 2u);
  EXPECT_TRUE(built.record->HasTaskID(42));
  EXPECT_TRUE(built.record->HasDSID(9));
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

TEST(CrrecBuild, UnusableOptionsAreUsageErrors) {
  std::vector<unsigned char> data = Noise(100, 5);
  BuildOptions o;
  o.dotype = CR_DO_TYPE_ORIGINAL;  // with the content-defined chunker
  try {
    BuildFrom(data, o);
    FAIL() << "built";
  } catch (const crrec::ToolError& e) {
    EXPECT_EQ(e.exitCode(), crrec::kExitUsage);
    EXPECT_EQ(e.Line(), "crrec: input: DO types 0 and 1 derive segment sizes from one segment "
                        "size: use --chunker fixed");
  }
  o.dotype = CR_DO_TYPE_NO_OFFSET;
  o.firstDcid = 63;
  EXPECT_EQ(crrec::CheckBuildOptions(o),
            "DCIDs below 64 are invalid: --first-dcid must be at least 64");
  o.firstDcid = 64;
  o.fptype = 4;
  EXPECT_EQ(crrec::CheckBuildOptions(o), "fingerprint type 4 is not one of 1, 2, 3");
}

TEST(CrrecBuild, EmptyInputIsRefused) {
  std::vector<unsigned char> none;
  try {
    BuildFrom(none, BuildOptions());
    FAIL() << "built";
  } catch (const crrec::ToolError& e) {
    EXPECT_EQ(e.exitCode(), crrec::kExitUnsound);
    EXPECT_EQ(e.Line(), "crrec: input: empty input: a DO record needs at least one segment");
  }
}

TEST(CrrecBuild, StreamedInputGivesTheSameRecordWhateverTheReadSizes) {
  // A source that hands out a few bytes at a time must not move any cut.
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
