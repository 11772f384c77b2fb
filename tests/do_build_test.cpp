// Building DO records (the segment-list builder's bytes are checked along
// with the segment getters): Bloom records, times, the order of the refusals
// and their exact texts. Refused builds must leave nothing allocated.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "images.h"

namespace {

using namespace crtest;

const char* Chars(const std::vector<uint8_t>& v) { return reinterpret_cast<const char*>(v.data()); }

std::string RecordHex(const DORecord& r) { return Hex(r.GetHeader(), r.GetHeader()->recsize); }

// The Bloom builder's bytes are checked by the text form (the header), the
// digest (the span behind it) and the round trip (the serialized form).
TEST(BuildImage, EmptyBloomSectionEmptyUniqueDcidBlockAndTimesFromTheClock) {
  // The Bloom type through the segment-list builder: an empty Bloom section.
  DORecord empty(70, 0, 4096, 0, 1, 1, nullptr, 0, nullptr, nullptr, 1, 4);
  Bytes expected =
      HeaderImage(80 + 4 + 16, 0, 70, 0, 4096, 0, 1, 1, 0, 0, 0, 0, 0, 0, 1, 4).zeros(20);
  EXPECT_EQ(Hex(expected.data(), expected.size()), RecordHex(empty));

  // A unique-DCID block of no entries is checked (Adler-32 of four zero
  // bytes) but not stored. Zero times become one reading of the clock.
  const Bytes list = SegmentList(2, ThreeSegments(1));
  const std::vector<unsigned long> dcids = Dcids(ThreeSegments(1));
  const std::vector<uint8_t> none = Bytes().le32(0x00040001).le32(0).vec();
  const uint32_t before = Now();
  DORecord plain(70, 10000, 4096, 0, 0, 0, list.data(), 3, dcids.data(), Chars(none), 1, 2);
  DORecord mixed(70, 10000, 4096, 0, 0, 77, list.data(), 3, dcids.data(), nullptr, 1, 2);
  const uint32_t after = Now();
  EXPECT_EQ(plain.GetNudcid(), 0u);
  EXPECT_EQ(plain.getRecSize(), 80u + 3 * (16 + 4 + 8));
  for (const DORecord* r : {&plain, &mixed}) {
    EXPECT_GE(r->GetCTime(), before);
    EXPECT_LE(r->GetCTime(), after);
  }
  EXPECT_EQ(plain.GetCTime(), plain.GetMTime());
  EXPECT_EQ(mixed.GetMTime(), 77u);
}

// Each row repairs the input that failed the row before, so the sequence
// pins the order of the checks as well as each text.
TEST(Build, RefusalsComeInOrder) {
  std::vector<Seg> segs = ThreeSegments(1);
  const Bytes list = SegmentList(2, segs);
  segs[2].size = 1807;
  const Bytes shortList = SegmentList(2, segs);
  const std::vector<unsigned long> good = Dcids(segs), bad = {64, 63, 12};
  const std::vector<uint8_t> udcid = UniqueDcidBlock(kUdcids, false), bitmap = PatternBitmap(64);
  std::vector<uint8_t> badUdcid = udcid;  // checksum word 7 in place of the Adler-32
  badUdcid[0] = 7, badUdcid[1] = badUdcid[2] = badUdcid[3] = 0;
  const std::vector<uint8_t> badNone = Bytes().le32(0x00040002).le32(0).vec();
  const Failure kBadUdcid(9, "Computed CRC (465305951) for unique DCID list doesn't match. "
                             "[crc=7],[count=2],[100,4096,]");
  struct Row {
    bool bloom;              // the Bloom builder: `count` is the bitmap size
    const void* segments;    // or the bitmap
    unsigned count;
    const unsigned long* dcids;
    const std::vector<uint8_t>& udcid;
    uint8_t fptype, dotype;
    Failure failure;
  };
  const Row rows[] = {
      {false, nullptr, 0, nullptr, badUdcid, 0, 200, {9, "Got empty SO list."}},
      {false, list.data(), 0, nullptr, badUdcid, 0, 200, {113, "Invalid CR DO type"}},
      {false, list.data(), 0, nullptr, badUdcid, 0, 2, {111, "Invalid CR fingerprint type"}},
      {false, list.data(), 0, nullptr, badUdcid, 1, 2, {9, "Got empty SO list."}},
      {false, list.data(), 3, nullptr, badUdcid, 1, 4,
       {9, "Got a segment list for a CR_DO_TYPE_BLOOM_FILTER DO record, which has none."}},
      {false, list.data(), 3, nullptr, badUdcid, 1, 2,
       {9, "Got empty DCID list that should not be empty."}},
      // 63 is the largest DCID refused; the good list holds 64.
      {false, list.data(), 3, bad.data(), badUdcid, 1, 2, {9, "Got invalid dcid 63 at index 1"}},
      {false, list.data(), 3, good.data(), badUdcid, 1, 2, kBadUdcid},
      {false, list.data(), 3, good.data(), badNone, 1, 2,
       {9, "Computed CRC (262145) for unique DCID list doesn't match. [crc=262146],[count=0],[]"}},
      // The build itself fails last, in checkSegmentList, after allocating.
      {false, shortList.data(), 3, good.data(), udcid, 1, 2,
       {89, "Segment list of DORecord CR_DO_TYPE_NO_OFFSET is corrupt. "
            "Original file size:10000. Sum of segm. sizes:9999."}},
      {false, list.data(), 3, good.data(), udcid, 1, 2, kPass},
      {true, nullptr, 0, nullptr, badUdcid, 0, 0, {9, "Got empty SO list."}},
      {true, bitmap.data(), 0, nullptr, badUdcid, 0, 9, {113, "Invalid CR DO type"}},
      // A valid DO type other than 4 has no Bloom layout.
      {true, bitmap.data(), 0, nullptr, badUdcid, 0, 2, {113, "Invalid CR DO type"}},
      {true, bitmap.data(), 0, nullptr, badUdcid, 0, 4, {111, "Invalid CR fingerprint type"}},
      {true, nullptr, 0, nullptr, badUdcid, 2, 4, {9, "Got empty bloom filter bitmap."}},
      {true, nullptr, 64, nullptr, badUdcid, 2, 4,
       {9, "Got no bloom filter bitmap for a bitmap size of 64."}},
      {true, bitmap.data(), 64, nullptr, badUdcid, 2, 4, kBadUdcid},
      // 80 + 4 + 0xFFFFFFFF + 16 + 40 bytes cannot be told by a 32-bit
      // recsize. Refused before the bitmap is read, so its length is moot.
      {true, bitmap.data(), 0xFFFFFFFF, nullptr, udcid, 2, 4,
       {9, "DO record of 4294967435 bytes exceeds the largest record size 4294967295."}},
      {true, bitmap.data(), 64, nullptr, udcid, 2, 4, kPass},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.failure.second);
    EXPECT_EQ(Thrown([&] {
                if (row.bloom) {
                  DORecord(70, 0, 4096, 0, 1, 1, row.count,
                           static_cast<const uint8_t*>(row.segments), Chars(row.udcid),
                           row.fptype, row.dotype);
                } else {
                  DORecord(70, 10000, 4096, 0, 1, 1, row.segments, row.count, row.dcids,
                           Chars(row.udcid), row.fptype, row.dotype);
                }
              }),
              row.failure);
  }
}

}  // namespace
