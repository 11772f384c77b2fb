// Building DO records from a segment list and from a Bloom bitmap: the bytes
// of the result, the order of the refusals and their exact texts. Refused
// builds must leave nothing allocated (LeakSanitizer checks at exit).
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "images.h"

namespace {

using namespace crtest;

const char* Chars(const std::vector<uint8_t>& v) { return reinterpret_cast<const char*>(v.data()); }

std::string RecordHex(const DORecord& r) { return Hex(r.GetHeader(), r.GetHeader()->recsize); }

// The block of kUdcids with checksum word 7 instead of its Adler-32.
std::vector<uint8_t> BadUdcids() {
  std::vector<uint8_t> block = HostUniqueDcids(kUdcids);
  block[0] = 7, block[1] = block[2] = block[3] = 0;
  return block;
}
const char kBadUdcidMessage[] =
    "Computed CRC (465305951) for unique DCID list doesn't match. [crc=7],[count=2],[100,4096,]";

class BuildImage : public ::testing::TestWithParam<TypeAndWidth> {};

TEST_P(BuildImage, RecordBytesFollowTheLayout) {
  const uint8_t dotype = GetParam().first, fptype = GetParam().second;
  const std::vector<Seg> segs = ThreeSegments(fptype);
  const Bytes list = SegmentList(dotype, segs);
  const std::vector<unsigned long> dcids = Dcids(segs);
  const std::vector<uint8_t> udcid = HostUniqueDcids(kUdcids);

  DORecord r(0xABCDEF0123, 10000, 4096, 0xDEADBEEF, 1111, 2222, list.data(), 3, dcids.data(),
             Chars(udcid), fptype, dotype);

  const uint32_t recsize = 80 + 3 * (FPWidth(fptype) + EntryExtra(dotype) + 8) + 8 + 32;
  Bytes expected = HeaderImage(recsize, 0, 0xABCDEF0123, 10000, 4096, 0xDEADBEEF, 1111, 2222, 0,
                               3, 2, 0, 0, 0, fptype, dotype);
  expected.raw(list.data(), list.size());
  for (const Seg& s : segs) expected.le64(s.dcid);
  expected.raw(udcid.data(), udcid.size());
  ASSERT_EQ(expected.size(), recsize);

  EXPECT_EQ(Hex(expected.data(), expected.size()), RecordHex(r));
  EXPECT_EQ(r.GetAllocatedSize(), recsize);
  EXPECT_EQ(r.GetBufferMode(), 2u);
  EXPECT_TRUE(r.OwnsBuffer());
  EXPECT_FALSE(r.IsSubDO());
  EXPECT_FALSE(r.IsInNetworkOrder());
}

INSTANTIATE_TEST_SUITE_P(EveryTypeAndWidth, BuildImage, EveryTypeAndWidth(), TypeAndWidthName);

TEST(Build, EmptyUniqueDcidBlockIsCheckedButNotStored) {
  const std::vector<Seg> segs = ThreeSegments(1);
  const Bytes list = SegmentList(2, segs);
  const std::vector<unsigned long> dcids = Dcids(segs);
  Bytes empty, wrong;
  empty.le32(0x00040001).le32(0);  // Adler-32 of four zero bytes
  wrong.le32(0x00040002).le32(0);
  DORecord r(70, 10000, 4096, 0, 1, 1, list.data(), 3, dcids.data(), Chars(empty.vec()), 1, 2);
  EXPECT_EQ(r.GetNudcid(), 0u);
  EXPECT_EQ(r.getRecSize(), 80u + 3 * (16 + 4 + 8));
  EXPECT_EQ(Thrown([&] {
              DORecord(70, 10000, 4096, 0, 1, 1, list.data(), 3, dcids.data(),
                       Chars(wrong.vec()), 1, 2);
            }),
            Failure(9, "Computed CRC (262145) for unique DCID list doesn't match. "
                       "[crc=262146],[count=0],[]"));
}

TEST(Build, ZeroTimesBecomeOneReadingOfTheClock) {
  const std::vector<Seg> segs = ThreeSegments(1);
  const Bytes list = SegmentList(0, segs);
  const std::vector<unsigned long> dcids = Dcids(segs);
  const std::vector<uint8_t> bitmap = PatternBitmap(8);
  const uint32_t before = Now();
  DORecord now(70, 10000, 4096, 0, 0, 0, list.data(), 3, dcids.data(), nullptr, 1, 0);
  DORecord bloom(70, 0, 4096, 0, 0, 0, 8, bitmap.data(), nullptr, 1, 4);
  DORecord mixed(70, 10000, 4096, 0, 0, 77, list.data(), 3, dcids.data(), nullptr, 1, 0);
  const uint32_t after = Now();
  for (const DORecord* r : {&now, &bloom}) {
    EXPECT_EQ(r->GetCTime(), r->GetMTime());
    EXPECT_GE(r->GetCTime(), before);
    EXPECT_LE(r->GetCTime(), after);
  }
  EXPECT_GE(mixed.GetCTime(), before);
  EXPECT_EQ(mixed.GetMTime(), 77u);
}

TEST(Build, BloomTypeThroughSegmentListBuilderHasEmptyBloomSection) {
  DORecord r(70, 0, 4096, 0, 1, 1, nullptr, 0, nullptr, nullptr, 1, 4);
  Bytes expected = HeaderImage(80 + 4 + 16, 0, 70, 0, 4096, 0, 1, 1, 0, 0, 0, 0, 0, 0, 1, 4);
  expected.zeros(4 + 16);
  EXPECT_EQ(Hex(expected.data(), expected.size()), RecordHex(r));
}

// Each step repairs the input that failed the step before, so the sequence
// pins the order of the checks as well as each text.
TEST(Build, SegmentListRefusalsComeInOrder) {
  std::vector<Seg> segs = ThreeSegments(1);
  const Bytes list = SegmentList(2, segs);
  segs[2].size = 1807;
  const Bytes shortList = SegmentList(2, segs);
  const std::vector<unsigned long> good = Dcids(segs), bad = {64, 63, 12};
  const std::vector<uint8_t> udcid = HostUniqueDcids(kUdcids), badUdcid = BadUdcids();

  struct Step {
    const void* segments;
    unsigned count;
    const unsigned long* dcids;
    const std::vector<uint8_t>* udcid;
    uint8_t fptype, dotype;
    Failure failure;
  };
  const Step steps[] = {
      {nullptr, 0, nullptr, &badUdcid, 0, 200, {9, "Got empty SO list."}},
      {list.data(), 0, nullptr, &badUdcid, 0, 200, {113, "Invalid CR DO type"}},
      {list.data(), 0, nullptr, &badUdcid, 0, 2, {111, "Invalid CR fingerprint type"}},
      {list.data(), 0, nullptr, &badUdcid, 1, 2, {9, "Got empty SO list."}},
      {list.data(), 3, nullptr, &badUdcid, 1, 4,
       {9, "Got a segment list for a CR_DO_TYPE_BLOOM_FILTER DO record, which has none."}},
      {list.data(), 3, nullptr, &badUdcid, 1, 2,
       {9, "Got empty DCID list that should not be empty."}},
      // 63 is the largest DCID refused; the good list holds 64.
      {list.data(), 3, bad.data(), &badUdcid, 1, 2, {9, "Got invalid dcid 63 at index 1"}},
      {list.data(), 3, good.data(), &badUdcid, 1, 2, {9, kBadUdcidMessage}},
      // The build itself fails last, in checkSegmentList, after allocating.
      {shortList.data(), 3, good.data(), &udcid, 1, 2,
       {89, "Segment list of DORecord CR_DO_TYPE_NO_OFFSET is corrupt. "
            "Original file size:10000. Sum of segm. sizes:9999."}},
      {list.data(), 3, good.data(), &udcid, 1, 2, kPass},
  };
  for (const Step& s : steps) {
    EXPECT_EQ(Thrown([&] {
                DORecord(70, 10000, 4096, 0, 1, 1, s.segments, s.count, s.dcids,
                         Chars(*s.udcid), s.fptype, s.dotype);
              }),
              s.failure);
  }
}

TEST(BuildBloom, BitmapIsStoredAsLengthWordAndBytes) {
  const std::vector<uint8_t> bitmap = PatternBitmap(1024);
  const std::vector<uint8_t> udcid = HostUniqueDcids(kUdcids);
  DORecord r(0x1234567, 9000, 4096, 0xCAFE, 1111, 2222, 1024, bitmap.data(), Chars(udcid), 3, 4);

  const uint32_t recsize = 80 + 4 + 1024 + 16 + 8 + 32;
  Bytes expected = HeaderImage(recsize, 0, 0x1234567, 9000, 4096, 0xCAFE, 1111, 2222, 0, 0, 2, 0,
                               0, 1024, 3, 4);
  expected.le32(1024).raw(bitmap.data(), bitmap.size()).zeros(16);
  expected.raw(udcid.data(), udcid.size());
  ASSERT_EQ(expected.size(), recsize);

  EXPECT_EQ(Hex(expected.data(), expected.size()), RecordHex(r));
  EXPECT_EQ(r.GetAllocatedSize(), recsize);
  EXPECT_EQ(r.calcRecSize(), recsize);
}

TEST(BuildBloom, RefusalsComeInOrder) {
  const std::vector<uint8_t> bitmap = PatternBitmap(64);
  const std::vector<uint8_t> udcid = HostUniqueDcids(kUdcids), badUdcid = BadUdcids();

  struct Step {
    unsigned bitmapSize;
    const uint8_t* bitmap;
    const std::vector<uint8_t>* udcid;
    uint8_t fptype, dotype;
    Failure failure;
  };
  const Step steps[] = {
      {0, nullptr, &badUdcid, 0, 0, {9, "Got empty SO list."}},
      {0, bitmap.data(), &badUdcid, 0, 9, {113, "Invalid CR DO type"}},
      // A valid DO type other than 4 has no Bloom layout.
      {0, bitmap.data(), &badUdcid, 0, 2, {113, "Invalid CR DO type"}},
      {0, bitmap.data(), &badUdcid, 0, 4, {111, "Invalid CR fingerprint type"}},
      {0, nullptr, &badUdcid, 2, 4, {9, "Got empty bloom filter bitmap."}},
      {64, nullptr, &badUdcid, 2, 4, {9, "Got no bloom filter bitmap for a bitmap size of 64."}},
      {64, bitmap.data(), &badUdcid, 2, 4, {9, kBadUdcidMessage}},
      // 80 + 4 + 0xFFFFFFFF + 16 + 40 bytes cannot be told by a 32-bit
      // recsize. Refused before the bitmap is read, so its length is moot.
      {0xFFFFFFFF, bitmap.data(), &udcid, 2, 4,
       {9, "DO record of 4294967435 bytes exceeds the largest record size 4294967295."}},
      {64, bitmap.data(), &udcid, 2, 4, kPass},
  };
  for (const Step& s : steps) {
    EXPECT_EQ(Thrown([&] {
                DORecord(70, 0, 4096, 0, 1, 1, s.bitmapSize, s.bitmap, Chars(*s.udcid),
                         s.fptype, s.dotype);
              }),
              s.failure);
  }
}

}  // namespace
