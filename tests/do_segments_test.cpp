// Per-segment getters and setters of a DO record in both byte orders, and
// the segment-list check with its exact messages.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "do_records.h"

namespace {

using namespace crtest;
typedef std::unique_ptr<DORecord> Rec;

const unsigned char* Base(const DORecord& r) {
  return reinterpret_cast<const unsigned char*>(r.GetHeader());
}

// DO type `dotype`, the three segments of a 10000-byte file; mtime 1.
Rec Three(uint8_t dotype, uint8_t fptype = 1) {
  return Make(dotype, fptype, 10000, 4096, ThreeSegments(fptype));
}

// 16-byte-fingerprint segments in container 64, {size, offset}; the offset
// serves as file offset (DO type 3) and object offset (DO type 5).
Rec Sized(uint8_t dotype, uint64_t size, uint64_t ssize,
          const std::vector<std::pair<uint32_t, uint64_t>>& sizeOffset) {
  std::vector<Seg> segs;
  for (const auto& so : sizeOffset) {
    segs.push_back({PatternFP(0x30, 16), so.first, so.second, uint32_t(so.second), 64});
  }
  return Make(dotype, 1, size, ssize, segs);
}

void ExpectSegments(const DORecord& r, uint8_t dotype, uint8_t fptype) {
  const unsigned entry = FPWidth(fptype) + EntryExtra(dotype);
  const unsigned char* list = Base(r) + 80;
  const std::vector<Seg> segs = ThreeSegments(fptype);
  for (unsigned i = 0; i < 3; ++i) {
    SCOPED_TRACE("segment " + std::to_string(i));
    const Seg& s = segs[i];
    EXPECT_EQ(r.GetSegmentFP(i), list + i * entry);
    EXPECT_EQ(Hex(r.GetSegmentFP(i), s.fp.size()), Hex(s.fp.data(), s.fp.size()));
    // Types 0 and 1 derive 4096, 4096, 1808 from size 10000 and ssize 4096.
    EXPECT_EQ(r.GetSegmentSize(i), s.size);
    EXPECT_EQ(r.GetSegmentOffset(i), dotype == 3 ? s.offset : ~0ul);
    EXPECT_EQ(r.GetSegmentObjectOffset(i), dotype == 5 ? s.objectOffset : 0xFFFFFFFFu);
    EXPECT_EQ(r.GetSegmentDCID(i), s.dcid);
  }
  EXPECT_EQ(r.GetSegmentDCIDList(), list + 3 * entry);
  EXPECT_EQ(r.GetSegmentUDCIDList(), list + 3 * (entry + 8));
  EXPECT_EQ(r.GetSegmentUDCID(0), 100u);
  EXPECT_EQ(r.GetSegmentUDCID(1), 200u);
}

class SegmentGetters : public ::testing::TestWithParam<TypeAndWidth> {};

TEST_P(SegmentGetters, ReadHostValuesInBothByteOrders) {
  const uint8_t dotype = GetParam().first, fptype = GetParam().second;
  Rec r = Three(dotype, fptype);
  ExpectSegments(*r, dotype, fptype);
  r->HostToNetwork(0);
  // The stored fields really are big-endian now: nfp, and segment 1's size.
  EXPECT_EQ(Hex(Base(*r) + 56, 4), "00000003");
  if (EntryExtra(dotype) != 0) {
    const unsigned w = FPWidth(fptype);
    EXPECT_EQ(Hex(Base(*r) + 80 + w + EntryExtra(dotype) + w, 4), "00001000");
  }
  ExpectSegments(*r, dotype, fptype);
  EXPECT_EQ(Thrown([&] { r->checkSegmentList(); }), kPass);
}

INSTANTIATE_TEST_SUITE_P(EveryTypeAndWidth, SegmentGetters, EveryTypeAndWidth(), TypeAndWidthName);

// Each setter against the record's bytes: the field it writes (hex, at a
// hand-computed offset; none for a field the DO type lacks) and whether it
// stamps mtime (offset 48).
enum Field { kSize, kOffset, kObjectOffset, kFP, kDCID };

TEST(SegmentSetters, WriteTheirFieldInPlaceAndStampAsDocumented) {
  crfp_digest_t digest;
  for (unsigned k = 0; k < 32; ++k) digest.digest[k] = static_cast<uint8_t>(0xA0 + k);
  struct Row {
    uint8_t dotype, fptype;
    Field field;
    unsigned long value;
    size_t at;
    std::string bytes;
    bool stamps;
  };
  const std::string fp16 = Hex(digest.digest, 16), fp32 = Hex(digest.digest, 32);
  // Entries: type 3 fp 16 is 28 bytes (size +16, offset +20); type 5 fp 32 is
  // 40 (object offset +36); type 2 is 20 or 36; the DCIDs follow the entries.
  const Row rows[] = {
      {3, 1, kSize, 0x11223344, 80 + 28 + 16, "44332211", true},
      {3, 1, kOffset, 0x0A0B0C0D0E0F1011, 80 + 56 + 20, "11100f0e0d0c0b0a", true},
      {5, 3, kObjectOffset, 0xCAFEBABE, 80 + 40 + 36, "bebafeca", true},
      {0, 1, kSize, 7, 0, "", true},
      {1, 1, kSize, 7, 0, "", true},
      {0, 1, kOffset, 7, 0, "", true},
      {2, 1, kOffset, ~0ul, 0, "", true},
      {5, 1, kOffset, ~0ul, 0, "", true},
      {2, 1, kObjectOffset, 0xFFFFFFFF, 0, "", true},
      {3, 1, kObjectOffset, 0xFFFFFFFF, 0, "", true},
      {2, 1, kFP, 0, 80 + 20, fp16, false},
      {2, 3, kFP, 0, 80 + 36, fp32, false},
      {2, 3, kDCID, 0x8877665544332211, 80 + 3 * 36 + 8, "1122334455667788", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "type " << int(row.dotype) << " at " << row.at);
    Rec r = Three(row.dotype, row.fptype);
    std::string expected = Hex(Base(*r), r->getRecSize());
    expected.replace(2 * row.at, row.bytes.size(), row.bytes);
    const uint32_t before = Now();
    if (row.field == kSize) r->SetSegmentSize(1, static_cast<uint32_t>(row.value));
    if (row.field == kOffset) r->SetSegmentOffset(2, row.value);
    if (row.field == kObjectOffset) r->SetSegmentObjectOffset(1, uint32_t(row.value));
    if (row.field == kFP) r->SetSegmentFP(1, digest);
    if (row.field == kDCID) r->SetSegmentDCID(1, row.value);
    if (row.stamps) {
      EXPECT_GE(r->GetMTime(), before);
      EXPECT_LE(r->GetMTime(), Now());
      expected.replace(2 * 48, 8, Hex(Base(*r) + 48, 4));
    }
    EXPECT_EQ(Hex(Base(*r), r->getRecSize()), expected);
  }
}

TEST(SegmentSetters, ValuesAreStoredAsGivenInNetworkOrder) {
  Rec r = Three(2);
  r->HostToNetwork(0);
  const uint32_t before = Now();
  r->SetSegmentSize(0, 0x01020304);
  EXPECT_EQ(Hex(Base(*r) + 80 + 16, 4), "04030201");
  EXPECT_EQ(r->GetSegmentSize(0), 0x04030201u);
  // mtime is stamped in the record's order: the getter reads the time back.
  EXPECT_GE(r->GetMTime(), before);
  EXPECT_LE(r->GetMTime(), Now());
}

// --- checkSegmentList and its two magnitude passes -----------------------------------

enum Check { kList, kSizes, kOffsets };

Failure Magnitude(const std::string& what) {
  return Failure(89, "Segment list of a DORecord is corrupt. Segment 0 has " + what +
                         ". Data is probably in wrong byte order (host vs. network order)");
}
const Failure kSizeMagnitude = Magnitude("size 2147483648 (> 2 GiB)");
const Failure kOffsetMagnitude = Magnitude("offset 9223372036854775808 (> 8192 PetaB)");

Failure Total(uint64_t size, uint64_t bound) {
  return Failure(89, "Segment list of DORecord CR_DO_TYPE_ORIGINAL|CR_DO_TYPE_NO_SIZE is "
                     "corrupt. Original file size:" + std::to_string(size) +
                         ". Segm. size times segm. count:" + std::to_string(bound) + ".");
}
Failure Sum(const std::string& type, uint64_t sum) {
  return Failure(89, "Segment list of DORecord " + type + " is corrupt. Original file "
                     "size:10000. Sum of segm. sizes:" + std::to_string(sum) + ".");
}
const std::string kOffset8 = "Segment list of DORecord CR_DO_TYPE_8_BYTE_OFFSET is corrupt. ";
const Failure kOverlap(89, kOffset8 + "Offset of segm. 1:4095. Previous segm. end:4096.");

// Sizes 2^31 - 1 and 1 back to back, adding up to 2^31; `big` makes the
// first 2^31 (moving the second to offset 2^31); `sub` marks a sub-DO.
Rec Bit31(uint8_t dotype, bool big, bool sub) {
  Rec r = Sized(dotype, 2147483648, 4096, {{2147483647, 0}, {1, 2147483647}});
  if (big) {
    r->SetSegmentSize(0, 2147483648u);
    r->SetSegmentSize(1, 0);
    r->SetSegmentOffset(1, 2147483648u);
  }
  r->SetSubDO(sub);
  return r;
}

// One segment at offset 2^63 - 1 (`big`: 2^63), of size 0 (`bigSize`: 2^31).
Rec Bit63(bool big, bool sub, bool bigSize = false) {
  Rec r = Sized(3, 9223372036854775807u, 4096, {{0, 9223372036854775807u}});
  if (big) r->SetSegmentOffset(0, 9223372036854775808u);
  if (bigSize) r->SetSegmentSize(0, 2147483648u);
  r->SetSubDO(sub);
  return r;
}

// Segment 1 of 4000 bytes in place of 4096.
Rec ShortSum(uint8_t dotype, bool network) {
  Rec r = Three(dotype);
  r->SetSegmentSize(1, 4000);
  if (network) r->HostToNetwork(0);
  return r;
}

// Segment 1 starts a byte before segment 0 ends.
Rec Overlap(bool network) {
  Rec r = Sized(3, 4196, 4096, {{4096, 0}, {100, 4096}});
  r->SetSegmentOffset(1, 4095);
  if (network) r->HostToNetwork(0);
  return r;
}

Rec WithType(uint8_t dotype) {
  Rec r = Three(2);
  r->SetSegmentSize(0, 2147483648u);  // unsound for DO type 2
  r->GetHeader()->dotype = dotype;
  return r;
}

Rec NoSegments(uint8_t dotype) {
  Rec r = Three(dotype);
  r->GetHeader()->nfp = 0;  // as a received record with no segments reads
  return r;
}

TEST(CheckSegmentList, EachFaultWithItsStatusAndText) {
  struct Row {
    Rec (*make)();
    Check check;
    Failure failure;
  };
  const Row rows[] = {
      // Derived sizes (types 0, 1) bound the file size.
      {[] { return Sized(0, 0, 4096, {{0, 0}, {0, 0}}); }, kList, kPass},
      {[] { return Sized(1, 12288, 4096, {{0, 0}, {0, 0}, {0, 0}}); }, kList, kPass},
      {[] { return Sized(0, 12289, 4096, {{0, 0}, {0, 0}, {0, 0}}); }, kList, Total(12289, 12288)},
      {[] { return Sized(1, 12289, 4096, {{0, 0}, {0, 0}, {0, 0}}); }, kList, Total(12289, 12288)},
      {[] { return NoSegments(0); }, kList, Total(10000, 0)},
      // ssize 2^31 over two segments: within the total, yet each derived size has bit 31.
      {[] { return Sized(0, 1ul << 32, 1ul << 31, {{0, 0}, {0, 0}}); }, kList, kPass},
      {[] { return Sized(0, 1ul << 32, 1ul << 31, {{0, 0}, {0, 0}}); }, kSizes, kSizeMagnitude},
      // Stored sizes add up to the file size, in either order.
      {[] { return ShortSum(2, false); }, kList, Sum("CR_DO_TYPE_NO_OFFSET", 9904)},
      {[] { return ShortSum(5, true); }, kList, Sum("CR_DO_TYPE_4_BYTE_OFFSET", 9904)},
      {[] { return NoSegments(2); }, kList, Sum("CR_DO_TYPE_NO_OFFSET", 0)},
      {[] { return NoSegments(3); }, kList, kPass},
      // Sizes stop at bit 31 unless the record is a sub-DO.
      {[] { return Bit31(2, false, false); }, kList, kPass},
      {[] { return Bit31(2, true, false); }, kList, kSizeMagnitude},
      {[] { return Bit31(3, true, false); }, kSizes, kSizeMagnitude},
      {[] { return Bit31(5, true, false); }, kList, kSizeMagnitude},
      {[] { return Bit31(5, true, true); }, kList, kPass},
      {[] { return Bit31(3, true, true); }, kSizes, kPass},
      // Offsets stop at bit 63 even for a sub-DO; a big size is reported first.
      {[] { return Bit63(false, false); }, kList, kPass},
      {[] { return Bit63(true, false); }, kList, kOffsetMagnitude},
      {[] { return Bit63(true, true); }, kList, kOffsetMagnitude},
      {[] { return Bit63(true, true); }, kOffsets, kOffsetMagnitude},
      {[] { return Bit63(true, false, true); }, kList, kSizeMagnitude},
      // Eight-byte offsets: no overlap, no end past the file; gaps are fine and a
      // zero-size segment may share the next one's offset.
      {[] { return Sized(3, 4196, 4096, {{4096, 0}, {100, 4096}}); }, kList, kPass},
      {[] { return Sized(3, 4195, 4096, {{4096, 0}, {100, 4096}}); }, kList,
       {89, kOffset8 + "Original file size:4195. End offset of last segment:4196. "}},
      {[] { return Sized(3, 9000, 4096, {{0, 10}, {4096, 10}}); }, kList, kPass},
      {[] { return Overlap(false); }, kList, kOverlap},
      {[] { return Overlap(true); }, kList, kOverlap},
      // The DO type decides whether anything is checked.
      {[] { return WithType(255); }, kList, {9, "invalid DO type"}},
      {[] { return WithType(4); }, kList, kPass},
      {[] { return WithType(6); }, kList, kPass},
      {[] { return WithType(254); }, kList, kPass},
      // Passes run alone read all-ones where a type has no such field.
      {[] { return WithType(200); }, kSizes, Magnitude("size 4294967295 (> 2 GiB)")},
      {[] { return Three(2); }, kOffsets, Magnitude("offset 18446744073709551615 (> 8192 PetaB)")},
  };
  for (size_t i = 0; i < sizeof rows / sizeof rows[0]; ++i) {
    SCOPED_TRACE("row " + std::to_string(i));
    const Row& row = rows[i];
    EXPECT_EQ(Thrown([&] {
                Rec r = row.make();
                if (row.check == kList) r->checkSegmentList();
                if (row.check == kSizes) r->checkSegmentSizeEndiannes();
                if (row.check == kOffsets) r->checkSegmentOffsetEndiannes();
              }),
              row.failure);
  }
}

}  // namespace
