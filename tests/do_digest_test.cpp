// The digest of a DO record: the block of fingerprint texts and big-endian
// sizes, the single-segment shortcut, the Bloom span and the digest type.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "crrecord/DORecord.h"
#include "serialized_form.h"
#include "test_support.h"

namespace {

using crtest::Seg;

std::unique_ptr<DORecord> Build(const std::vector<Seg>& segs, unsigned char fptype,
                                unsigned char dotype, unsigned long size = 10000) {
  crtest::Bytes list = crtest::SegmentList(dotype, segs);
  std::vector<unsigned long> dcids;
  for (const Seg& s : segs) dcids.push_back(s.dcid);
  return std::make_unique<DORecord>(777, size, 4096, 0x11223344, 1000, 2000, list.data(),
                                    static_cast<unsigned int>(segs.size()), dcids.data(), nullptr,
                                    fptype, dotype);
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

struct DigestDeleter {
  void operator()(cr_tdigest_t* d) const { CRTDigestDelete(&d); }
};
typedef std::unique_ptr<cr_tdigest_t, DigestDeleter> DigestPtr;

void ExpectDigest(const DigestPtr& d, unsigned char type, const crfp_digest_t& value,
                  unsigned long cid) {
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(d->type, type);
  EXPECT_EQ(crtest::Hex(d->digest.digest, 32), crtest::Hex(value.digest, 32));
  EXPECT_EQ(d->cid, cid);
}

void ExpectThrows(const DORecord& record, cr_status_t status, const char* message) {
  try {
    DigestPtr d(record.GetDigest());
    ADD_FAILURE() << "no exception";
  } catch (const Cr_ErrnoException& e) {
    EXPECT_EQ(e.GetStatus(), status);
    EXPECT_STREQ(e.what(), message);
  }
}

struct BlockCase {
  unsigned char dotype;
  unsigned char fptype;
};

class DigestBlock : public ::testing::TestWithParam<BlockCase> {};

TEST_P(DigestBlock, MatchesTheBlockWrittenOutByHand) {
  const BlockCase c = GetParam();
  const std::vector<Seg> segs = crtest::ThreeSegments(c.fptype);
  const size_t textWidth = c.fptype == 3 ? 65 : 33;
  crtest::Bytes block;
  for (const Seg& s : segs) {
    std::string text = crtest::Hex(s.fp.data(), s.fp.size());
    text.resize(textWidth, '\0');
    block.str(text);
    if (c.dotype == 2 || c.dotype == 3 || c.dotype == 5) block.be32(s.size);
    if (c.dotype == 3) block.be64(s.offset);
    if (c.dotype == 5) block.be32(s.objectOffset);
  }
  const size_t extra = c.dotype == 2 ? 4 : c.dotype == 3 ? 12 : c.dotype == 5 ? 8 : 0;
  ASSERT_EQ(block.size(), 3 * (textWidth + extra));

  DigestPtr d(Build(segs, c.fptype, c.dotype)->GetDigest());
  ExpectDigest(d, static_cast<unsigned char>(c.fptype + 1), HashDO(block, c.fptype), 777);
}

INSTANTIATE_TEST_SUITE_P(EveryHashedTypeAndWidth, DigestBlock,
                         ::testing::Values(BlockCase{1, 1}, BlockCase{2, 1}, BlockCase{3, 1},
                                           BlockCase{5, 1}, BlockCase{1, 3}, BlockCase{2, 3},
                                           BlockCase{3, 3}, BlockCase{5, 3}, BlockCase{3, 2}),
                         [](const ::testing::TestParamInfo<BlockCase>& info) {
                           return "DOType" + std::to_string(info.param.dotype) + "FPType" +
                                  std::to_string(info.param.fptype);
                         });

TEST(DORecordDigest, SingleSegmentGivesItsFingerprintUnhashed) {
  for (unsigned char dotype : {0, 1, 2, 3, 5}) {
    for (unsigned char fptype : {1, 3}) {
      SCOPED_TRACE("dotype " + std::to_string(dotype) + " fptype " + std::to_string(fptype));
      const Seg s = crtest::ThreeSegments(fptype)[0];
      DigestPtr d(Build({s}, fptype, dotype, s.size)->GetDigest());
      ExpectDigest(d, static_cast<unsigned char>(fptype + 1), Fingerprint(s.fp), 777);
    }
  }
  // Only a header written by hand has fingerprint type 255; its digest type
  // wraps to 0.
  const Seg s = crtest::ThreeSegments(1)[0];
  auto record = Build({s}, 1, 2, s.size);
  record->GetHeader()->fptype = 255;
  ExpectDigest(DigestPtr(record->GetDigest()), 0, Fingerprint(s.fp), 777);
}

TEST(DORecordDigest, ListsWithoutExactlyOneSegment) {
  auto original = Build(crtest::ThreeSegments(1), 1, 0);
  EXPECT_EQ(original->GetDigest(), nullptr);
  original->GetHeader()->nfp = 0;
  EXPECT_EQ(original->GetDigest(), nullptr);

  auto sized = Build(crtest::ThreeSegments(1), 1, 2);
  sized->GetHeader()->nfp = 0;
  ExpectDigest(DigestPtr(sized->GetDigest()), 2, HashDO(crtest::Bytes(), 1), 777);
}

TEST(DORecordDigest, BloomRecordDigestsItsSpanInPlace) {
  const std::vector<uint8_t> bitmap = crtest::PatternBitmap(5);
  {
    DORecord record(900, 1, 1, 0, 1000, 2000, 5, bitmap.data(), nullptr, 1, 4);
    crtest::Bytes span;
    span.le32(5).raw(bitmap.data(), 5).zeros(16);
    ASSERT_EQ(span.size(), 5 + 20u);
    ExpectDigest(DigestPtr(record.GetDigest()), 2, HashDO(span, 1), 900);
  }
  const std::vector<uint8_t> unique = crtest::HostUniqueDcids({{70, 200}, {500, 400}, {900, 12}});
  DORecord record(900, 1, 1, 0, 1000, 2000, 5, bitmap.data(),
                  reinterpret_cast<const char*>(unique.data()), 3, 4);
  crtest::Bytes span;
  span.le32(5).raw(bitmap.data(), 5).zeros(16).raw(unique.data(), unique.size());
  ASSERT_EQ(span.size(), 5 + 76u);
  // The Bloom type is looked at before the segment count.
  record.GetHeader()->nfp = 1;
  ExpectDigest(DigestPtr(record.GetDigest()), 4, HashDO(span, 3), 900);
}

TEST(DORecordDigest, NetworkOrderIsRefusedBeforeAnythingElse) {
  // DO type 0 with three segments, which in host order has no digest.
  auto record = Build(crtest::ThreeSegments(1), 1, 0);
  record->HostToNetwork(0);
  ExpectThrows(*record, CR_STATUS_INVALID, "GetDigest called while DO record in network order.");
}

TEST(DORecordDigest, FingerprintLibraryFailureCarriesItsStatus) {
  auto record = Build(crtest::ThreeSegments(1), 1, 2);
  record->GetHeader()->fptype = 7;  // unknown to the fingerprint library
  ExpectThrows(*record, CR_STATUS_INVALID, "");
}

}  // namespace
