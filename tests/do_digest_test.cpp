// The digest of a DO record: the block of fingerprint texts and big-endian
// sizes, the single-segment shortcut, the Bloom span and the digest type.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "crrecord/DORecord.h"
#include "images.h"

namespace {

using crtest::Seg;

std::unique_ptr<DORecord> Build(const std::vector<Seg>& segs, uint8_t fptype, uint8_t dotype,
                                unsigned long size = 10000) {
  return crtest::BuildDO(dotype, fptype, segs, 0x11223344, 777, size);
}

// What the fingerprint library makes of `bytes` as a whole-record digest.
crfp_digest_t HashDO(const crtest::Bytes& bytes, unsigned char fptype) {
  crfp_ctx_t ctx;
  crfp_digest_t out = {};
  EXPECT_EQ(CRFPInitialize(&ctx, fptype), 0);
  EXPECT_EQ(CRFPAppend(&ctx, bytes.data(), static_cast<unsigned int>(bytes.size())), 0);
  EXPECT_EQ(CRFPFinalizeDO(&ctx), 0);
  EXPECT_NE(CRFPGetDigest_r(&ctx, &out), nullptr);
  return out;
}

crfp_digest_t Fingerprint(const std::vector<uint8_t>& fp) {
  crfp_digest_t d = {};
  std::memcpy(d.digest, fp.data(), fp.size());
  return d;
}

// Takes the record's digest, checks it and deletes it.
void ExpectDigest(const DORecord& record, unsigned char type, const crfp_digest_t& value,
                  unsigned long cid) {
  cr_tdigest_t* d = record.GetDigest();
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(d->type, type);
  EXPECT_EQ(crtest::Hex(d->digest.digest, 32), crtest::Hex(value.digest, 32));
  EXPECT_EQ(d->cid, cid);
  CRTDigestDelete(&d);
}

TEST(DORecordDigest, MatchesTheBlockWrittenOutByHand) {
  const uint8_t cases[][2] = {{1, 1}, {2, 1}, {3, 1}, {5, 1}, {1, 3},
                              {2, 3}, {3, 3}, {5, 3}, {3, 2}};  // DO type, fingerprint type
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "dotype " << int{c[0]} << " fptype " << int{c[1]});
    const std::vector<Seg> segs = crtest::ThreeSegments(c[1]);
    // The entries of the serialized form: fingerprint text with its NUL, then
    // the big-endian size and offsets; no head, no DCIDs.
    const std::vector<uint8_t> form = crtest::SerializedDO(c[0], 10000, 4096, 0, segs);
    crtest::Bytes block;
    block.raw(form.data() + 28, 3 * (2 * crtest::FPWidth(c[1]) + 1 + crtest::TypeFields(c[0])));
    ExpectDigest(*Build(segs, c[1], c[0]), static_cast<unsigned char>(c[1] + 1),
                 HashDO(block, c[1]), 777);
  }
}

TEST(DORecordDigest, SingleSegmentGivesItsFingerprintUnhashed) {
  for (uint8_t dotype : {0, 1, 2, 3, 5}) {
    for (uint8_t fptype : {1, 3}) {
      SCOPED_TRACE(testing::Message() << "dotype " << int{dotype} << " fptype " << int{fptype});
      const Seg s = crtest::ThreeSegments(fptype)[0];
      ExpectDigest(*Build({s}, fptype, dotype, s.size), static_cast<unsigned char>(fptype + 1),
                   Fingerprint(s.fp), 777);
    }
  }
  // Only a header written by hand has fingerprint type 255; its digest type
  // wraps to 0.
  const Seg s = crtest::ThreeSegments(1)[0];
  auto record = Build({s}, 1, 2, s.size);
  record->GetHeader()->fptype = 255;
  ExpectDigest(*record, 0, Fingerprint(s.fp), 777);
}

TEST(DORecordDigest, ListsWithoutExactlyOneSegment) {
  auto original = Build(crtest::ThreeSegments(1), 1, 0);
  EXPECT_EQ(original->GetDigest(), nullptr);
  original->GetHeader()->nfp = 0;
  EXPECT_EQ(original->GetDigest(), nullptr);

  auto sized = Build(crtest::ThreeSegments(1), 1, 2);
  sized->GetHeader()->nfp = 0;
  ExpectDigest(*sized, 2, HashDO(crtest::Bytes(), 1), 777);
}

TEST(DORecordDigest, BloomRecordDigestsItsSpanInPlace) {
  const std::vector<uint8_t> bitmap = crtest::PatternBitmap(5);
  crtest::Bytes span;
  span.le32(5).raw(bitmap.data(), 5).zeros(16);
  ExpectDigest(*crtest::BuildBloom(bitmap, {}, 1, 0, 900), 2, HashDO(span, 1), 900);

  const std::vector<crtest::UEntry> entries = {{70, 200}, {500, 400}, {900, 12}};
  const std::vector<uint8_t> unique = crtest::HostUniqueDcids(entries);
  auto record = crtest::BuildBloom(bitmap, entries, 3, 0, 900);
  span.raw(unique.data(), unique.size());
  ASSERT_EQ(span.size(), 5 + 76u);
  // The Bloom type is looked at before the segment count.
  record->GetHeader()->nfp = 1;
  ExpectDigest(*record, 4, HashDO(span, 3), 900);

  // AppendBloom byte-swaps the length word, and the digest follows the bytes.
  std::map<unsigned long, unsigned long> seen;
  ASSERT_EQ(record->AppendBloom(seen), 0u);
  crtest::Bytes swapped;
  swapped.be32(5).raw(bitmap.data(), 5).zeros(16).raw(unique.data(), unique.size());
  ExpectDigest(*record, 4, HashDO(swapped, 3), 900);
}

TEST(DORecordDigest, RefusalsCarryTheirStatus) {
  // DO type 0 with three segments, which in host order has no digest: the
  // byte order is looked at before anything else.
  auto network = Build(crtest::ThreeSegments(1), 1, 0);
  network->HostToNetwork(0);
  crtest::ExpectThrows([&] { network->GetDigest(); }, CR_STATUS_INVALID,
                       "GetDigest called while DO record in network order.");

  auto unknown = Build(crtest::ThreeSegments(1), 1, 2);
  unknown->GetHeader()->fptype = 7;  // unknown to the fingerprint library
  crtest::ExpectThrows([&] { unknown->GetDigest(); }, CR_STATUS_INVALID, "");
}

}  // namespace
