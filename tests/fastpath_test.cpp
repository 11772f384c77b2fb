// The vectorised codecs, each implementation the CPU offers, against
// references written in the tests (hex) or taken from zlib (Adler-32), on
// random input of many lengths and alignments, the batch fingerprint texts
// among them; and one record long enough that the operations working a piece
// of the segment list at a time span many pieces.
#include <zlib.h>

#include <cctype>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/Adler32.h"
#include "crrecord/DORecord.h"
#include "crrecord/platform/fingerprint.h"
#include "crrecord/platform/status.h"
#include "hex.h"
#include "images.h"

using crrecord::Adler32Path;
using crrecord::HexPath;

namespace {

std::vector<unsigned char> RandomBytes(std::mt19937_64& rng, size_t n) {
  std::vector<unsigned char> v(n);
  for (unsigned char& b : v) b = static_cast<unsigned char>(rng());
  return v;
}

// Every length up to past the widest vector's multiples, and `more`.
std::vector<size_t> Lengths(std::initializer_list<size_t> more) {
  std::vector<size_t> lengths(more);
  for (size_t n = 0; n <= 130; ++n) lengths.push_back(n);
  return lengths;
}

// One test run per implementation, forced through the dispatch, which is
// put back as it was afterwards; skipped where the CPU lacks it.
template <typename Path, bool (*Force)(Path), Path (*Active)()>
class PathTest : public testing::TestWithParam<Path> {
 protected:
  void SetUp() override {
    if (!Force(this->GetParam())) GTEST_SKIP() << "not on this CPU";
    ASSERT_EQ(Active(), this->GetParam());
  }
  void TearDown() override { Force(saved_); }
  const Path saved_ = Active();
};
using HexPaths = PathTest<HexPath, crrecord::HexForcePath, crrecord::HexActivePath>;
using AdlerPaths =
    PathTest<Adler32Path, crrecord::Adler32ForcePath, crrecord::Adler32ActivePath>;

// The text between two guard bytes, then back from mixed case into a buffer
// with a guard byte after it.
TEST_P(HexPaths, EncodesAndDecodesLikeTheReference) {
  std::mt19937_64 rng(1);
  for (size_t n : Lengths({255, 256, 257, 1000, 4095, 4097})) {
    for (size_t shift : {0, 1, 7, 31}) {
      SCOPED_TRACE(testing::Message() << "n=" << n << " shift=" << shift);
      const std::vector<unsigned char> in = RandomBytes(rng, n + shift);
      const std::string hex = crtest::Hex(in.data() + shift, n);
      std::string out(2 * n + 2, '#');
      crrecord::HexEncode(in.data() + shift, n, &out[1]);
      ASSERT_EQ(out, "#" + hex + "#");
      std::string text = std::string(shift, 'x') + hex;
      for (size_t i = shift; i < text.size(); ++i) {
        if (rng() % 2 != 0) text[i] = static_cast<char>(std::toupper(text[i]));
      }
      std::vector<unsigned char> back(n + 1, 0xA5);
      ASSERT_TRUE(crrecord::HexDecode(text.data() + shift, 2 * n, back.data()));
      EXPECT_EQ(crtest::Hex(back.data(), n + 1), hex + "a5");
    }
  }
}

// Each of the 256 character values, placed in the first vector, a later
// vector and the scalar tail, is refused exactly when it is no hex digit.
TEST_P(HexPaths, RefusesExactlyTheNonDigits) {
  for (size_t length : {2, 32, 64, 130}) {
    for (size_t at : {size_t{0}, length / 2, length - 1}) {
      for (int c = 0; c < 256; ++c) {
        std::string text(length, '7');
        text[at] = static_cast<char>(c);
        EXPECT_EQ(crrecord::HexDecode(text.data(), length, &std::vector<unsigned char>(length)[0]),
                  c != 0 && std::strchr("0123456789abcdefABCDEF", c) != nullptr)
            << "char " << c << " at " << at << " of " << length;
      }
    }
  }
  unsigned char out[64];
  EXPECT_FALSE(crrecord::HexDecode("0123456789abcdef0123456789abcdef0", 33, out));
}

// Fields in strides, with and without a NUL after each, and the batch
// fingerprint texts for the fingerprints' widths (entries as in a DO type 3
// segment list): the gaps stay untouched, and the decoder names the first
// bad field, decoding those before it and leaving those after it.
TEST_P(HexPaths, StridedFieldsAndBatchFingerprintTexts) {
  std::mt19937_64 rng(3);
  for (size_t width : {16, 32, 5}) {
    SCOPED_TRACE(testing::Message() << "width " << width);
    const unsigned char fptype = width == 16 ? CR_FP_TYPE_MD5 : width == 32 ? CR_FP_TYPE_SHA256 : 0;
    const size_t count = 37, inStride = width + 12, outStride = 2 * width + 5;
    const std::vector<unsigned char> in = RandomBytes(rng, count * inStride);
    std::string text(count * outStride, '#'), terminated = text, batch = text, expected, withNul;
    for (size_t k = 0; k < count; ++k) {
      expected += crtest::Hex(&in[k * inStride], width) + "#####";
      withNul += crtest::Hex(&in[k * inStride], width) + std::string("\0####", 5);
    }
    crrecord::HexEncodeFields(in.data(), inStride, width, &text[0], outStride, count, false);
    EXPECT_EQ(text, expected);
    crrecord::HexEncodeFields(in.data(), inStride, width, &terminated[0], outStride, count, true);
    EXPECT_EQ(terminated, withNul);
    if (fptype != 0) {
      ASSERT_EQ(CRFPDigestsToStrings(in.data(), inStride, fptype, &batch[0], outStride, count), 0);
      EXPECT_EQ(batch, withNul);
    }

    std::vector<unsigned char> back(count * inStride, 0xEE);
    auto decode = [&](const std::string& from, bool nul) {
      return crrecord::HexDecodeFields(from.data(), outStride, width, back.data(), inStride,
                                       count, nul);
    };
    text[20 * outStride + 2 * width - 1] = 'g';
    EXPECT_EQ(decode(text, false), 20u);
    EXPECT_EQ(crtest::Hex(&back[19 * inStride], inStride),  // the gap after it untouched
              crtest::Hex(&in[19 * inStride], width) + std::string(24, 'e'));
    EXPECT_EQ(crtest::Hex(&back[21 * inStride], inStride), std::string(2 * inStride, 'e'));
    text[20 * outStride + 2 * width - 1] = '0';
    EXPECT_EQ(decode(text, false), count);
    terminated[9 * outStride + 2 * width] = '0';  // digits, but no NUL after them
    EXPECT_EQ(decode(terminated, true), 9u);
    if (fptype != 0) {
      *__cr_errno_location() = 0;
      EXPECT_EQ(CRFPStringsToDigests(batch.data(), outStride, fptype, back.data(), inStride, count),
                count);
      batch[7 * outStride + 3] = ' ';
      EXPECT_EQ(CRFPStringsToDigests(batch.data(), outStride, fptype, back.data(), inStride, count),
                7u);
      EXPECT_EQ(*__cr_errno_location(), CR_STATUS_MALFORMED);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Paths, HexPaths,
                         testing::Values(HexPath::kPortable, HexPath::kSSSE3, HexPath::kAVX2));

// zlib's adler32 takes 32-bit lengths (every length here fits) and answers
// 1 for a null buffer, where nothing read leaves the checksum as it was.
uint32_t ZlibAdler(uint32_t start, const unsigned char* p, size_t n) {
  return n == 0 ? start : static_cast<uint32_t>(adler32(start, p, static_cast<uInt>(n)));
}

// From 1 and from a value taken part-way, as a checksum taken in pieces is;
// all bytes 0xFF from the largest sums is what the deferred reduction must
// survive without overflow.
TEST_P(AdlerPaths, MatchesZlib) {
  std::mt19937_64 rng(4);
  for (size_t n : Lengths({255, 256, 257, 1000, 4095, 4097, 5535, 5536, 5551, 5552, 5553, 5568,
                           11104, 11105, 65539, 1 << 20})) {
    for (size_t shift : {0, 1, 13}) {
      const std::vector<unsigned char> in = RandomBytes(rng, n + shift);
      const unsigned char* p = in.data() + shift;
      EXPECT_EQ(crrecord::Adler32(p, n), ZlibAdler(1, p, n)) << "n=" << n << " shift=" << shift;
      const uint32_t start = static_cast<uint32_t>(rng() % 65521) << 16 | (rng() % 65521);
      EXPECT_EQ(crrecord::Adler32Update(start, p, n), ZlibAdler(start, p, n))
          << "n=" << n << " from " << start;
    }
  }
  const std::vector<unsigned char> ones(3 * 5552 + 77, 0xFF);
  const uint32_t largest = (65520u << 16) | 65520u;
  for (size_t n : {size_t{5552}, size_t{5553}, ones.size()}) {
    EXPECT_EQ(crrecord::Adler32Update(largest, ones.data(), n), ZlibAdler(largest, ones.data(), n))
        << "0xFF n=" << n;
  }
}

INSTANTIATE_TEST_SUITE_P(Paths, AdlerPaths,
                         testing::Values(Adler32Path::kPortable, Adler32Path::kSSSE3,
                                         Adler32Path::kAVX2, Adler32Path::kAVX512));

// --- One large record -----------------------------------------------------------

// n MD5 segments of 1000 to 9000 bytes back to back, in `containers` DCIDs.
std::vector<crtest::Seg> ManySegments(size_t n, uint32_t containers) {
  std::mt19937_64 rng(n);
  std::vector<crtest::Seg> segs(n);
  uint64_t offset = 0;
  for (crtest::Seg& s : segs) {
    s = {RandomBytes(rng, 16), 1000 + static_cast<uint32_t>(rng() % 8001), offset,
         static_cast<uint32_t>(offset), 64 + 1000 * (rng() % containers)};
    offset += s.size;
  }
  return segs;
}

// 320,000 segments in 50,000 containers: hundreds of the builder's, the
// serializer's, the reader's and the digest's pieces, a segment list large
// enough (9 MB) for the builder and the reader to stream it past the cache,
// and more containers than the unique-DCID table keeps in the cache, so
// that the rest are gathered by partitions.
TEST(LargeRecord, RoundTripAndUniqueDCIDsMatchTheirHandWrittenForms) {
  const size_t n = 320000;
  std::vector<crtest::Seg> segs = ManySegments(n, 50000);
  uint64_t size = 0;
  std::map<uint64_t, uint64_t> containers;
  for (const crtest::Seg& s : segs) {
    size += s.size;
    containers[s.dcid] += s.size;
  }
  const crtest::Bytes list = crtest::SegmentList(3, segs);
  std::unique_ptr<DORecord> r = crtest::BuildDO(3, 1, segs, 0x01020304, 900, size, 7, 7);

  const std::vector<uint8_t> plain = crtest::SerializedDO(3, size, 4096, 0x01020304, segs);
  EXPECT_TRUE(crtest::SerializedBytes(*r, false) == plain);
  const std::vector<uint8_t> image = crtest::Sealed(plain);
  EXPECT_TRUE(crtest::SerializedBytes(*r, true) == image);
  DORecord back(3, 2, 900, 1, nullptr, 0, image.data(), image.size(), false);
  ASSERT_EQ(back.GetHeaderSize(), r->GetHeaderSize());
  EXPECT_EQ(std::memcmp(back.GetSegmentFP(0), list.data(), list.size()), 0);
  EXPECT_EQ(std::memcmp(back.GetSegmentDCIDList(), r->GetSegmentDCIDList(), 8 * n), 0);

  // The reader names the first segment whose text breaks a rule, whichever
  // rule and whichever piece.
  struct BadField { size_t badDigit, noNul, reported; };  // n for none
  for (const BadField& c : {BadField{1100, 1200, 1100}, BadField{1100, 700, 700},
                            BadField{n, n - 1, n - 1}, BadField{512, n, 512}}) {
    std::vector<uint8_t> bad = image;
    if (c.badDigit < n) bad[28 + c.badDigit * 45 + 31] = 'g';
    if (c.noNul < n) bad[28 + c.noNul * 45 + 32] = '0';
    crtest::LogCapture log(true);
    DORecordHeader* h = nullptr;
    unsigned long allocated = 0;
    EXPECT_EQ(DORecordHeaderDeserialize(&h, &allocated, bad.data(), bad.size(), 3, 1),
              CR_STATUS_MALFORMED);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(log.texts(), std::vector<std::string>{
                               "Invalid serialized DO record: fingerprint text of segment " +
                               std::to_string(c.reported) + " is not 32 hex digits and a NUL"});
  }

  // The digest hashes the serialized form's segment entries, DO-labelled.
  crfp_ctx_t ctx;
  crfp_digest_t expected;
  ASSERT_EQ(CRFPInitialize(&ctx, 1), 0);
  ASSERT_EQ(CRFPAppend(&ctx, &plain[28], static_cast<unsigned int>(n * 45)), 0);
  ASSERT_EQ(CRFPFinalizeDO(&ctx), 0);
  ASSERT_NE(CRFPGetDigest_r(&ctx, &expected), nullptr);
  cr_tdigest_t* digest = r->GetDigest();
  EXPECT_EQ(crtest::Hex(digest->digest.digest, 16), crtest::Hex(expected.digest, 16));
  CRTDigestDelete(&digest);

  // Invalid DCIDs far past the turn to partitions: the first is named and
  // the record stays as it was; put right, the list comes out ascending.
  r->SetSegmentDCID(250001, 63);
  r->SetSegmentDCID(n - 1, 0);
  crtest::LogCapture log;
  EXPECT_EQ(r->AppendBloomAndUniqueDCIDList(), CR_STATUS_INVALID);
  EXPECT_EQ(log.texts(), std::vector<std::string>{
                             "AppendBloomAndUniqueDCIDList: Invalid DCID 63 for SO " +
                             crtest::Hex(segs[250001].fp.data(), 16) + " at index 250001."});
  EXPECT_EQ(r->GetNudcid(), 0u);
  EXPECT_EQ(r->GetHeaderSize(), 80 + n * (16 + 12 + 8));
  r->SetSegmentDCID(250001, segs[250001].dcid);
  r->SetSegmentDCID(n - 1, segs[n - 1].dcid);
  ASSERT_EQ(r->AppendBloomAndUniqueDCIDList(), 0u);
  crtest::Bytes body, section;
  body.le32(static_cast<uint32_t>(containers.size()));
  for (const auto& e : containers) body.le64(e.first).le64(e.second);
  section.le32(crtest::SlowAdler32(body.data(), body.size())).raw(body.data(), body.size());
  EXPECT_EQ(crtest::Hex(r->GetSegmentUDCIDList(), section.size()),
            crtest::Hex(section.data(), section.size()));
  EXPECT_EQ(r->GetHeaderSize(), 80 + n * (16 + 12 + 8) + section.size());

  // Two faults: the size pass runs first, whatever the positions.
  segs[1400].offset -= 1;
  segs[1450].size = 0x80000000;
  crtest::ExpectThrows([&] { crtest::BuildDO(3, 1, segs, 0, 900, size); }, 89,
                       "Segment list of a DORecord is corrupt. Segment 1450 has size 2147483648 "
                       "(> 2 GiB). Data is probably in wrong byte order (host vs. network order)");
}

}  // namespace
