// Building DO records from a segment list and from a Bloom bitmap: the bytes
// of the result, the order of the refusals and their exact texts.
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "crrecord/DORecord.h"
#include "test_support.h"

namespace {

using crtest::Bytes;

typedef std::pair<cr_status_t, std::string> Failure;

template <typename F>
Failure Thrown(F f) {
  try {
    f();
  } catch (const Cr_ErrnoException& e) {
    return Failure(e.GetStatus(), e.what());
  }
  return Failure(0, "no exception");
}

unsigned FpWidth(uint8_t fptype) { return fptype == 3 ? 32 : 16; }

// Bytes after the fingerprint of a segment entry, per DO type.
unsigned EntryExtra(uint8_t dotype) {
  switch (dotype) {
    case 2: return 4;
    case 3: return 12;
    case 5: return 8;
    default: return 0;
  }
}

struct Seg {
  uint32_t size;
  uint64_t offset;  // file offset (DO type 3) or object offset (DO type 5)
  uint64_t dcid;
};

Bytes SegmentList(uint8_t fptype, uint8_t dotype, const std::vector<Seg>& segs) {
  Bytes b;
  for (size_t i = 0; i < segs.size(); ++i) {
    std::vector<uint8_t> fp = crtest::PatternFP(static_cast<uint8_t>(0x10 * (i + 1)),
                                                FpWidth(fptype));
    b.raw(fp.data(), fp.size());
    if (dotype == 2) b.le32(segs[i].size);
    if (dotype == 3) b.le32(segs[i].size).le64(segs[i].offset);
    if (dotype == 5) b.le32(segs[i].size).le32(static_cast<uint32_t>(segs[i].offset));
  }
  return b;
}

std::vector<unsigned long> Dcids(const std::vector<Seg>& segs) {
  std::vector<unsigned long> out;
  for (const Seg& s : segs) out.push_back(s.dcid);
  return out;
}

// A unique-DCID block sealed with its Adler-32 (over count and entries).
Bytes UdcidBlock(const std::vector<std::pair<uint64_t, uint64_t>>& entries) {
  Bytes body;
  body.le32(static_cast<uint32_t>(entries.size()));
  for (const auto& e : entries) body.le64(e.first).le64(e.second);
  Bytes block;
  block.le32(crtest::SlowAdler32(body.data(), body.size())).raw(body.data(), body.size());
  return block;
}

struct HeaderImage {
  uint32_t recsize;
  uint64_t cid, size, ssize;
  uint32_t crc, ctime, mtime, nfp, nudcid, bsize;
  uint8_t fptype, dotype;
};

Bytes Header(const HeaderImage& h) {
  Bytes b;
  b.le16(3).le16(0x0002).le32(h.recsize).le32(0).le32(0);
  b.le64(h.cid).le64(h.size).le64(h.ssize);
  b.le32(h.crc).le32(h.ctime).le32(h.mtime);
  b.le32(0).le32(h.nfp).le32(h.nudcid).le32(0).le32(0).le32(h.bsize);
  b.u8(h.fptype).u8(h.dotype).zeros(2);
  return b;
}

std::string RecordHex(const DORecord& r) {
  return crtest::Hex(r.GetHeader(), r.GetHeader()->recsize);
}

const std::vector<Seg> kThreeSegs = {
    {4096, 0, 64}, {4096, 4096, 0x0102030405060708}, {1808, 8192, 5000}};
const std::vector<std::pair<uint64_t, uint64_t>> kUdcids = {{100, 4096}, {200, 8192}};

class BuildImage : public ::testing::TestWithParam<std::pair<uint8_t, uint8_t>> {};

TEST_P(BuildImage, RecordBytesFollowTheLayout) {
  const uint8_t dotype = GetParam().first, fptype = GetParam().second;
  Bytes segs = SegmentList(fptype, dotype, kThreeSegs);
  std::vector<unsigned long> dcids = Dcids(kThreeSegs);
  Bytes udcid = UdcidBlock(kUdcids);

  DORecord r(0xABCDEF0123, 10000, 4096, 0xDEADBEEF, 1111, 2222, segs.data(), 3, dcids.data(),
             reinterpret_cast<const char*>(udcid.data()), fptype, dotype);

  const uint32_t recsize = 80 + 3 * (FpWidth(fptype) + EntryExtra(dotype) + 8) + 8 + 2 * 16;
  Bytes expected = Header({recsize, 0xABCDEF0123, 10000, 4096, 0xDEADBEEF, 1111, 2222, 3, 2, 0,
                           fptype, dotype});
  expected.raw(segs.data(), segs.size());
  for (const Seg& s : kThreeSegs) expected.le64(s.dcid);
  expected.raw(udcid.data(), udcid.size());
  ASSERT_EQ(expected.size(), recsize);

  EXPECT_EQ(crtest::Hex(expected.data(), expected.size()), RecordHex(r));
  EXPECT_EQ(r.GetAllocatedSize(), recsize);
  EXPECT_EQ(r.GetBufferMode(), 2u);
  EXPECT_TRUE(r.OwnsBuffer());
  EXPECT_FALSE(r.IsSubDO());
  EXPECT_FALSE(r.IsInNetworkOrder());
}

INSTANTIATE_TEST_SUITE_P(
    EveryTypeAndWidth, BuildImage,
    ::testing::Values(std::make_pair(0, 1), std::make_pair(0, 3), std::make_pair(1, 1),
                      std::make_pair(1, 3), std::make_pair(2, 1), std::make_pair(2, 3),
                      std::make_pair(3, 1), std::make_pair(3, 3), std::make_pair(5, 1),
                      std::make_pair(5, 3)),
    [](const ::testing::TestParamInfo<std::pair<uint8_t, uint8_t>>& info) {
      return "DoType" + std::to_string(info.param.first) + "FpType" +
             std::to_string(info.param.second);
    });

TEST(Build, EmptyUniqueDcidBlockIsCheckedButNotStored) {
  Bytes segs = SegmentList(1, 2, kThreeSegs);
  std::vector<unsigned long> dcids = Dcids(kThreeSegs);
  Bytes empty;
  empty.le32(0x00040001).le32(0);
  DORecord r(70, 10000, 4096, 0, 1, 1, segs.data(), 3, dcids.data(),
             reinterpret_cast<const char*>(empty.data()), 1, 2);
  EXPECT_EQ(r.GetNudcid(), 0u);
  EXPECT_EQ(r.getRecSize(), 80u + 3 * (16 + 4 + 8));

  Bytes wrong;
  wrong.le32(0x00040002).le32(0);
  EXPECT_EQ(Thrown([&] {
              DORecord(70, 10000, 4096, 0, 1, 1, segs.data(), 3, dcids.data(),
                       reinterpret_cast<const char*>(wrong.data()), 1, 2);
            }),
            Failure(9, "Computed CRC (262145) for unique DCID list doesn't match. "
                       "[crc=262146],[count=0],[]"));
}

TEST(Build, ZeroTimesBecomeOneReadingOfTheClock) {
  Bytes segs = SegmentList(1, 0, kThreeSegs);
  std::vector<unsigned long> dcids = Dcids(kThreeSegs);
  const uint32_t before = static_cast<uint32_t>(std::time(nullptr));
  DORecord now(70, 10000, 4096, 0, 0, 0, segs.data(), 3, dcids.data(), nullptr, 1, 0);
  const uint32_t after = static_cast<uint32_t>(std::time(nullptr));
  EXPECT_EQ(now.GetCTime(), now.GetMTime());
  EXPECT_GE(now.GetCTime(), before);
  EXPECT_LE(now.GetCTime(), after);

  DORecord mixed(70, 10000, 4096, 0, 0, 77, segs.data(), 3, dcids.data(), nullptr, 1, 0);
  EXPECT_GE(mixed.GetCTime(), before);
  EXPECT_EQ(mixed.GetMTime(), 77u);
}

TEST(Build, BloomTypeThroughSegmentListBuilderHasEmptyBloomSection) {
  DORecord r(70, 0, 4096, 0, 1, 1, nullptr, 0, nullptr, nullptr, 1, 4);
  Bytes expected = Header({80 + 4 + 16, 70, 0, 4096, 0, 1, 1, 0, 0, 0, 1, 4});
  expected.zeros(4 + 16);
  EXPECT_EQ(crtest::Hex(expected.data(), expected.size()), RecordHex(r));
}

// Each step repairs the input that failed the step before, so the sequence
// pins the order of the checks as well as each text.
TEST(Build, SegmentListRefusalsComeInOrder) {
  Bytes segs = SegmentList(1, 2, kThreeSegs);
  Bytes badSizes = SegmentList(1, 2, {{4096, 0, 64}, {4096, 0, 64}, {1807, 0, 64}});
  std::vector<unsigned long> good = Dcids(kThreeSegs);
  std::vector<unsigned long> bad = {64, 63, 12};
  Bytes udcid = UdcidBlock(kUdcids);
  Bytes udcidBad = UdcidBlock(kUdcids);
  Bytes sealed;  // checksum word 7 instead of the Adler-32
  sealed.le32(7).raw(udcidBad.data() + 4, udcidBad.size() - 4);

  struct Step {
    const void* segments;
    unsigned count;
    const unsigned long* dcids;
    const uint8_t* udcid;
    uint8_t fptype, dotype;
    Failure failure;
  };
  const Step steps[] = {
      {nullptr, 0, nullptr, sealed.data(), 0, 200, {9, "Got empty SO list."}},
      {segs.data(), 0, nullptr, sealed.data(), 0, 200, {113, "Invalid CR DO type"}},
      {segs.data(), 0, nullptr, sealed.data(), 0, 2, {111, "Invalid CR fingerprint type"}},
      {segs.data(), 0, nullptr, sealed.data(), 1, 2, {9, "Got empty SO list."}},
      {segs.data(), 3, nullptr, sealed.data(), 1, 2,
       {9, "Got empty DCID list that should not be empty."}},
      {segs.data(), 3, bad.data(), sealed.data(), 1, 2, {9, "Got invalid dcid 63 at index 1"}},
      {segs.data(), 3, good.data(), sealed.data(), 1, 2,
       {9, "Computed CRC (465305951) for unique DCID list doesn't match. "
           "[crc=7],[count=2],[100,4096,]"}},
      {badSizes.data(), 3, good.data(), udcid.data(), 1, 2,
       {89, "Segment list of DORecord CR_DO_TYPE_NO_OFFSET is corrupt. "
            "Original file size:10000. Sum of segm. sizes:9999."}},
      {segs.data(), 3, good.data(), udcid.data(), 1, 2, {0, "no exception"}},
  };
  for (const Step& s : steps) {
    EXPECT_EQ(Thrown([&] {
                DORecord(70, 10000, 4096, 0, 1, 1, s.segments, s.count, s.dcids,
                         reinterpret_cast<const char*>(s.udcid), s.fptype, s.dotype);
              }),
              s.failure);
  }
}

TEST(Build, DcidBoundaryIs64) {
  Bytes segs = SegmentList(3, 3, kThreeSegs);
  std::vector<unsigned long> dcids = {64, 64, 63};
  EXPECT_EQ(Thrown([&] {
              DORecord(70, 10000, 4096, 0, 1, 1, segs.data(), 3, dcids.data(), nullptr, 3, 3);
            }),
            Failure(9, "Got invalid dcid 63 at index 2"));
  dcids[2] = 64;
  DORecord r(70, 10000, 4096, 0, 1, 1, segs.data(), 3, dcids.data(), nullptr, 3, 3);
  EXPECT_EQ(r.GetSegmentDCID(2), 64u);
}

TEST(Build, SegmentsWithBloomTypeAreRefused) {
  Bytes segs = SegmentList(1, 4, kThreeSegs);
  std::vector<unsigned long> dcids = Dcids(kThreeSegs);
  EXPECT_EQ(Thrown([&] {
              DORecord(70, 10000, 4096, 0, 1, 1, segs.data(), 3, dcids.data(), nullptr, 1, 4);
            }),
            Failure(9, "Got a segment list for a CR_DO_TYPE_BLOOM_FILTER DO record, which has "
                       "none."));
}

std::vector<uint8_t> Bitmap(size_t n) {
  std::vector<uint8_t> b(n);
  for (size_t k = 0; k < n; ++k) b[k] = static_cast<uint8_t>(k * 7 + 3);
  return b;
}

TEST(BuildBloom, BitmapIsStoredAsLengthWordAndBytes) {
  std::vector<uint8_t> bitmap = Bitmap(1024);
  Bytes udcid = UdcidBlock(kUdcids);
  DORecord r(0x1234567, 9000, 4096, 0xCAFE, 1111, 2222, 1024, bitmap.data(),
             reinterpret_cast<const char*>(udcid.data()), 3, 4);

  const uint32_t recsize = 80 + 4 + 1024 + 16 + 8 + 2 * 16;
  Bytes expected =
      Header({recsize, 0x1234567, 9000, 4096, 0xCAFE, 1111, 2222, 0, 2, 1024, 3, 4});
  expected.le32(1024).raw(bitmap.data(), bitmap.size()).zeros(16);
  expected.raw(udcid.data(), udcid.size());
  ASSERT_EQ(expected.size(), recsize);

  EXPECT_EQ(crtest::Hex(expected.data(), expected.size()), RecordHex(r));
  EXPECT_EQ(r.GetAllocatedSize(), recsize);
  EXPECT_EQ(r.calcRecSize(), recsize);
  EXPECT_EQ(r.GetBSize(), 1024u);
  EXPECT_EQ(r.GetNfp(), 0u);
  EXPECT_EQ(r.GetBufferMode(), 2u);
}

TEST(BuildBloom, ZeroTimesBecomeOneReadingOfTheClock) {
  std::vector<uint8_t> bitmap = Bitmap(8);
  const uint32_t before = static_cast<uint32_t>(std::time(nullptr));
  DORecord r(70, 0, 4096, 0, 0, 0, 8, bitmap.data(), nullptr, 1, 4);
  const uint32_t after = static_cast<uint32_t>(std::time(nullptr));
  EXPECT_EQ(r.GetCTime(), r.GetMTime());
  EXPECT_GE(r.GetCTime(), before);
  EXPECT_LE(r.GetCTime(), after);
}

TEST(BuildBloom, RefusalsComeInOrder) {
  std::vector<uint8_t> bitmap = Bitmap(64);
  Bytes udcid = UdcidBlock(kUdcids);
  Bytes sealed;
  sealed.le32(7).raw(udcid.data() + 4, udcid.size() - 4);

  struct Step {
    unsigned bitmapSize;
    const uint8_t* bitmap;
    const uint8_t* udcid;
    uint8_t fptype, dotype;
    Failure failure;
  };
  const Step steps[] = {
      {0, nullptr, sealed.data(), 0, 0, {9, "Got empty SO list."}},
      {0, bitmap.data(), sealed.data(), 0, 9, {113, "Invalid CR DO type"}},
      // A valid DO type other than 4 has no Bloom layout.
      {0, bitmap.data(), sealed.data(), 0, 2, {113, "Invalid CR DO type"}},
      {0, bitmap.data(), sealed.data(), 0, 4, {111, "Invalid CR fingerprint type"}},
      {0, nullptr, sealed.data(), 2, 4, {9, "Got empty bloom filter bitmap."}},
      {64, nullptr, sealed.data(), 2, 4,
       {9, "Got no bloom filter bitmap for a bitmap size of 64."}},
      {64, bitmap.data(), sealed.data(), 2, 4,
       {9, "Computed CRC (465305951) for unique DCID list doesn't match. "
           "[crc=7],[count=2],[100,4096,]"}},
      // 80 + 4 + 0xFFFFFFFF + 16 + 40 bytes: too large for recsize. The
      // bitmap is never read, so its true length does not matter.
      {0xFFFFFFFF, bitmap.data(), udcid.data(), 2, 4,
       {9, "DO record of 4294967435 bytes exceeds the largest record size 4294967295."}},
      {64, bitmap.data(), udcid.data(), 2, 4, {0, "no exception"}},
  };
  for (const Step& s : steps) {
    EXPECT_EQ(Thrown([&] {
                DORecord(70, 0, 4096, 0, 1, 1, s.bitmapSize, s.bitmap,
                         reinterpret_cast<const char*>(s.udcid), s.fptype, s.dotype);
              }),
              s.failure);
  }
}

}  // namespace
