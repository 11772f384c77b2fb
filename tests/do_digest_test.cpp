// The digest of a DO record: the block of fingerprint texts and big-endian
// sizes, the single-segment shortcut, the Bloom span and the digest type.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "crrecord/DORecord.h"
#include "images.h"

namespace {

using crtest::Seg;

// What the fingerprint library makes of `bytes` as a whole-record digest.
std::string HashDO(const crtest::Bytes& bytes, unsigned char fptype) {
  crfp_ctx_t ctx;
  crfp_digest_t out = {};
  EXPECT_EQ(CRFPInitialize(&ctx, fptype), 0);
  EXPECT_EQ(CRFPAppend(&ctx, bytes.data(), static_cast<unsigned int>(bytes.size())), 0);
  EXPECT_EQ(CRFPFinalizeDO(&ctx), 0);
  EXPECT_NE(CRFPGetDigest_r(&ctx, &out), nullptr);
  return crtest::Hex(out.digest, 32);
}

// Takes the record's digest and gives "type cid digest", or "none".
std::string Digest(const DORecord& record) {
  cr_tdigest_t* d = record.GetDigest();
  if (d == nullptr) return "none";
  const std::string s = std::to_string(d->type) + " " + std::to_string(d->cid) + " " +
                        crtest::Hex(d->digest.digest, 32);
  CRTDigestDelete(&d);
  return s;
}

TEST(DORecordDigest, SegmentListsGiveTheirBlocksHashOrTheOnlyFingerprint) {
  struct Row {
    uint8_t dotype, fptype;
    unsigned nfp;   // segments built: 3 or 1; 0 builds 3 and then clears the count
    uint8_t headerFP;  // the header's fp type written over, when not 0
    int type;       // the digest type; -1: no digest
  };
  const Row rows[] = {
      {1, 1, 3, 0, 2}, {2, 1, 3, 0, 2}, {3, 1, 3, 0, 2}, {5, 1, 3, 0, 2}, {1, 3, 3, 0, 4},
      {2, 3, 3, 0, 4}, {3, 3, 3, 0, 4}, {5, 3, 3, 0, 4}, {3, 2, 3, 0, 3},
      {0, 1, 1, 0, 2}, {1, 3, 1, 0, 4}, {2, 1, 1, 0, 2}, {3, 3, 1, 0, 4}, {5, 1, 1, 0, 2},
      {2, 1, 1, 255, 0},  // only a hand-written header has type 255: the digest type wraps
      {0, 1, 3, 0, -1}, {0, 1, 0, 0, -1}, {2, 1, 0, 0, 2},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "dotype " << int(row.dotype) << " fptype "
                                    << int(row.fptype) << " nfp " << row.nfp);
    std::vector<Seg> segs = crtest::ThreeSegments(row.fptype);
    if (row.nfp == 1) segs.resize(1);
    const unsigned long size = row.nfp == 1 ? segs[0].size : 10000;
    auto record = crtest::BuildDO(row.dotype, row.fptype, segs, 0x11223344, 777, size);
    if (row.nfp == 0) record->GetHeader()->nfp = 0;
    if (row.headerFP != 0) record->GetHeader()->fptype = row.headerFP;
    // The entries of the serialized form: fingerprint text with its NUL, then
    // the big-endian size and offsets; no head, no DCIDs.
    const std::vector<uint8_t> form = crtest::SerializedDO(row.dotype, size, 4096, 0, segs);
    const size_t entry = 2 * crtest::FPWidth(row.fptype) + 1 + crtest::TypeFields(row.dotype);
    crtest::Bytes block;
    block.raw(form.data() + 28, row.nfp * entry);
    std::string value = HashDO(block, row.fptype);
    if (row.nfp == 1) {  // the fingerprint itself, zero-padded to the digest's 32 bytes
      value = crtest::Hex(segs[0].fp.data(), segs[0].fp.size());
      value.resize(64, '0');
    }
    EXPECT_EQ(Digest(*record), row.type < 0 ? "none" : std::to_string(row.type) + " 777 " + value);
  }
}

TEST(DORecordDigest, BloomRecordDigestsItsSpanInPlace) {
  const std::vector<uint8_t> bitmap = crtest::PatternBitmap(5);
  crtest::Bytes span;
  span.le32(5).raw(bitmap.data(), 5).zeros(16);
  EXPECT_EQ(Digest(*crtest::BuildBloom(bitmap, {}, 1, 0, 900)), "2 900 " + HashDO(span, 1));

  const std::vector<crtest::UEntry> entries = {{70, 200}, {500, 400}, {900, 12}};
  const std::vector<uint8_t> unique = crtest::HostUniqueDcids(entries);
  auto record = crtest::BuildBloom(bitmap, entries, 3, 0, 900);
  span.raw(unique.data(), unique.size());
  // The Bloom type is looked at before the segment count.
  record->GetHeader()->nfp = 1;
  EXPECT_EQ(Digest(*record), "4 900 " + HashDO(span, 3));

  // AppendBloom byte-swaps the length word, and the digest follows the bytes.
  std::map<unsigned long, unsigned long> seen;
  ASSERT_EQ(record->AppendBloom(seen), 0u);
  crtest::Bytes swapped;
  swapped.be32(5).raw(bitmap.data(), 5).zeros(16).raw(unique.data(), unique.size());
  EXPECT_EQ(Digest(*record), "4 900 " + HashDO(swapped, 3));
}

TEST(DORecordDigest, RefusalsCarryTheirStatus) {
  // DO type 0 with three segments, which in host order has no digest: the
  // byte order is looked at before anything else.
  auto network = crtest::BuildDO(0, 1, crtest::ThreeSegments(1));
  network->HostToNetwork(0);
  crtest::ExpectThrows([&] { network->GetDigest(); }, CR_STATUS_INVALID,
                       "GetDigest called while DO record in network order.");
  auto unknown = crtest::BuildDO(2, 1, crtest::ThreeSegments(1));
  unknown->GetHeader()->fptype = 7;  // unknown to the fingerprint library
  crtest::ExpectThrows([&] { unknown->GetDigest(); }, CR_STATUS_INVALID, "");
}

}  // namespace
