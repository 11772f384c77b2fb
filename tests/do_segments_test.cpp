// Per-segment getters and setters of a DO record in both byte orders, and
// the segment-list check with its exact messages.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "images.h"

namespace {

using namespace crtest;

// Segments with 16-byte fingerprints in container 64; `offset` serves as
// the file offset (DO type 3) and the object offset (DO type 5).
std::vector<Seg> Segs(const std::vector<std::pair<uint32_t, uint64_t>>& sizeOffset) {
  std::vector<Seg> out;
  for (const auto& so : sizeOffset) {
    out.push_back({PatternFP(0x30, 16), so.first, so.second, static_cast<uint32_t>(so.second), 64});
  }
  return out;
}

std::unique_ptr<DORecord> MakeThree(uint8_t dotype, uint8_t fptype) {
  return Make(dotype, fptype, 10000, 4096, ThreeSegments(fptype));
}

const unsigned char* Base(const DORecord& r) {
  return reinterpret_cast<const unsigned char*>(r.GetHeader());
}

// `expected` with the record's current mtime (offset 48), which the caller
// checks on its own, against the record's bytes.
void ExpectImageApartFromMtime(const DORecord& r, std::vector<uint8_t> expected) {
  std::memcpy(expected.data() + 48, Base(r) + 48, 4);
  EXPECT_EQ(Hex(expected.data(), expected.size()), Hex(Base(r), r.getRecSize()));
}

template <typename T>
void PutLE(std::vector<uint8_t>* image, size_t at, T v) {
  for (size_t k = 0; k < sizeof(T); ++k) (*image)[at + k] = static_cast<uint8_t>(v >> (8 * k));
}

// --- Getters ------------------------------------------------------------------------

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
  std::unique_ptr<DORecord> r = MakeThree(dotype, fptype);
  {
    SCOPED_TRACE("host order");
    ExpectSegments(*r, dotype, fptype);
  }
  r->HostToNetwork(0);
  ASSERT_TRUE(r->IsInNetworkOrder());
  // The stored fields really are big-endian now: nfp, and segment 1's size.
  EXPECT_EQ(Hex(Base(*r) + 56, 4), "00000003");
  if (EntryExtra(dotype) != 0) {
    const unsigned w = FPWidth(fptype);
    EXPECT_EQ(Hex(Base(*r) + 80 + w + EntryExtra(dotype) + w, 4), "00001000");
  }
  {
    SCOPED_TRACE("network order");
    ExpectSegments(*r, dotype, fptype);
  }
  EXPECT_EQ(Thrown([&] { r->checkSegmentList(); }), kPass);
}

INSTANTIATE_TEST_SUITE_P(EveryTypeAndWidth, SegmentGetters, EveryTypeAndWidth(), TypeAndWidthName);

// --- Setters ------------------------------------------------------------------------

TEST(SegmentSetters, StoredFieldsAreWrittenInPlaceAndStampMtime) {
  // DO type 3, 16-byte fingerprints: entries of 28 bytes, size at +16,
  // offset at +20. DO type 5, 32-byte fingerprints: entries of 40 bytes,
  // object offset at +36.
  std::unique_ptr<DORecord> r = MakeThree(3, 1), r5 = MakeThree(5, 3);
  std::vector<uint8_t> expected = RecordBytes(*r), expected5 = RecordBytes(*r5);
  const uint32_t before = Now();
  r->SetSegmentSize(1, 0x11223344);
  r->SetSegmentOffset(2, 0x0A0B0C0D0E0F1011);
  r5->SetSegmentObjectOffset(1, 0xCAFEBABE);
  const uint32_t after = Now();
  PutLE<uint32_t>(&expected, 80 + 28 + 16, 0x11223344);
  PutLE<uint64_t>(&expected, 80 + 2 * 28 + 20, 0x0A0B0C0D0E0F1011);
  PutLE<uint32_t>(&expected5, 80 + 40 + 36, 0xCAFEBABE);
  ExpectImageApartFromMtime(*r, expected);
  ExpectImageApartFromMtime(*r5, expected5);
  for (const DORecord* x : {r.get(), r5.get()}) {
    EXPECT_GE(x->GetMTime(), before);
    EXPECT_LE(x->GetMTime(), after);
  }
}

// A value for a field the record does not have is dropped; only mtime moves.
TEST(SegmentSetters, FieldsTheTypeLacksAreDroppedButMtimeIsStamped) {
  struct Case {
    uint8_t dotype;
    void (*set)(DORecord*);
  };
  const Case cases[] = {
      {0, [](DORecord* r) { r->SetSegmentSize(0, 7); }},
      {1, [](DORecord* r) { r->SetSegmentSize(2, 7); }},
      {0, [](DORecord* r) { r->SetSegmentOffset(0, 7); }},
      {2, [](DORecord* r) { r->SetSegmentOffset(2, 0xFFFFFFFFFFFFFFFF); }},
      {5, [](DORecord* r) { r->SetSegmentOffset(2, 0xFFFFFFFFFFFFFFFF); }},
      {2, [](DORecord* r) { r->SetSegmentObjectOffset(2, 0xFFFFFFFF); }},
      {3, [](DORecord* r) { r->SetSegmentObjectOffset(1, 0xFFFFFFFF); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("DO type " + std::to_string(c.dotype));
    std::unique_ptr<DORecord> r = MakeThree(c.dotype, 1);
    const std::vector<uint8_t> before = RecordBytes(*r);
    ASSERT_EQ(r->GetMTime(), 1u);
    c.set(r.get());
    EXPECT_NE(r->GetMTime(), 1u);
    ExpectImageApartFromMtime(*r, before);
    EXPECT_EQ(r->GetSegmentSize(2), 1808u);
  }
}

TEST(SegmentSetters, FingerprintCopiesTheRecordsWidthAndDcidIsStored) {
  crfp_digest_t digest;
  for (unsigned k = 0; k < 32; ++k) digest.digest[k] = static_cast<uint8_t>(0xA0 + k);
  for (uint8_t fptype : {1, 3}) {
    SCOPED_TRACE("fptype " + std::to_string(fptype));
    const unsigned w = FPWidth(fptype), entry = w + 4;
    std::unique_ptr<DORecord> r = MakeThree(2, fptype);
    std::vector<uint8_t> expected = RecordBytes(*r);
    r->SetSegmentFP(1, digest);
    r->SetSegmentDCID(2, 0x8877665544332211);
    std::memcpy(expected.data() + 80 + entry, digest.digest, w);
    PutLE<uint64_t>(&expected, 80 + 3 * entry + 16, 0x8877665544332211);
    // Neither setter stamps mtime, so the whole image matches.
    EXPECT_EQ(Hex(expected.data(), expected.size()), Hex(Base(*r), r->getRecSize()));
  }
}

TEST(SegmentSetters, ValuesAreStoredAsGivenInNetworkOrder) {
  std::unique_ptr<DORecord> r = MakeThree(2, 1);
  r->HostToNetwork(0);
  const uint32_t before = Now();
  r->SetSegmentSize(0, 0x01020304);
  EXPECT_EQ(Hex(Base(*r) + 80 + 16, 4), "04030201");
  EXPECT_EQ(r->GetSegmentSize(0), 0x04030201u);
  // mtime is stamped in the record's order: the getter reads the time back.
  EXPECT_GE(r->GetMTime(), before);
  EXPECT_LE(r->GetMTime(), Now());
}

// --- checkSegmentList ----------------------------------------------------------------

const Failure kSizeMagnitude(
    89, "Segment list of a DORecord is corrupt. Segment 0 has size 2147483648 (> 2 GiB). "
        "Data is probably in wrong byte order (host vs. network order)");
const Failure kOffsetMagnitude(
    89, "Segment list of a DORecord is corrupt. Segment 0 has offset 9223372036854775808 "
        "(> 8192 PetaB). Data is probably in wrong byte order (host vs. network order)");

TEST(CheckSegmentList, DerivedSizeTypesBoundTheFileSize) {
  const std::vector<Seg> three = Segs({{0, 0}, {0, 0}, {0, 0}});
  for (uint8_t dotype : {0, 1}) {
    SCOPED_TRACE("DO type " + std::to_string(dotype));
    EXPECT_EQ(Thrown([&] { Make(dotype, 1, 0, 4096, three); }), kPass);
    EXPECT_EQ(Thrown([&] { Make(dotype, 1, 12288, 4096, three); }), kPass);
    EXPECT_EQ(Thrown([&] { Make(dotype, 1, 12289, 4096, three); }),
              Failure(89, "Segment list of DORecord CR_DO_TYPE_ORIGINAL|CR_DO_TYPE_NO_SIZE is "
                          "corrupt. Original file size:12289. "
                          "Segm. size times segm. count:12288."));
  }
}

TEST(CheckSegmentList, StoredSizesMustAddUpToTheFileSizeInEitherOrder) {
  for (uint8_t dotype : {2, 5}) {
    std::unique_ptr<DORecord> r = MakeThree(dotype, 3);
    r->SetSegmentSize(1, 4000);
    const Failure sum(89, std::string("Segment list of DORecord ") +
                              (dotype == 2 ? "CR_DO_TYPE_NO_OFFSET" : "CR_DO_TYPE_4_BYTE_OFFSET") +
                              " is corrupt. Original file size:10000. Sum of segm. sizes:9904.");
    EXPECT_EQ(Thrown([&] { r->checkSegmentList(); }), sum);
    r->HostToNetwork(0);
    EXPECT_EQ(Thrown([&] { r->checkSegmentList(); }), sum);
  }
}

TEST(CheckSegmentList, SizeMagnitudeStopsAtBit31UnlessSubDO) {
  for (uint8_t dotype : {2, 3, 5}) {
    SCOPED_TRACE("DO type " + std::to_string(dotype));
    // Sizes 2^31 - 1 and 1 back to back, adding up to 2^31.
    std::unique_ptr<DORecord> r =
        Make(dotype, 1, 2147483648, 4096, Segs({{2147483647, 0}, {1, 2147483647}}));
    EXPECT_EQ(Thrown([&] { r->checkSegmentList(); }), kPass);
    r->SetSegmentSize(0, 2147483648u);
    r->SetSegmentSize(1, 0);
    r->SetSegmentOffset(1, 2147483648u);
    EXPECT_EQ(Thrown([&] { r->checkSegmentList(); }), kSizeMagnitude);
    EXPECT_EQ(Thrown([&] { r->checkSegmentSizeEndiannes(); }), kSizeMagnitude);
    r->SetSubDO(true);
    EXPECT_EQ(Thrown([&] { r->checkSegmentList(); }), kPass);
    EXPECT_EQ(Thrown([&] { r->checkSegmentSizeEndiannes(); }), kPass);
  }
}

TEST(CheckSegmentList, OffsetMagnitudeStopsAtBit63EvenForSubDO) {
  std::unique_ptr<DORecord> r =
      Make(3, 1, 9223372036854775807u, 4096, Segs({{0, 9223372036854775807u}}));
  EXPECT_EQ(Thrown([&] { r->checkSegmentList(); }), kPass);
  r->SetSegmentOffset(0, 9223372036854775808u);
  EXPECT_EQ(Thrown([&] { r->checkSegmentList(); }), kOffsetMagnitude);
  r->SetSubDO(true);
  EXPECT_EQ(Thrown([&] { r->checkSegmentList(); }), kOffsetMagnitude);
  EXPECT_EQ(Thrown([&] { r->checkSegmentOffsetEndiannes(); }), kOffsetMagnitude);
  // With both unsound, size is reported first unless the record is a sub-DO.
  r->SetSubDO(false);
  r->SetSegmentSize(0, 2147483648u);
  EXPECT_EQ(Thrown([&] { r->checkSegmentList(); }), kSizeMagnitude);
}

TEST(CheckSegmentList, EightByteOffsetsMustNotOverlapOrPassTheEnd) {
  const std::vector<Seg> two = Segs({{4096, 0}, {100, 4096}});
  EXPECT_EQ(Thrown([&] { Make(3, 1, 4196, 4096, two); }), kPass);
  EXPECT_EQ(Thrown([&] { Make(3, 1, 4195, 4096, two); }),
            Failure(89, "Segment list of DORecord CR_DO_TYPE_8_BYTE_OFFSET is corrupt. "
                        "Original file size:4195. End offset of last segment:4196. "));
  // Gaps are fine, and a zero-size segment may share the next one's offset.
  EXPECT_EQ(Thrown([&] { Make(3, 1, 9000, 4096, Segs({{0, 10}, {4096, 10}})); }), kPass);

  std::unique_ptr<DORecord> r = Make(3, 1, 4196, 4096, two);
  r->SetSegmentOffset(1, 4095);
  const Failure overlap(89, "Segment list of DORecord CR_DO_TYPE_8_BYTE_OFFSET is corrupt. "
                            "Offset of segm. 1:4095. Previous segm. end:4096.");
  EXPECT_EQ(Thrown([&] { r->checkSegmentList(); }), overlap);
  r->HostToNetwork(0);
  EXPECT_EQ(Thrown([&] { r->checkSegmentList(); }), overlap);
}

TEST(CheckSegmentList, DoTypeDecidesWhetherAnythingIsChecked) {
  std::unique_ptr<DORecord> r = MakeThree(2, 1);
  r->SetSegmentSize(0, 2147483648u);  // unsound for DO type 2
  DORecordHeader* h = r->GetHeader();
  h->dotype = 255;
  EXPECT_EQ(Thrown([&] { r->checkSegmentList(); }), Failure(9, "invalid DO type"));
  for (uint8_t dotype : {4, 6, 254}) {
    h->dotype = dotype;
    EXPECT_EQ(Thrown([&] { r->checkSegmentList(); }), kPass);
  }
  // A type without sizes reads all-ones in the size pass run on its own.
  h->dotype = 200;
  EXPECT_EQ(Thrown([&] { r->checkSegmentSizeEndiannes(); }),
            Failure(89, "Segment list of a DORecord is corrupt. Segment 0 has size 4294967295 "
                        "(> 2 GiB). Data is probably in wrong byte order (host vs. network "
                        "order)"));
}

TEST(CheckSegmentList, EmptyListPassesOnlyForEmptyFileExceptType3) {
  for (uint8_t dotype : {0, 1, 2, 3, 5}) {
    SCOPED_TRACE("DO type " + std::to_string(dotype));
    std::unique_ptr<DORecord> r = MakeThree(dotype, 1);
    r->GetHeader()->nfp = 0;  // as a received record with no segments reads
    EXPECT_EQ(Thrown([&] { r->checkSegmentList(); }).first, dotype == 3 ? 0u : 89u);
  }
}

TEST(CheckSegmentList, MagnitudePassesRunAloneOnAnyType) {
  // ssize 2^31 over two segments: within the total-size bound, yet every
  // derived size has bit 31 set.
  std::unique_ptr<DORecord> r = Make(0, 1, 4294967296u, 2147483648u, Segs({{0, 0}, {0, 0}}));
  EXPECT_EQ(Thrown([&] { r->checkSegmentList(); }), kPass);
  EXPECT_EQ(Thrown([&] { r->checkSegmentSizeEndiannes(); }), kSizeMagnitude);
  EXPECT_EQ(Thrown([&] { MakeThree(2, 1)->checkSegmentOffsetEndiannes(); }),
            Failure(89, "Segment list of a DORecord is corrupt. Segment 0 has offset "
                        "18446744073709551615 (> 8192 PetaB). Data is probably in wrong byte "
                        "order (host vs. network order)"));
}

}  // namespace
