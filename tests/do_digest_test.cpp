// The digest of a DO record: the block of fingerprint texts and big-endian
// sizes, the single-segment shortcut, the Bloom span and the digest type.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "crrecord/DORecord.h"
#include "test_support.h"

namespace {

struct Segment {
  uint8_t seed;          // fingerprint pattern
  uint32_t size;
  uint64_t offset;       // DO type 3
  uint32_t objectOffset; // DO type 5
};

unsigned int Width(unsigned char fptype) { return fptype == 3 ? 32 : 16; }

// The segment list as a caller hands it over: host order, interleaved.
crtest::Bytes SegmentList(const std::vector<Segment>& segs, unsigned char fptype,
                          unsigned char dotype) {
  crtest::Bytes b;
  for (const Segment& s : segs) {
    b.raw(crtest::PatternFP(s.seed, Width(fptype)).data(), Width(fptype));
    if (dotype == 2 || dotype == 3 || dotype == 5) b.le32(s.size);
    if (dotype == 3) b.le64(s.offset);
    if (dotype == 5) b.le32(s.objectOffset);
  }
  return b;
}

// Sizes that add up and offsets that ascend, with every byte distinct so
// that a swapped or truncated field changes the digest.
std::vector<Segment> ThreeSegments() {
  const uint64_t base = 0x0000000102030405ull;
  return {{0x10, 0x00010203, base, 0x0A0B0C0D},
          {0x40, 0x00040506, base + 0x00010203, 0x1A1B1C1D},
          {0x70, 0x00070809, base + 0x00010203 + 0x00040506, 0x2A2B2C2D}};
}

uint64_t FileSize(const std::vector<Segment>& segs, unsigned char dotype) {
  if (dotype == 3) return segs.back().offset + segs.back().size;
  uint64_t sum = 0;
  for (const Segment& s : segs) sum += s.size;
  return sum;
}

std::unique_ptr<DORecord> Build(const std::vector<Segment>& segs, unsigned char fptype,
                                unsigned char dotype, unsigned long cid = 777) {
  crtest::Bytes list = SegmentList(segs, fptype, dotype);
  std::vector<unsigned long> dcids(segs.size(), 64);
  const uint64_t size = FileSize(segs, dotype);
  const uint64_t ssize = dotype <= 1 ? size : 4096;
  return std::make_unique<DORecord>(cid, size, ssize, 0x11223344, 1000, 2000, list.data(),
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

struct BlockCase {
  unsigned char dotype;
  unsigned char fptype;
};

class DigestBlock : public ::testing::TestWithParam<BlockCase> {};

TEST_P(DigestBlock, MatchesTheBlockWrittenOutByHand) {
  const BlockCase c = GetParam();
  const std::vector<Segment> segs = ThreeSegments();
  auto record = Build(segs, c.fptype, c.dotype);

  const size_t textWidth = c.fptype == 3 ? 65 : 33;
  crtest::Bytes block;
  for (const Segment& s : segs) {
    std::string text = crtest::Hex(crtest::PatternFP(s.seed, Width(c.fptype)).data(),
                                   Width(c.fptype));
    text.resize(textWidth, '\0');
    block.str(text);
    if (c.dotype == 2 || c.dotype == 3 || c.dotype == 5) block.be32(s.size);
    if (c.dotype == 3) block.be64(s.offset);
    if (c.dotype == 5) block.be32(s.objectOffset);
  }
  const size_t extra = c.dotype == 2 ? 4 : c.dotype == 3 ? 12 : c.dotype == 5 ? 8 : 0;
  ASSERT_EQ(block.size(), 3 * (textWidth + extra));

  DigestPtr d(record->GetDigest());
  ExpectDigest(d, static_cast<unsigned char>(c.fptype + 1), HashDO(block, c.fptype), 777);
}

INSTANTIATE_TEST_SUITE_P(
    EveryHashedTypeAndWidth, DigestBlock,
    ::testing::Values(BlockCase{1, 1}, BlockCase{2, 1}, BlockCase{3, 1}, BlockCase{5, 1},
                      BlockCase{1, 3}, BlockCase{2, 3}, BlockCase{3, 3}, BlockCase{5, 3},
                      BlockCase{3, 2}),
    [](const ::testing::TestParamInfo<BlockCase>& info) {
      return "DOType" + std::to_string(info.param.dotype) + "FPType" +
             std::to_string(info.param.fptype);
    });

TEST(DORecordDigest, EmptySegmentListDigestsAnEmptyBlock) {
  auto record = Build(ThreeSegments(), 1, 2);
  record->GetHeader()->nfp = 0;
  DigestPtr d(record->GetDigest());
  ExpectDigest(d, 2, HashDO(crtest::Bytes(), 1), 777);
}

TEST(DORecordDigest, SingleSegmentGivesItsFingerprintUnhashed) {
  for (unsigned char dotype : {0, 1, 2, 3, 5}) {
    for (unsigned char fptype : {1, 3}) {
      SCOPED_TRACE("dotype " + std::to_string(dotype) + " fptype " + std::to_string(fptype));
      Segment s{0x33, 5000, 0, 9};
      auto record = Build({s}, fptype, dotype, 4242);
      crfp_digest_t expected = {};
      std::memcpy(expected.digest, crtest::PatternFP(0x33, Width(fptype)).data(), Width(fptype));
      DigestPtr d(record->GetDigest());
      ExpectDigest(d, static_cast<unsigned char>(fptype + 1), expected, 4242);
    }
  }
}

TEST(DORecordDigest, OriginalTypeWithoutExactlyOneSegmentHasNoDigest) {
  std::vector<Segment> two = {{1, 4096, 0, 0}, {2, 100, 0, 0}};
  auto record = Build(two, 1, 0);
  EXPECT_EQ(record->GetDigest(), nullptr);
  record->GetHeader()->nfp = 0;
  EXPECT_EQ(record->GetDigest(), nullptr);
}

TEST(DORecordDigest, FingerprintType255GivesDigestType0) {
  auto record = Build({{0x21, 10, 0, 0}}, 1, 2);
  record->GetHeader()->fptype = 255;  // no builder accepts it
  crfp_digest_t expected = {};
  std::memcpy(expected.digest, crtest::PatternFP(0x21, 16).data(), 16);
  DigestPtr d(record->GetDigest());
  ExpectDigest(d, 0, expected, 777);
}

TEST(DORecordDigest, FailureOfTheFingerprintLibraryCarriesItsStatus) {
  auto record = Build(ThreeSegments(), 1, 2);
  record->GetHeader()->fptype = 7;  // unknown to the fingerprint library
  try {
    DigestPtr d(record->GetDigest());
    ADD_FAILURE() << "no exception";
  } catch (const Cr_ErrnoException& e) {
    EXPECT_EQ(e.GetStatus(), CR_STATUS_INVALID);
    EXPECT_STREQ(e.what(), "");
  }
}

// A Bloom record of a 5-byte bitmap and, optionally, three unique DCIDs.
crtest::Bytes UniqueBlock(const std::vector<std::pair<uint64_t, uint64_t>>& entries) {
  crtest::Bytes body;
  body.le32(static_cast<uint32_t>(entries.size()));
  for (const auto& e : entries) body.le64(e.first).le64(e.second);
  crtest::Bytes block;
  block.le32(crtest::SlowAdler32(body.data(), body.size())).raw(body.data(), body.size());
  return block;
}

TEST(DORecordDigest, BloomRecordDigestsItsSpan) {
  const unsigned char bitmap[] = {0xF1, 0x02, 0xE3, 0x04, 0xD5};
  {
    DORecord record(900, 1, 1, 0, 1000, 2000, sizeof bitmap, bitmap, nullptr, 1, 4);
    crtest::Bytes span;
    span.le32(sizeof bitmap).raw(bitmap, sizeof bitmap).zeros(16);
    ASSERT_EQ(span.size(), sizeof bitmap + 20);
    DigestPtr d(record.GetDigest());
    ExpectDigest(d, 2, HashDO(span, 1), 900);
  }
  {
    crtest::Bytes unique = UniqueBlock({{70, 200}, {500, 400}, {900, 12}});
    DORecord record(900, 1, 1, 0, 1000, 2000, sizeof bitmap, bitmap,
                    reinterpret_cast<const char*>(unique.data()), 3, 4);
    crtest::Bytes span;
    span.le32(sizeof bitmap).raw(bitmap, sizeof bitmap).zeros(16).raw(unique.data(),
                                                                      unique.size());
    ASSERT_EQ(span.size(), sizeof bitmap + 76);
    // The Bloom type is looked at before the segment count.
    record.GetHeader()->nfp = 1;
    DigestPtr d(record.GetDigest());
    ExpectDigest(d, 4, HashDO(span, 3), 900);
  }
}

TEST(DORecordDigest, NetworkOrderIsRefusedBeforeAnythingElse) {
  // Of DO type 0 with two segments, which in host order has no digest.
  auto record = Build({{1, 4096, 0, 0}, {2, 100, 0, 0}}, 1, 0);
  record->HostToNetwork(0);
  try {
    DigestPtr d(record->GetDigest());
    ADD_FAILURE() << "no exception";
  } catch (const Cr_ErrnoException& e) {
    EXPECT_EQ(e.GetStatus(), CR_STATUS_INVALID);
    EXPECT_STREQ(e.what(), "GetDigest called while DO record in network order.");
  }
}

}  // namespace
