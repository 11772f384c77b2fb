// Per-segment getters and setters of a DO record in both byte orders, and
// the segment-list check with its exact messages.
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "images.h"

namespace {

using namespace crtest;
typedef std::unique_ptr<DORecord> Rec;
typedef std::vector<std::pair<uint32_t, uint64_t>> Pairs;  // {size, offset} of each segment

const unsigned char* Base(const DORecord& r) {
  return reinterpret_cast<const unsigned char*>(r.GetHeader());
}

// 16-byte-fingerprint segments in container 64; the offset serves as file
// offset (DO type 3) and object offset (DO type 5).
Rec Sized(uint8_t dotype, uint64_t size, uint64_t ssize, const Pairs& pairs) {
  std::vector<Seg> segs;
  for (const auto& p : pairs) segs.push_back({PatternFP(0x30, 16), p.first, p.second,
                                              uint32_t(p.second), 64});
  return Make(dotype, 1, size, ssize, segs);
}

class SegmentGetters : public ::testing::TestWithParam<TypeAndWidth> {};

TEST_P(SegmentGetters, ReadHostValuesInBothByteOrders) {
  const uint8_t dotype = GetParam().first, fptype = GetParam().second;
  const unsigned w = FPWidth(fptype), entry = w + EntryExtra(dotype);
  const std::vector<Seg> segs = ThreeSegments(fptype);
  Rec r = Make(dotype, fptype, 10000, 4096, segs);
  for (bool network : {false, true}) {
    SCOPED_TRACE(network ? "network order" : "host order");
    const unsigned char* list = Base(*r) + 80;
    for (unsigned i = 0; i < 3; ++i) {
      const Seg& s = segs[i];
      EXPECT_EQ(r->GetSegmentFP(i), list + i * entry);
      EXPECT_EQ(Hex(r->GetSegmentFP(i), w), Hex(s.fp.data(), w));
      // Types 0 and 1 derive 4096, 4096, 1808 from size 10000 and ssize 4096.
      EXPECT_EQ(r->GetSegmentSize(i), s.size);
      EXPECT_EQ(r->GetSegmentOffset(i), dotype == 3 ? s.offset : ~0ul);
      EXPECT_EQ(r->GetSegmentObjectOffset(i), dotype == 5 ? s.objectOffset : 0xFFFFFFFFu);
      EXPECT_EQ(r->GetSegmentDCID(i), s.dcid);
    }
    EXPECT_EQ(r->GetSegmentDCIDList(), list + 3 * entry);
    EXPECT_EQ(r->GetSegmentUDCIDList(), list + 3 * (entry + 8));
    EXPECT_EQ(r->GetSegmentUDCID(1), 200u);
    if (!network) r->HostToNetwork(0);
  }
  // The stored fields really are big-endian now: nfp, and segment 1's size.
  EXPECT_EQ(Hex(Base(*r) + 56, 4), "00000003");
  if (EntryExtra(dotype) != 0) {
    EXPECT_EQ(Hex(Base(*r) + 80 + entry + w, 4), "00001000");
  }
  EXPECT_EQ(Thrown([&] { r->checkSegmentList(); }), kPass);
}

INSTANTIATE_TEST_SUITE_P(EveryTypeAndWidth, SegmentGetters, EveryTypeAndWidth(), TypeAndWidthName);

enum Field { kSize, kOffset, kObjectOffset, kFP, kDCID };

void Set(DORecord* r, Field field, unsigned i, uint64_t value) {
  crfp_digest_t digest;
  for (unsigned k = 0; k < 32; ++k) digest.digest[k] = static_cast<uint8_t>(0xA0 + k);
  if (field == kSize) r->SetSegmentSize(i, static_cast<uint32_t>(value));
  if (field == kOffset) r->SetSegmentOffset(i, value);
  if (field == kObjectOffset) r->SetSegmentObjectOffset(i, static_cast<uint32_t>(value));
  if (field == kFP) r->SetSegmentFP(i, digest);
  if (field == kDCID) r->SetSegmentDCID(i, value);
}

// Each setter against the record's bytes: what it writes (hex, at a hand-
// computed offset; nothing for a field the DO type lacks) and whether it
// stamps mtime (offset 48). Entries: type 3 with 16-byte fingerprints is 28
// bytes (size +16, offset +20); type 5 with 32 is 40 (object offset +36);
// type 2 is 20 or 36; the DCIDs follow the three entries.
TEST(SegmentSetters, WriteTheirFieldInPlaceAndStampAsDocumented) {
  struct Row {
    uint8_t dotype, fptype;
    Field field;
    unsigned index;
    uint64_t value;
    size_t at;
    std::string bytes;
    bool stamps;
  };
  const std::string fp = Hex(PatternFP(0xA0, 32).data(), 32);
  const Row rows[] = {
      {3, 1, kSize, 1, 0x11223344, 80 + 28 + 16, "44332211", true},
      {3, 1, kOffset, 2, 0x0A0B0C0D0E0F1011, 80 + 56 + 20, "11100f0e0d0c0b0a", true},
      {5, 3, kObjectOffset, 1, 0xCAFEBABE, 80 + 40 + 36, "bebafeca", true},
      {0, 1, kSize, 0, 7, 0, "", true},
      {2, 1, kOffset, 2, ~0ul, 0, "", true},
      {5, 1, kOffset, 2, ~0ul, 0, "", true},
      {3, 1, kObjectOffset, 1, 0xFFFFFFFF, 0, "", true},
      {2, 1, kFP, 1, 0, 80 + 20, fp.substr(0, 32), false},
      {2, 3, kFP, 1, 0, 80 + 36, fp, false},
      {2, 3, kDCID, 1, 0x8877665544332211, 80 + 3 * 36 + 8, "1122334455667788", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "type " << int(row.dotype) << " at " << row.at);
    Rec r = Make(row.dotype, row.fptype, 10000, 4096, ThreeSegments(row.fptype));
    std::string expected = Hex(Base(*r), r->getRecSize());
    expected.replace(2 * row.at, row.bytes.size(), row.bytes);
    const uint32_t before = Now();
    Set(r.get(), row.field, row.index, row.value);
    if (row.stamps) {
      EXPECT_GE(r->GetMTime(), before);
      EXPECT_LE(r->GetMTime(), Now());
      expected.replace(2 * 48, 8, Hex(Base(*r) + 48, 4));
    }
    EXPECT_EQ(Hex(Base(*r), r->getRecSize()), expected);
  }
  // In network order the value is stored as given, mtime in the record's order.
  Rec r = Sized(2, 10000, 4096, {{4096, 0}, {4096, 0}, {1808, 0}});
  r->HostToNetwork(0);
  const uint32_t before = Now();
  r->SetSegmentSize(0, 0x01020304);
  EXPECT_EQ(Hex(Base(*r) + 80 + 16, 4), "04030201");
  EXPECT_GE(r->GetMTime(), before);
  EXPECT_LE(r->GetMTime(), Now());
}

// --- checkSegmentList and its two magnitude passes -----------------------------------

Failure Magnitude(const std::string& what) {
  return Failure(89, "Segment list of a DORecord is corrupt. Segment 0 has " + what +
                         ". Data is probably in wrong byte order (host vs. network order)");
}
Failure Total(uint64_t size, uint64_t bound) {
  return Failure(89, "Segment list of DORecord CR_DO_TYPE_ORIGINAL|CR_DO_TYPE_NO_SIZE is "
                     "corrupt. Original file size:" + std::to_string(size) +
                         ". Segm. size times segm. count:" + std::to_string(bound) + ".");
}
Failure Sum(const std::string& type, uint64_t sum) {
  return Failure(89, "Segment list of DORecord " + type + " is corrupt. Original file "
                     "size:10000. Sum of segm. sizes:" + std::to_string(sum) + ".");
}
Failure Offsets(const std::string& what) {
  return Failure(89, "Segment list of DORecord CR_DO_TYPE_8_BYTE_OFFSET is corrupt. " + what);
}

struct Patch {
  Field field;
  unsigned index;
  uint64_t value;
};
typedef std::vector<Patch> Patches;
enum Check { kList, kSizes, kOffsets };
enum Mods { kSub = 1, kNet = 2, kNoSegs = 4 };

TEST(CheckSegmentList, EachFaultWithItsStatusAndText) {
  const uint64_t b31 = 1ul << 31, b63 = 1ul << 63;
  const Pairs three = {{4096, 0}, {4096, 4096}, {1808, 8192}}, zeros = {{0, 0}, {0, 0}, {0, 0}};
  const Pairs bit31 = {{b31 - 1, 0}, {1, b31 - 1}}, bit63 = {{0, b63 - 1}};
  const Pairs two = {{4096, 0}, {100, 4096}}, gap = {{0, 10}, {4096, 10}};
  const Pairs zeros2 = {{0, 0}, {0, 0}};
  const Patches none, shorter = {{kSize, 1, 4000}}, overlap = {{kOffset, 1, 4095}};
  const Patches big31 = {{kSize, 0, b31}, {kSize, 1, 0}, {kOffset, 1, b31}};
  const Patches big63 = {{kOffset, 0, b63}}, both = {{kOffset, 0, b63}, {kSize, 0, b31}};
  const Patches unsound = {{kSize, 0, b31}};  // for DO type 2
  const Failure size31 = Magnitude("size 2147483648 (> 2 GiB)");
  const Failure offset63 = Magnitude("offset 9223372036854775808 (> 8192 PetaB)");
  const Failure overlapped = Offsets("Offset of segm. 1:4095. Previous segm. end:4096.");
  struct Row {
    uint8_t dotype;
    uint64_t size, ssize;
    const Pairs& segs;
    const Patches& patches;
    unsigned mods;
    uint8_t retype;  // the header's DO type written over, when not 0
    Check check;
    Failure failure;
  };
  const Row rows[] = {
      // Derived sizes (types 0, 1) bound the file size, and the size pass
      // sees each derived size: ssize 2^31 has bit 31 set.
      {0, 0, 4096, zeros, none, 0, 0, kList, kPass},
      {1, 12288, 4096, zeros, none, 0, 0, kList, kPass},
      {0, 12289, 4096, zeros, none, 0, 0, kList, Total(12289, 12288)},
      {1, 12289, 4096, zeros, none, 0, 0, kList, Total(12289, 12288)},
      {0, 10000, 4096, three, none, kNoSegs, 0, kList, Total(10000, 0)},
      {0, 1ul << 32, b31, zeros2, none, 0, 0, kList, kPass},
      {0, 1ul << 32, b31, zeros2, none, 0, 0, kSizes, size31},
      // Stored sizes add up to the file size, in either order.
      {2, 10000, 4096, three, shorter, 0, 0, kList, Sum("CR_DO_TYPE_NO_OFFSET", 9904)},
      {5, 10000, 4096, three, shorter, kNet, 0, kList, Sum("CR_DO_TYPE_4_BYTE_OFFSET", 9904)},
      {2, 10000, 4096, three, none, kNoSegs, 0, kList, Sum("CR_DO_TYPE_NO_OFFSET", 0)},
      {3, 10000, 4096, three, none, kNoSegs, 0, kList, kPass},
      // Sizes stop at bit 31 unless the record is a sub-DO.
      {2, b31, 4096, bit31, none, 0, 0, kList, kPass},
      {2, b31, 4096, bit31, big31, 0, 0, kList, size31},
      {3, b31, 4096, bit31, big31, 0, 0, kSizes, size31},
      {5, b31, 4096, bit31, big31, 0, 0, kList, size31},
      {5, b31, 4096, bit31, big31, kSub, 0, kList, kPass},
      {3, b31, 4096, bit31, big31, kSub, 0, kSizes, kPass},
      // Offsets stop at bit 63 even for a sub-DO; a big size is reported first.
      {3, b63 - 1, 4096, bit63, none, 0, 0, kList, kPass},
      {3, b63 - 1, 4096, bit63, big63, 0, 0, kList, offset63},
      {3, b63 - 1, 4096, bit63, big63, kSub, 0, kList, offset63},
      {3, b63 - 1, 4096, bit63, big63, kSub, 0, kOffsets, offset63},
      {3, b63 - 1, 4096, bit63, both, 0, 0, kList, size31},
      // Eight-byte offsets neither overlap nor pass the end; gaps are fine,
      // and a zero-size segment may share the next one's offset.
      {3, 4196, 4096, two, none, 0, 0, kList, kPass},
      {3, 4195, 4096, two, none, 0, 0, kList,
       Offsets("Original file size:4195. End offset of last segment:4196. ")},
      {3, 9000, 4096, gap, none, 0, 0, kList, kPass},
      {3, 4196, 4096, two, overlap, 0, 0, kList, overlapped},
      {3, 4196, 4096, two, overlap, kNet, 0, kList, overlapped},
      // The DO type decides whether anything is checked; passes run alone
      // read all-ones where the type has no such field.
      {2, 10000, 4096, three, unsound, 0, 255, kList, {9, "invalid DO type"}},
      {2, 10000, 4096, three, unsound, 0, 4, kList, kPass},
      {2, 10000, 4096, three, unsound, 0, 6, kList, kPass},
      {2, 10000, 4096, three, unsound, 0, 254, kList, kPass},
      {2, 10000, 4096, three, unsound, 0, 200, kSizes, Magnitude("size 4294967295 (> 2 GiB)")},
      {2, 10000, 4096, three, none, 0, 0, kOffsets,
       Magnitude("offset 18446744073709551615 (> 8192 PetaB)")},
  };
  for (size_t i = 0; i < sizeof rows / sizeof rows[0]; ++i) {
    SCOPED_TRACE("row " + std::to_string(i));
    const Row& row = rows[i];
    EXPECT_EQ(Thrown([&] {
                Rec r = Sized(row.dotype, row.size, row.ssize, row.segs);
                for (const Patch& p : row.patches) Set(r.get(), p.field, p.index, p.value);
                r->SetSubDO((row.mods & kSub) != 0);
                if (row.retype != 0) r->GetHeader()->dotype = row.retype;
                if (row.mods & kNoSegs) r->GetHeader()->nfp = 0;  // as received with none
                if (row.mods & kNet) r->HostToNetwork(0);
                if (row.check == kList) r->checkSegmentList();
                if (row.check == kSizes) r->checkSegmentSizeEndiannes();
                if (row.check == kOffsets) r->checkSegmentOffsetEndiannes();
              }),
              row.failure);
  }
}

}  // namespace
